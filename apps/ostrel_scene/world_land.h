// The lie of the land: the main road, which bends gently past the camera, and the overpass across it. Ground is
// level; only the overpass and its ramps rise.
#pragma once

#include "world_geometry.h"

namespace ostrel_scene {

constexpr float kLaneWidth_m = 3.5F;
constexpr float kRoadHalfWidth_m = 2.0F * kLaneWidth_m;
// Offsets from the main road's middle, positive away from the camera. The near lanes lead to the right.
constexpr float kNearOuterLane_m = -5.25F, kNearInnerLane_m = -1.75F;
constexpr float kFarInnerLane_m = 1.75F, kFarOuterLane_m = 5.25F;

// The gravel lay-by on the near side.
constexpr float kLayByStart_m = -140.0F, kLayByEnd_m = -106.0F, kLayByOffset_m = -10.0F;
constexpr float kLayByHalfWidth_m = 2.8F;

float main_road_y(float x);
float main_road_slope(float x);
// Metres off the middle of the main road, positive away from the camera.
float main_road_offset(float x, float y);
Vec3 main_road_point(float x, float offset_m);

// The place on the ground `nearer_m` before a point of the main road on the line of sight to it.
Vec3 before_road(float x, float offset_m, float nearer_m);

// The overpass runs along a straight axis, `along_m` from the main road's middle, positive away from the camera,
// `across_m` positive to the right.
constexpr float kDeckHeight_m = 6.4F;
constexpr float kDeckHalfWidth_m = 6.6F;
constexpr float kDeckHalfLength_m = 21.0F;  // then ramps
constexpr float kRampLength_m = 95.0F;
constexpr float kOverpassLane_m = 2.0F;

Vec3 overpass_point(float along_m, float across_m);
float overpass_height(float along_m);
float overpass_heading();
cv::Point2f overpass_place(float x, float y);  // along, across

}  // namespace ostrel_scene
