#include "tracking_runtime/tracker/atom/square_patch.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <opencv2/imgproc.hpp>

#include "tracking_runtime/tracker/atom/rounding.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

int saturate_to_int(std::int64_t value) {
  return static_cast<int>(
      std::clamp<std::int64_t>(value, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}

/// One axis of the square: how many pixels repeat the image's first pixel, which pixels of the image show,
/// and how many repeat its last one. The three parts add up to the side, and at least one pixel shows.
struct AxisSpan {
  int before = 0;
  cv::Range visible;
  int after = 0;
};

AxisSpan span_of(int origin, int side, int image_size) {
  const auto inside = [image_size](std::int64_t pixel) {
    return static_cast<int>(std::clamp<std::int64_t>(pixel, 0, image_size - 1));
  };
  const std::int64_t first = origin;
  AxisSpan span;
  span.visible = {inside(first), inside(first + side - 1) + 1};
  span.before = static_cast<int>(std::clamp<std::int64_t>(-first, 0, side - 1));
  span.after = side - span.before - span.visible.size();
  return span;
}

/// The square's pixels. Only the part of the image that shows is extended: the result equals a crop of the
/// extended image, without a copy of the whole frame.
cv::Mat crop_with_replicated_border(const cv::Mat& image, const PatchSquare& square) {
  const AxisSpan columns = span_of(square.x0, square.side, image.cols);
  const AxisSpan rows = span_of(square.y0, square.side, image.rows);
  const cv::Mat visible = image(rows.visible, columns.visible);
  if (columns.before + columns.after + rows.before + rows.after == 0) return visible;
  cv::Mat padded;
  cv::copyMakeBorder(visible, padded, rows.before, rows.after, columns.before, columns.after,
                     cv::BORDER_REPLICATE | cv::BORDER_ISOLATED);
  return padded;
}

}  // namespace

std::optional<PatchSquare> patch_square(const cv::Point_<float>& center, float box_width, float box_height,
                                        float factor) {
  const float area = box_width * box_height;
  const float root = area > 1.0F ? std::sqrt(area) : 1.0F;
  const float side = factor > 1.0F ? root * factor : root;
  if (!(side > 1.0F)) return std::nullopt;

  PatchSquare square;
  square.side = std::max(round_to_int(side), 2);
  const std::int64_t half = (square.side - 1) / 2;
  square.x0 = saturate_to_int(truncate_to_int(static_cast<double>(center.x)) - half);
  square.y0 = saturate_to_int(truncate_to_int(static_cast<double>(center.y)) - half);
  return square;
}

cv::Mat cut_square_patch(const cv::Mat& image, const cv::Point_<float>& center, float box_width,
                         float box_height, float factor, int output_side) {
  if (image.empty() || output_side < 1) return {};
  if (!std::isfinite(center.x) || !std::isfinite(center.y)) return {};
  if (!(box_width > 0.0F) || !(box_height > 0.0F)) return {};
  const std::optional<PatchSquare> square = patch_square(center, box_width, box_height, factor);
  if (!square) return {};

  const cv::Mat cut = crop_with_replicated_border(image, *square);
  if (square->side == output_side) return cut.clone();
  cv::Mat patch;
  cv::resize(cut, patch, cv::Size(output_side, output_side), 0.0, 0.0, cv::INTER_LINEAR);
  return patch;
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
