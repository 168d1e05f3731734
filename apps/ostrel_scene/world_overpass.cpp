// The overpass: deck, parapets, pillars, ramps.
#include "world_ground.h"
#include "world_land.h"
#include "world_static.h"

namespace ostrel_scene {
namespace {

constexpr float kPiece_m = 0.8F, kGrassPiece_m = 0.35F;
constexpr float kDeckThickness_m = 1.1F;
constexpr float kParapetHeight_m = 0.85F;
constexpr float kCarriageHalf_m = 5.2F;
constexpr float kSlope = 1.7F;  // metres out for each metre down

const Colour& concrete() {
  static const Colour colour = screen_colour(176, 172, 162);
  return colour;
}

GroundPatch patch_at(const Vec3& p) {
  return {p.x, p.y, 0.2F, 0.3F};
}

Vec3 raised(const Vec3& point, float height_m) {
  return point + Vec3(0.0F, 0.0F, height_m);
}

// A band of the structure between two offsets from its axis, in steps along it.
struct Band {
  float from_along_m, to_along_m;
  float left_m, right_m;
  float left_rise_m = 0.0F, right_rise_m = 0.0F;  // over the carriageway's height
  bool shadows = true;
};

void add_band(StaticScene& scene, const Band& band, float step_m, const AlbedoAt& albedo) {
  for (float along = band.from_along_m; along < band.to_along_m - 0.01F; along += step_m) {
    const float next = std::min(along + step_m, band.to_along_m);
    const Quad quad{{raised(overpass_point(along, band.left_m), band.left_rise_m),
                     raised(overpass_point(along, band.right_m), band.right_rise_m),
                     raised(overpass_point(next, band.right_m), band.right_rise_m),
                     raised(overpass_point(next, band.left_m), band.left_rise_m)},
                    band.shadows};
    add_quad(scene, quad, kPiece_m, albedo);
  }
}

AlbedoAt weathered(const Ground& ground, float tone) {
  return [&ground, tone](const Vec3& p) {
    // Concrete takes the blotches of gravel, paler, and streaks below its edges.
    const Colour stains = ground.gravel({p.x + 3.0F * p.z, p.y, 0.3F, 0.3F});
    return mix(concrete(), stains, 0.35F) * tone;
  };
}

void build_carriageway(StaticScene& scene, const Ground& ground) {
  static const Colour white = screen_colour(222, 220, 212);
  const float end = kDeckHalfLength_m + 0.9F * kRampLength_m;
  const auto road = [&](const Vec3& p) { return ground.asphalt(patch_at(p)); };
  const auto paint = [&](const Vec3&) { return white * 0.8F; };
  add_band(scene, {-end, end, -kCarriageHalf_m, kCarriageHalf_m}, 3.0F, road);
  for (const float side : {-1.0F, 1.0F}) {
    const float inner = side * kCarriageHalf_m, outer = side * kDeckHalfWidth_m;
    add_band(scene, {-end, end, inner, outer, 0.12F, 0.12F}, 3.0F, weathered(ground, 1.0F));
    add_band(scene, {-end, end, side * 4.62F, side * 4.76F, 0.03F, 0.03F, false}, 6.0F, paint);
  }
  for (float along = -end; along < end; along += 9.0F)
    add_band(scene, {along, along + 4.0F, -0.07F, 0.07F, 0.03F, 0.03F, false}, 4.0F, paint);
}

void build_parapets(StaticScene& scene, const Ground& ground) {
  const float end = kDeckHalfLength_m + 3.0F;
  for (const float side : {-1.0F, 1.0F}) {
    const float outer = side * kDeckHalfWidth_m, inner = side * (kDeckHalfWidth_m - 0.3F);
    add_band(scene, {-end, end, inner, inner, 0.0F, kParapetHeight_m}, 3.0F, weathered(ground, 0.95F));
    add_band(scene, {-end, end, inner, outer, kParapetHeight_m, kParapetHeight_m}, 3.0F,
             weathered(ground, 1.08F));
    add_band(scene, {-end, end, outer, outer, -kDeckThickness_m, kParapetHeight_m}, 3.0F,
             weathered(ground, 0.9F));
  }
  // The deck's near face, and the shade below.
  const auto dark = [](const Vec3&) { return concrete() * 0.25F; };
  add_band(scene,
           {-kDeckHalfLength_m, kDeckHalfLength_m, -kDeckHalfWidth_m, kDeckHalfWidth_m, -kDeckThickness_m,
            -kDeckThickness_m},
           3.0F, dark);
}

void build_pillars(StaticScene& scene, const Ground& ground) {
  for (const float along : {-11.0F, 11.0F}) {
    for (const float across : {-4.2F, 0.0F, 4.2F}) {
      Vec3 foot = overpass_point(along, across);
      foot.z = 0.0F;
      add_block(scene, {foot, overpass_heading(), 0.5F, 0.5F, kDeckHeight_m - kDeckThickness_m}, 1.0F,
                weathered(ground, 0.85F));
    }
  }
}

void build_ramps(StaticScene& scene, const Ground& ground) {
  const auto grass = [&](const Vec3& p) { return ground.grass(patch_at(p)); };
  for (const float end : {-1.0F, 1.0F}) {
    for (float step = 0.0F; step < kRampLength_m; step += 2.5F) {
      const float a = end * (kDeckHalfLength_m + step), b = end * (kDeckHalfLength_m + step + 2.5F);
      const float height_a = overpass_height(a), height_b = overpass_height(b);
      for (const float side : {-1.0F, 1.0F}) {
        const float edge = side * kDeckHalfWidth_m;
        Vec3 low_a = overpass_point(a, edge + side * kSlope * height_a);
        Vec3 low_b = overpass_point(b, edge + side * kSlope * height_b);
        low_a.z = low_b.z = 0.0F;
        add_quad(scene, {{overpass_point(a, edge), overpass_point(b, edge), low_b, low_a}, true},
                 kGrassPiece_m, grass);
      }
    }
    // The slope under the end of the deck.
    const float top = end * kDeckHalfLength_m, foot = end * (kDeckHalfLength_m - 7.0F);
    Vec3 low_left = overpass_point(foot, -kDeckHalfWidth_m),
         low_right = overpass_point(foot, kDeckHalfWidth_m);
    low_left.z = low_right.z = 0.0F;
    add_quad(scene,
             {{raised(overpass_point(top, -kDeckHalfWidth_m), -kDeckThickness_m),
               raised(overpass_point(top, kDeckHalfWidth_m), -kDeckThickness_m), low_right, low_left},
              false},
             kPiece_m, weathered(ground, 0.6F));
  }
}

}  // namespace

void build_overpass(StaticScene& scene, const Ground& ground) {
  build_ramps(scene, ground);
  build_carriageway(scene, ground);
  build_parapets(scene, ground);
  build_pillars(scene, ground);
}

}  // namespace ostrel_scene
