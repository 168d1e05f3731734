#include "world_sun_map.h"

#include <array>
#include <opencv2/imgproc.hpp>

#include "world_light.h"

namespace ostrel_scene {
namespace {

constexpr float kCell_m = 0.25F;
constexpr float kLeft_m = -240.0F, kNear_m = 20.0F;
constexpr int kColumns = 1920, kRows = 1640;
constexpr float kThroughLeaf = 0.62F;
constexpr double kPenumbra_cells = 0.9;

}  // namespace

SunMap::SunMap() : share_(kRows, kColumns, CV_32FC1, cv::Scalar(1)) {}

cv::Point2f SunMap::cell_of(const Vec3& point) const {
  const Vec3 ground = shadow_of(point, 0.0F);
  return {(ground.x - kLeft_m) / kCell_m, (ground.y - kNear_m) / kCell_m};
}

void SunMap::add_leaf(const Vec3& centre, float radius_m) {
  const cv::Point2f cell = cell_of(centre);
  const float radius = radius_m / kCell_m;
  const int first_x = std::max(0, static_cast<int>(std::ceil(cell.x - radius)));
  const int first_y = std::max(0, static_cast<int>(std::ceil(cell.y - radius)));
  const int last_x = std::min(kColumns - 1, static_cast<int>(std::floor(cell.x + radius)));
  const int last_y = std::min(kRows - 1, static_cast<int>(std::floor(cell.y + radius)));
  for (int y = first_y; y <= last_y; ++y) {
    const float dy = static_cast<float>(y) - cell.y;
    for (int x = first_x; x <= last_x; ++x) {
      const float dx = static_cast<float>(x) - cell.x;
      if (dx * dx + dy * dy <= radius * radius) share_.at<float>(y, x) *= kThroughLeaf;
    }
  }
}

void SunMap::add_triangle(const Vec3& a, const Vec3& b, const Vec3& c) {
  constexpr int kFractionBits = 4;
  std::array<cv::Point, 3> corners;
  for (int i = 0; i < 3; ++i) {
    const cv::Point2f cell = cell_of(i == 0 ? a : i == 1 ? b : c) * static_cast<float>(1 << kFractionBits);
    corners[static_cast<std::size_t>(i)] = {cvRound(cell.x), cvRound(cell.y)};
  }
  cv::fillConvexPoly(share_, corners.data(), 3, cv::Scalar(0), cv::LINE_8, kFractionBits);
}

void SunMap::finish() {
  cv::GaussianBlur(share_, share_, cv::Size(), kPenumbra_cells);
}

float SunMap::share_at(float x, float y) const {
  const float cx = (x - kLeft_m) / kCell_m, cy = (y - kNear_m) / kCell_m;
  if (cx < 0.0F || cy < 0.0F || cx >= kColumns - 1 || cy >= kRows - 1) return 1.0F;
  const int x0 = static_cast<int>(cx), y0 = static_cast<int>(cy);
  const float wx = cx - static_cast<float>(x0), wy = cy - static_cast<float>(y0);
  const auto* top = share_.ptr<float>(y0) + x0;
  const auto* bottom = share_.ptr<float>(y0 + 1) + x0;
  return mix(mix(top[0], top[1], wx), mix(bottom[0], bottom[1], wx), wy);
}

float SunMap::share_above(const Vec3& point) const {
  const Vec3 ground = shadow_of(point, 0.0F);
  return share_at(ground.x, ground.y);
}

}  // namespace ostrel_scene
