#pragma once

#include <opencv2/core.hpp>
#include <optional>

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// The square of frame pixels that a search patch shows: top-left corner and side.
struct PatchSquare {
  int x0 = 0;
  int y0 = 0;
  int side = 0;
};

/// Side and corner of the patch around a centre: root of the box area (an area of 1 or below counts as side 1)
/// times `factor` (a factor of 1 or below leaves the side unscaled), the side rounded and at least 2, the centre
/// truncated. Nothing when the side is not above 1. Neither centre nor box is checked.
std::optional<PatchSquare> patch_square(const cv::Point_<float>& center, float box_width, float box_height,
                                        float factor);

/// Cuts the patch from a BGR image and makes it `output_side` x `output_side`: replicated border outside the
/// image, bilinear resize. Empty when the image is empty, `output_side` is below 1, the centre is not finite
/// or a side of the box is not above 0, or the patch has no side.
cv::Mat cut_square_patch(const cv::Mat& image, const cv::Point_<float>& center, float box_width,
                         float box_height, float factor, int output_side);

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
