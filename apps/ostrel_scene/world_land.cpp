#include "world_land.h"

#include <algorithm>

namespace ostrel_scene {
namespace {

constexpr float kRoadDistance_m = 118.0F;
constexpr float kBend_per_m = 0.0009F;
constexpr float kWave_m = 3.0F, kWaveLength_m = 52.0F;
constexpr float kOverpassX_m = 12.0F;

const cv::Point2f& overpass_axis() {
  static const cv::Point2f axis = [] {
    const cv::Point2f towards(0.26F, 1.0F);
    return towards * (1.0F / std::sqrt(towards.dot(towards)));
  }();
  return axis;
}

}  // namespace

float main_road_y(float x) {
  return kRoadDistance_m - kBend_per_m * x * x + kWave_m * std::sin(x / kWaveLength_m);
}

float main_road_slope(float x) {
  return -2.0F * kBend_per_m * x + kWave_m / kWaveLength_m * std::cos(x / kWaveLength_m);
}

float main_road_offset(float x, float y) {
  // One step from the point straight above or below towards the nearest one.
  const float slope = main_road_slope(x);
  const float gap = y - main_road_y(x);
  const float nearer_x = x + gap * slope / (1.0F + slope * slope);
  const float nearer_slope = main_road_slope(nearer_x);
  return (y - main_road_y(nearer_x) - nearer_slope * (x - nearer_x)) /
         std::sqrt(1.0F + nearer_slope * nearer_slope);
}

Vec3 main_road_point(float x, float offset_m) {
  const float slope = main_road_slope(x);
  const float scale = offset_m / std::sqrt(1.0F + slope * slope);
  return {x - slope * scale, main_road_y(x) + scale, 0.0F};
}

Vec3 before_road(float x, float offset_m, float nearer_m) {
  const Vec3 point = main_road_point(x, offset_m);
  const float distance = length(point);
  return point * ((distance - nearer_m) / distance);
}

Vec3 overpass_point(float along_m, float across_m) {
  const cv::Point2f& axis = overpass_axis();
  const cv::Point2f middle(kOverpassX_m, main_road_y(kOverpassX_m));
  const cv::Point2f point = middle + axis * along_m + cv::Point2f(axis.y, -axis.x) * across_m;
  return {point.x, point.y, overpass_height(along_m)};
}

float overpass_height(float along_m) {
  const float past_deck = std::max(0.0F, std::abs(along_m) - kDeckHalfLength_m);
  return kDeckHeight_m * (1.0F - smooth_step(0.0F, kRampLength_m, past_deck));
}

float overpass_heading() {
  return std::atan2(overpass_axis().y, overpass_axis().x);
}

cv::Point2f overpass_place(float x, float y) {
  const cv::Point2f& axis = overpass_axis();
  const cv::Point2f offset(x - kOverpassX_m, y - main_road_y(kOverpassX_m));
  return {offset.dot(axis), offset.x * axis.y - offset.y * axis.x};
}

}  // namespace ostrel_scene
