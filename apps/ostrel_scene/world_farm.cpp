// Buildings, and what stands along the road.
#include "world_land.h"
#include "world_static.h"

namespace ostrel_scene {

void build_farm(StaticScene& scene, std::uint32_t seed) {
  static const Colour wall = screen_colour(196, 184, 162), tiles = screen_colour(140, 82, 62);
  Dice dice(seed + 300U);
  const struct {
    float x, y, heading, half_length, half_width, eaves, ridge;
  } houses[] = {{-46, 232, 0.3F, 11, 5, 3.6F, 7.2F},
                {-22, 246, 1.8F, 14, 6.5F, 4.4F, 8.4F},
                {-70, 250, 0.2F, 7, 4, 3.2F, 6.0F}};
  for (const auto& house : houses) {
    const Vec3 foot(house.x, house.y, 0);
    const auto blotched = [&](const Colour& colour) {
      return [&dice, colour](const Vec3&) { return colour * dice.between(0.9F, 1.06F); };
    };
    add_block(scene, {foot, house.heading, house.half_length, house.half_width, house.eaves}, 0.8F,
              blotched(wall));
    const Pose pose{foot, house.heading};
    const float l = house.half_length + 0.4F, w = house.half_width + 0.4F;
    for (const float side : {-1.0F, 1.0F}) {
      add_quad(scene,
               {{pose.to_world({-l, side * w, house.eaves - 0.2F}),
                 pose.to_world({l, side * w, house.eaves - 0.2F}), pose.to_world({l, 0, house.ridge}),
                 pose.to_world({-l, 0, house.ridge})},
                true},
               0.6F, blotched(tiles));
      add_quad(scene,
               {{pose.to_world({side * (l - 0.4F), -w + 0.4F, house.eaves}),
                 pose.to_world({side * (l - 0.4F), w - 0.4F, house.eaves}),
                 pose.to_world({side * (l - 0.4F), 0, house.ridge}),
                 pose.to_world({side * (l - 0.4F), 0, house.ridge})},
                false},
               0.8F, blotched(wall));
    }
  }
}

void set_up_roadside(StaticScene& scene) {
  static const Colour white = screen_colour(226, 226, 222);
  // Delineators along both verges.
  for (float x = -200.0F; x <= 200.0F; x += 25.0F) {
    for (const float offset : {-kRoadHalfWidth_m - 1.6F, kRoadHalfWidth_m + 1.6F}) {
      const Vec3 foot = main_road_point(x, offset);
      add_block(scene, {foot, 0.0F, 0.07F, 0.07F, 1.0F}, 1.0F,
                [](const Vec3& p) { return p.z > 0.6F && p.z < 0.9F ? screen_colour(40, 40, 40) : white; });
    }
  }
}

}  // namespace ostrel_scene
