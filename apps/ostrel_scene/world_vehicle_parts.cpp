#include "world_vehicle_parts.h"

#include <algorithm>

namespace ostrel_scene {
namespace {

constexpr int kWheelSides = 14;
constexpr float kProud_m = 0.02F;  // how far a window or lamp stands out of what carries it

Vec3 between(const Vec3& a, const Vec3& b, float share) {
  return a + (b - a) * share;
}

// Half a cross-section from the sill to the middle of the top.
std::array<Vec3, 6> outline(const Section& s, float side) {
  const float h = s.top - s.bottom, w = s.half_width * side;
  return {Vec3(s.x, 0.92F * w, s.bottom),
          Vec3(s.x, w, s.bottom + 0.22F * h),
          Vec3(s.x, 1.0F * w, s.bottom + 0.62F * h),
          Vec3(s.x, 0.95F * w, s.bottom + 0.90F * h),
          Vec3(s.x, 0.82F * w, s.top),
          Vec3(s.x, 0.0F, s.top + 0.03F)};
}

}  // namespace

Surface glass() {
  return {screen_colour(38, 44, 50), 0.5F, 0.9F, 0.0F};
}
Surface black_plastic() {
  return {screen_colour(46, 46, 48), 0.1F, 0.1F, 0.0F};
}
Surface rubber() {
  return {screen_colour(34, 34, 35), 0.0F, 0.0F, 0.0F};
}

VehicleBuilder::VehicleBuilder(const Colour& paint) : paint_{paint, 0.7F, 0.5F, 0.0F} {}

void VehicleBuilder::add_triangle(const Vec3& a, const Vec3& b, const Vec3& c, const Surface& surface,
                                  const Vec3& inside) {
  const Vec3 raw = (b - a).cross(c - a);
  if (raw.dot(raw) < 1e-12F) return;
  const Vec3 normal = unit(raw);
  const bool outwards = normal.dot((a + b + c) * (1.0F / 3.0F) - inside) >= 0.0F;
  model_.facets.push_back({{a, b, c}, outwards ? normal : normal * -1.0F, surface});
}

void VehicleBuilder::add_quad(const std::array<Vec3, 4>& q, const Surface& surface, const Vec3& inside) {
  add_triangle(q[0], q[1], q[2], surface, inside);
  add_triangle(q[0], q[2], q[3], surface, inside);
}

void VehicleBuilder::add_box(const Vec3& low, const Vec3& high, const Surface& surface) {
  const Vec3 middle = (low + high) * 0.5F;
  const auto at = [&](bool x, bool y, bool z) {
    return Vec3(x ? high.x : low.x, y ? high.y : low.y, z ? high.z : low.z);
  };
  for (const bool end : {false, true}) {
    add_quad({at(end, false, false), at(end, true, false), at(end, true, true), at(end, false, true)},
             surface, middle);
    add_quad({at(false, end, false), at(true, end, false), at(true, end, true), at(false, end, true)},
             surface, middle);
    add_quad({at(false, false, end), at(true, false, end), at(true, true, end), at(false, true, end)},
             surface, middle);
  }
}

void VehicleBuilder::add_body(const std::vector<Section>& sections, const Surface& surface) {
  for (std::size_t i = 0; i + 1 < sections.size(); ++i) {
    const Section &rear = sections[i], &front = sections[i + 1];
    const Vec3 inside(0.5F * (rear.x + front.x), 0.0F,
                      0.25F * (rear.bottom + rear.top + front.bottom + front.top));
    for (const float side : {-1.0F, 1.0F}) {
      const auto a = outline(rear, side), b = outline(front, side);
      for (std::size_t k = 0; k + 1 < a.size(); ++k)
        add_quad({a[k], b[k], b[k + 1], a[k + 1]}, k == 0 ? black_plastic() : surface, inside);
    }
  }
  for (const Section* end : {&sections.front(), &sections.back()}) {
    const Vec3 inside(0.0F, 0.0F, 0.5F * (end->bottom + end->top));
    const auto left = outline(*end, 1.0F), right = outline(*end, -1.0F);
    for (std::size_t k = 0; k + 1 < left.size(); ++k)
      add_quad({left[k], right[k], right[k + 1], left[k + 1]}, surface, inside);
  }
}

void VehicleBuilder::add_pane(const std::array<Vec3, 4>& wall, float from, float to, const Vec3& inside) {
  const auto at = [&](float u, float v) {
    return between(between(wall[0], wall[1], u), between(wall[3], wall[2], u), v);
  };
  std::array<Vec3, 4> window = {at(from, 0.08F), at(to, 0.08F), at(to, 0.86F), at(from, 0.86F)};
  const Vec3 normal = unit((wall[1] - wall[0]).cross(wall[3] - wall[0]));
  const bool outwards = normal.dot(window[0] - inside) > 0.0F;
  for (Vec3& corner : window) corner += normal * (outwards ? kProud_m : -kProud_m);
  add_quad(window, glass(), inside);
}

void VehicleBuilder::add_cabin(const Cabin& c, const Surface& roof) {
  const auto belt = [&](float x, float side) { return Vec3(x, side * c.belt_half_width, c.belt_z); };
  const auto top = [&](float x, float side) { return Vec3(x, side * c.roof_half_width, c.roof_z); };
  const Vec3 inside(0.5F * (c.belt_rear + c.belt_front), 0.0F, 0.5F * (c.belt_z + c.roof_z));
  for (const float side : {-1.0F, 1.0F}) {
    const std::array<Vec3, 4> wall = {belt(c.belt_rear, side), belt(c.belt_front, side),
                                      top(c.roof_front, side), top(c.roof_rear, side)};
    add_quad(wall, roof, inside);
    const float share = 0.94F / static_cast<float>(std::max(1, c.side_windows));
    for (int i = 0; i < c.side_windows; ++i) {
      const float from = 0.03F + share * static_cast<float>(i);
      add_pane(wall, from + 0.02F, from + share - 0.03F, inside);
    }
  }
  const std::array<Vec3, 4> front = {belt(c.belt_front, -1), belt(c.belt_front, 1), top(c.roof_front, 1),
                                     top(c.roof_front, -1)};
  const std::array<Vec3, 4> rear = {belt(c.belt_rear, -1), belt(c.belt_rear, 1), top(c.roof_rear, 1),
                                    top(c.roof_rear, -1)};
  add_quad(front, roof, inside);
  add_quad(rear, roof, inside);
  add_pane(front, 0.06F, 0.94F, inside);
  if (c.rear_window) add_pane(rear, 0.08F, 0.92F, inside);
  add_quad({top(c.roof_rear, -1), top(c.roof_front, -1), top(c.roof_front, 1), top(c.roof_rear, 1)}, roof,
           inside);
}

void VehicleBuilder::add_disc(const Vec3& centre, float radius, float side, const Surface& surface) {
  const auto rim = [&](int i) {
    const float turn = 2.0F * kPi_f * static_cast<float>(i) / kWheelSides;
    const Vec3 place = centre + Vec3(radius * std::cos(turn), 0.0F, radius * std::sin(turn));
    return Vec3(place.x, place.y, std::max(0.0F, place.z));  // a wheel arch ends at the road
  };
  const Vec3 inside = centre - Vec3(0.0F, side, 0.0F);
  for (int i = 0; i < kWheelSides; ++i) add_triangle(centre, rim(i), rim(i + 1), surface, inside);
}

void VehicleBuilder::add_wheels(float front_x, float rear_x, float half_width, float radius) {
  const Surface rim{screen_colour(150, 152, 156), 0.4F, 0.2F, 0.0F};
  const Surface arch{screen_colour(20, 20, 21), 0.0F, 0.0F, 0.0F};
  for (const float x : {front_x, rear_x}) {
    for (const float side : {-1.0F, 1.0F}) {
      add_disc({x, side * (half_width + 0.010F), radius * 1.06F}, radius * 1.24F, side, arch);
      add_disc({x, side * (half_width + 0.025F), radius}, radius, side, rubber());
      add_disc({x, side * (half_width + 0.040F), radius}, radius * 0.62F, side, rim);
      add_box({x - 0.8F * radius, side * half_width - 0.12F, 0.0F},
              {x + 0.8F * radius, side * half_width + 0.01F, radius}, rubber());
    }
  }
}

void VehicleBuilder::add_ends(float front_x, float rear_x, float half_width, float lamp_z) {
  const Surface white{screen_colour(240, 240, 232), 0.8F, 0.5F, 0.25F};
  const Surface red{screen_colour(176, 26, 24), 0.4F, 0.2F, 0.35F};
  const Surface plate{screen_colour(226, 226, 214), 0.1F, 0.0F, 0.0F};
  const auto both = [&](float x, float out, const Surface& lamp, float height) {
    for (const float side : {-1.0F, 1.0F}) {
      const float inner = side * half_width * 0.58F, outer = side * half_width * 0.97F;
      add_box({x - out, std::min(inner, outer), lamp_z - height},
              {x + out, std::max(inner, outer), lamp_z + height}, lamp);
    }
  };
  both(front_x, 0.05F, white, 0.09F);
  both(rear_x, 0.05F, red, 0.13F);
  for (const float x : {front_x, rear_x}) {
    add_box({x - 0.09F, -0.96F * half_width, 0.30F}, {x + 0.09F, 0.96F * half_width, 0.52F}, black_plastic());
    add_box({x - 0.11F, -0.26F, 0.36F}, {x + 0.11F, 0.26F, 0.47F}, plate);
  }
  add_box({front_x - 0.04F, -0.5F * half_width, lamp_z - 0.14F},
          {front_x + 0.04F, 0.5F * half_width, lamp_z + 0.05F}, black_plastic());
}

void VehicleBuilder::add_seam(float x, float half_width, float bottom, float top) {
  for (const float side : {-1.0F, 1.0F}) {
    const float y = side * (half_width + 0.012F);
    add_quad({Vec3(x - 0.018F, y, bottom), Vec3(x + 0.018F, y, bottom), Vec3(x + 0.018F, y, top),
              Vec3(x - 0.018F, y, top)},
             black_plastic(), {x, 0.0F, bottom});
  }
}

void VehicleBuilder::add_mirrors(float x, float half_width, float z) {
  for (const float side : {-1.0F, 1.0F}) {
    const float inner = side * half_width, outer = side * (half_width + 0.2F);
    add_box({x - 0.08F, std::min(inner, outer), z}, {x + 0.08F, std::max(inner, outer), z + 0.16F},
            black_plastic());
  }
}

VehicleModel VehicleBuilder::finish(float length_m, float width_m, float height_m) {
  model_.length_m = length_m;
  model_.width_m = width_m;
  model_.height_m = height_m;
  return std::move(model_);
}

}  // namespace ostrel_scene
