// Trees, bushes, hedges and woods as clouds of leaves.
#include <algorithm>

#include "world_land.h"
#include "world_static.h"

namespace ostrel_scene {
namespace {

struct Plant {
  Vec3 foot;
  float height_m = 8.0F;
  float crown_from = 0.3F;   // share of the height where the crown begins
  float crown_width = 0.7F;  // share of the height
  Colour green;
  float density = 1.0F;
};

struct Grower {
  StaticScene& scene;
  Dice dice;
  float smallest_radian;

  void grow(const Plant& plant);
  void grow_clump(const Plant& plant, const Vec3& crown, const Vec3& radii, const Vec3& middle,
                  float radius_m);
  void grow_trunk(const Plant& plant);
  void shade_ground(const Vec3& crown, const Vec3& radii);
  Vec3 on_sphere();
};

Vec3 Grower::on_sphere() {
  const float z = dice.between(-1.0F, 1.0F);
  const float turn = dice.between(0.0F, 2.0F * kPi_f);
  const float flat = std::sqrt(1.0F - z * z);
  return {flat * std::cos(turn), flat * std::sin(turn), z};
}

void Grower::grow_trunk(const Plant& plant) {
  static const Colour bark = screen_colour(94, 80, 66);
  const float top = plant.height_m * (plant.crown_from + 0.25F);
  const float radius =
      std::max(0.022F * plant.height_m, 0.4F * smallest_radian * distance_to_camera(plant.foot));
  for (float z = 0.5F * radius; z < top; z += 0.8F * radius) {
    const Vec3 place = plant.foot + Vec3(0.0F, 0.0F, z);
    scene.leaves.push_back({place, radius, bark * dice.between(0.45F, 0.75F)});
    scene.sun_map.add_leaf(place, radius);
  }
}

// Light falls on a leaf by where it sits on its clump and on the crown; leaves deep inside are dark.
void Grower::grow_clump(const Plant& plant, const Vec3& crown, const Vec3& radii, const Vec3& middle,
                        float radius_m) {
  const float leaf_m =
      std::max(0.009F * plant.height_m + 0.03F, 0.8F * smallest_radian * distance_to_camera(middle));
  const float ratio = radius_m / leaf_m;
  const int count = std::clamp(static_cast<int>(2.3F * plant.density * ratio * ratio), 3, 420);
  const float clump_tone = dice.between(0.82F, 1.14F);
  for (int i = 0; i < count; ++i) {
    const Vec3 outwards = on_sphere();
    const Vec3 place = middle + outwards * (radius_m * std::cbrt(dice.between(0.2F, 1.0F)));
    if (place.z < 0.05F) continue;
    const Vec3 in_crown((place.x - crown.x) / radii.x, (place.y - crown.y) / radii.y,
                        (place.z - crown.z) / radii.z);
    const float depth = std::min(1.15F, length(in_crown));
    const Vec3 normal = unit(outwards * 0.55F + in_crown * 0.9F + Vec3(0.0F, 0.0F, 0.15F));
    const float open = 0.22F + 0.78F * depth * depth;
    const float low = 0.62F + 0.38F * std::clamp(0.5F + 0.5F * in_crown.z, 0.0F, 1.0F);
    const float sun = smooth_step(-0.35F, 0.75F, normal.dot(to_sun()));
    const Colour colour =
        lit(plant.green * (clump_tone * dice.between(0.72F, 1.25F)), to_sun(), sun * open) * (open * low);
    scene.leaves.push_back({place, leaf_m * dice.between(0.75F, 1.3F), colour});
  }
}

// One leaf in some, enlarged: shadows need less detail than the plant.
void Grower::shade_ground(const Vec3& crown, const Vec3& radii) {
  const int count = std::clamp(static_cast<int>(34.0F * radii.x * radii.z), 30, 700);
  for (int i = 0; i < count; ++i) {
    const Vec3 direction = on_sphere();
    const float out = std::cbrt(dice.between(0.05F, 1.0F));
    const Vec3 place(crown.x + radii.x * out * direction.x, crown.y + radii.y * out * direction.y,
                     crown.z + radii.z * out * direction.z);
    scene.sun_map.add_leaf(place, dice.between(0.3F, 0.75F));
  }
}

void Grower::grow(const Plant& plant) {
  const float crown_half = 0.5F * plant.height_m * (1.0F - plant.crown_from);
  const float width = 0.5F * plant.height_m * plant.crown_width;
  const Vec3 crown = plant.foot + Vec3(0.0F, 0.0F, plant.height_m - crown_half);
  const Vec3 radii(width, width, crown_half);
  const int clumps = std::clamp(static_cast<int>(34.0F * plant.density), 6, 48);
  const float clump_m = 0.36F * std::sqrt(width * crown_half);
  for (int i = 0; i < clumps; ++i) {
    const Vec3 direction = on_sphere();
    const float out = dice.between(0.35F, 0.92F);
    const Vec3 middle(crown.x + width * out * direction.x, crown.y + width * out * direction.y,
                      crown.z + crown_half * out * direction.z);
    grow_clump(plant, crown, radii, middle, clump_m * dice.between(0.7F, 1.25F));
  }
  grow_trunk(plant);
  shade_ground(crown, radii);
}

Colour green_of(Dice& dice) {
  static const Colour dark = screen_colour(66, 92, 46), light = screen_colour(116, 132, 62);
  static const Colour olive = screen_colour(112, 112, 66);
  return mix(mix(dark, light, dice.between(0.0F, 1.0F)), olive, dice.between(0.0F, 0.5F));
}

// Three slender trees before the road: gaps between their crowns show the target in part.
void plant_row_of_three(Grower& grower) {
  for (int i = 0; i < 3; ++i) {
    Plant plant;
    plant.foot = before_road(-59.0F + 6.5F * static_cast<float>(i), kNearOuterLane_m, 9.5F);
    plant.height_m = grower.dice.between(5.6F, 6.4F);
    plant.crown_from = 0.42F;
    plant.crown_width = 0.46F;
    plant.green = green_of(grower.dice);
    plant.density = 0.55F;
    grower.grow(plant);
  }
}

// The wood that hides the target for long: bushes at its edge, trees behind them.
void plant_wood(Grower& grower) {
  constexpr float kFrom_m = 59.5F, kTo_m = 65.6F;
  const float rows[][3] = {
      {8.5F, 4.6F, 0.0F}, {13.0F, 8.0F, 0.06F}, {18.5F, 10.5F, 0.15F}, {25.0F, 11.0F, 0.2F}};
  for (const auto& row : rows) {
    for (float x = kFrom_m; x <= kTo_m; x += 2.6F) {
      Plant plant;
      plant.foot = before_road(x + grower.dice.between(-0.5F, 0.5F), kNearOuterLane_m,
                               row[0] + grower.dice.between(-1.2F, 1.2F));
      plant.height_m = row[1] * grower.dice.between(0.88F, 1.15F);
      plant.crown_from = row[2];
      plant.crown_width = 0.78F;
      plant.green = green_of(grower.dice);
      grower.grow(plant);
    }
  }
}

// Nothing that is planted at random hides the road from its far edge to the lay-by.
bool leaves_view_of_road(const Vec3& foot, float height_m) {
  constexpr float kNearEdge_m = 14.0F, kFarEdge_m = 11.0F, kRoom_m = 0.5F;
  const float offset = main_road_offset(foot.x, foot.y);
  if (offset > kFarEdge_m) return true;
  if (offset > -kNearEdge_m) return false;
  // How much farther the near edge is on the same line of sight.
  float farther = 1.0F;
  while (farther < 4.0F && main_road_offset(foot.x * farther, foot.y * farther) < -kNearEdge_m)
    farther += 0.02F;
  return height_m + kRoom_m < kMastHeight_m * (1.0F - 1.0F / farther);
}

bool on_overpass(const Vec3& foot) {
  return std::abs(overpass_place(foot.x, foot.y).y) < 20.0F;
}

void plant_if_free(Grower& grower, const Plant& plant) {
  if (leaves_view_of_road(plant.foot, plant.height_m) && !on_overpass(plant.foot)) grower.grow(plant);
}

// Lower growth around the wood, so that it does not stand there like one tree.
void plant_wood_edge(Grower& grower) {
  for (int i = 0; i < 26; ++i) {
    Plant plant;
    plant.foot =
        before_road(grower.dice.between(46.0F, 80.0F), kNearOuterLane_m, grower.dice.between(13.0F, 38.0F));
    plant.height_m = grower.dice.between(1.4F, 6.5F);
    plant.crown_from = plant.height_m < 3.0F ? 0.0F : 0.12F;
    plant.crown_width = grower.dice.between(0.8F, 1.2F);
    plant.green = green_of(grower.dice);
    plant_if_free(grower, plant);
  }
}

void scatter_singles(Grower& grower) {
  for (int i = 0; i < 90; ++i) {
    Plant plant;
    const float turn = grower.dice.between(-1.25F, 1.25F);
    const float away = grower.dice.between(60.0F, 420.0F);
    plant.foot = {away * std::sin(turn), away * std::cos(turn), 0.0F};
    const bool bush = grower.dice.between(0.0F, 1.0F) < 0.45F;
    plant.height_m = bush ? grower.dice.between(1.2F, 3.0F) : grower.dice.between(5.0F, 12.0F);
    plant.crown_from = bush ? 0.0F : grower.dice.between(0.18F, 0.35F);
    plant.crown_width = bush ? 1.3F : grower.dice.between(0.6F, 0.95F);
    plant.green = green_of(grower.dice);
    plant_if_free(grower, plant);
  }
}

void plant_hedge(Grower& grower, const cv::Point2f& from, const cv::Point2f& to) {
  const cv::Point2f way = to - from;
  const float total = std::sqrt(way.dot(way));
  for (float along = 0.0F; along < total; along += grower.dice.between(1.6F, 3.4F)) {
    Plant plant;
    const cv::Point2f place = from + way * (along / total);
    plant.foot = {place.x + grower.dice.between(-0.7F, 0.7F), place.y + grower.dice.between(-0.7F, 0.7F),
                  0.0F};
    const bool tree = grower.dice.between(0.0F, 1.0F) < 0.13F;
    plant.height_m = tree ? grower.dice.between(6.0F, 10.0F) : grower.dice.between(1.8F, 3.2F);
    plant.crown_from = tree ? 0.15F : 0.0F;
    plant.crown_width = tree ? 0.8F : 1.1F;
    plant.green = green_of(grower.dice) * 0.9F;
    plant_if_free(grower, plant);
  }
}

void plant_hedges(Grower& grower) {
  for (int i = 0; i < 9; ++i) {
    const float x = -310.0F + 72.0F * static_cast<float>(i) + grower.dice.between(-20.0F, 20.0F);
    const float lean = grower.dice.between(-0.35F, 0.2F);
    const float near = grower.dice.between(150.0F, 230.0F);
    plant_hedge(grower, {x, near}, {x + lean * 140.0F, near + 140.0F});
  }
  for (int i = 0; i < 5; ++i) {
    const float y = 215.0F + 60.0F * static_cast<float>(i) + grower.dice.between(-15.0F, 15.0F);
    const float x = grower.dice.between(-320.0F, 40.0F);
    plant_hedge(grower, {x, y},
                {x + grower.dice.between(120.0F, 300.0F), y + grower.dice.between(-25.0F, 25.0F)});
  }
}

// Woods on the horizon.
void plant_far_woods(Grower& grower) {
  for (int wood = 0; wood < 16; ++wood) {
    const float turn = -1.35F + 0.18F * static_cast<float>(wood) + grower.dice.between(-0.06F, 0.06F);
    const float away = grower.dice.between(430.0F, 900.0F);
    const float spread = grower.dice.between(40.0F, 110.0F);
    for (int i = 0; i < 46; ++i) {
      Plant plant;
      const float x = away * std::sin(turn) + grower.dice.between(-spread, spread);
      plant.foot = {x, away * std::cos(turn) + grower.dice.between(-18.0F, 18.0F), 0.0F};
      plant.height_m = grower.dice.between(9.0F, 17.0F);
      plant.crown_from = 0.05F;
      plant.crown_width = 0.85F;
      plant.green = green_of(grower.dice) * 0.85F;
      plant.density = 0.45F;
      plant_if_free(grower, plant);
    }
  }
}

}  // namespace

void grow_plants(StaticScene& scene, std::uint32_t seed, float smallest_radian) {
  Grower grower{scene, Dice(seed + 1000U), smallest_radian};
  plant_row_of_three(grower);
  plant_wood(grower);
  plant_wood_edge(grower);
  scatter_singles(grower);
  plant_hedges(grower);
  plant_far_woods(grower);
}

}  // namespace ostrel_scene
