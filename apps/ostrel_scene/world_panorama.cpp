#include "world_panorama.h"

#include <algorithm>
#include <opencv2/core/utility.hpp>
#include <opencv2/imgproc.hpp>

#include "world_panorama_tiles.h"

namespace ostrel_scene {
namespace {

constexpr double kSharpFov_rad = 24.0 * 3.14159265358979323846 / 180.0;
constexpr std::size_t kLevels = 4;
constexpr int kGridStep_px = 8;

}  // namespace

float panorama_density(int picture_width_px) {
  return static_cast<float>(0.5 * picture_width_px / std::tan(0.5 * kSharpFov_rad));
}

Panorama::Panorama(float pixels_per_radian, const Ground& ground, const StaticScene& scene)
    : pixels_per_radian_(pixels_per_radian) {
  const PanoramaTiles tiles(pixels_per_radian, ground, scene);
  Level finest;
  tiles.draw(finest.picture, finest.standing, finest.distance);
  levels_.push_back(finest);
  add_levels();
}

void Panorama::add_levels() {
  while (levels_.size() < kLevels) {
    const Level& last = levels_.back();
    const cv::Size half((last.picture.cols + 1) / 2, (last.picture.rows + 1) / 2);
    Level next;
    cv::resize(last.picture, next.picture, half, 0, 0, cv::INTER_AREA);
    cv::resize(last.standing, next.standing, half, 0, 0, cv::INTER_AREA);
    // The nearer distance wins, so that the soft edge of a thing still counts as that thing.
    cv::Mat nearest;
    cv::erode(last.distance, nearest, cv::Mat());
    cv::resize(nearest, next.distance, half, 0, 0, cv::INTER_NEAREST);
    levels_.push_back(next);
  }
}

std::size_t Panorama::level_for(const Pinhole& camera) const {
  const float shrink = pixels_per_radian_ / camera.pixels_per_radian();
  const float level = std::round(std::log2(std::max(1.0F, shrink)));
  return std::min(levels_.size() - 1, static_cast<std::size_t>(level));
}

// The panorama's place for each pixel: exact on a coarse grid, straight lines between.
cv::Mat Panorama::places(const Pinhole& camera, const cv::Rect& area, std::size_t level) const {
  const int columns = (area.width + kGridStep_px - 1) / kGridStep_px + 1;
  const int rows = (area.height + kGridStep_px - 1) / kGridStep_px + 1;
  const float level_scale = 1.0F / static_cast<float>(1U << level);
  cv::Mat grid(rows, columns, CV_32FC2);
  for (int row = 0; row < rows; ++row) {
    for (int column = 0; column < columns; ++column) {
      const Vec3 ray = camera.ray(static_cast<float>(area.x + column * kGridStep_px) + 0.5F,
                                  static_cast<float>(area.y + row * kGridStep_px) + 0.5F);
      grid.at<cv::Point2f>(row, column) =
          panorama_place(ray, pixels_per_radian_) * level_scale - cv::Point2f(0.5F, 0.5F);
    }
  }
  cv::Mat all(area.size(), CV_32FC2);
  cv::parallel_for_(cv::Range(0, area.height), [&](const cv::Range& range) {
    for (int y = range.start; y < range.end; ++y) {
      const auto* upper = grid.ptr<cv::Point2f>(y / kGridStep_px);
      const auto* lower = grid.ptr<cv::Point2f>(y / kGridStep_px + 1);
      const float wy = static_cast<float>(y % kGridStep_px) / kGridStep_px;
      auto* out = all.ptr<cv::Point2f>(y);
      for (int x = 0; x < area.width; ++x) {
        const int c = x / kGridStep_px;
        const float wx = static_cast<float>(x % kGridStep_px) / kGridStep_px;
        const cv::Point2f left = upper[c] + (lower[c] - upper[c]) * wy;
        const cv::Point2f right = upper[c + 1] + (lower[c + 1] - upper[c + 1]) * wy;
        out[x] = left + (right - left) * wx;
      }
    }
  });
  return all;
}

cv::Mat Panorama::picture(const Pinhole& camera, const cv::Rect& area) const {
  const std::size_t level = level_for(camera);
  cv::Mat result;
  cv::remap(levels_[level].picture, result, places(camera, area, level), cv::noArray(), cv::INTER_LINEAR,
            cv::BORDER_REFLECT_101);
  return result;
}

Panorama::Standing Panorama::standing(const Pinhole& camera, const cv::Rect& area) const {
  const std::size_t level = level_for(camera);
  const cv::Mat map = places(camera, area, level);
  Standing result;
  cv::remap(levels_[level].standing, result.colour, map, cv::noArray(), cv::INTER_LINEAR,
            cv::BORDER_REFLECT_101);
  cv::Mat steps;
  cv::remap(levels_[level].distance, steps, map, cv::noArray(), cv::INTER_NEAREST, cv::BORDER_REFLECT_101);
  steps.convertTo(result.distance_m, CV_32F, kDistanceStep_m);
  return result;
}

}  // namespace ostrel_scene
