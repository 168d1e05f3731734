#include "tracking_runtime/tracker/atom/frame_rect.h"

#include <algorithm>
#include <cmath>

#include "tracking_runtime/tracker/atom/held.h"
#include "tracking_runtime/tracker/atom/rounding.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

base::BBox clamp_bbox(const base::BBox& box, const cv::Size_<int>& frame_size) {
  const auto frame_width = static_cast<float>(std::max(frame_size.width, 1));
  const auto frame_height = static_cast<float>(std::max(frame_size.height, 1));
  base::BBox clamped;
  clamped.width = held(box.width, 1.0F, frame_width);
  clamped.height = held(box.height, 1.0F, frame_height);
  clamped.x = held(box.x, 0.0F, std::max(frame_width - clamped.width, 0.0F));
  clamped.y = held(box.y, 0.0F, std::max(frame_height - clamped.height, 0.0F));
  return clamped;
}

cv::Rect_<int> clamp_rect(const cv::Rect_<int>& rect, const cv::Size_<int>& frame_size) {
  const int frame_width = std::max(frame_size.width, 1);
  const int frame_height = std::max(frame_size.height, 1);
  const int width = held(rect.width, 1, frame_width);
  const int height = held(rect.height, 1, frame_height);
  return {held(rect.x, 0, frame_width - width), held(rect.y, 0, frame_height - height), width, height};
}

cv::Rect_<int> rounded_rect_in_frame(const base::BBox& box, const cv::Size_<int>& frame_size) {
  return clamp_rect(
      {round_to_int(box.x), round_to_int(box.y), round_to_int(box.width), round_to_int(box.height)},
      frame_size);
}

cv::Point_<float> center_of(const cv::Rect_<int>& rect) {
  return {static_cast<float>(rect.x) + static_cast<float>(rect.width - 1) * 0.5F,
          static_cast<float>(rect.y) + static_cast<float>(rect.height - 1) * 0.5F};
}

bool is_usable_box(const base::BBox& box) {
  return std::isfinite(box.x) && std::isfinite(box.y) && std::isfinite(box.width) &&
         std::isfinite(box.height) && box.width > 1.0F && box.height > 1.0F;
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
