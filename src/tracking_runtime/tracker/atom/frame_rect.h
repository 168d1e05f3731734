#pragma once

#include <opencv2/core.hpp>

#include "tracking_runtime/tracker/base/bbox.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// Boxes that a frame can hold, in frame pixels. A side of the frame below 1 counts as 1. The sizes are
/// settled before the corner, so a box too wide for the frame comes back at x 0. Any input, a NaN too, gives
/// a box inside the frame.

/// The box moved and cut into the frame, sides at least 1.
base::BBox clamp_bbox(const base::BBox& box, const cv::Size_<int>& frame_size);

/// The same in whole pixels: every member is rounded to nearest, halves away from zero.
cv::Rect_<int> rounded_rect_in_frame(const base::BBox& box, const cv::Size_<int>& frame_size);

/// A box of whole pixels moved and cut into the frame, sides at least 1.
cv::Rect_<int> clamp_rect(const cv::Rect_<int>& rect, const cv::Size_<int>& frame_size);

/// The middle of a box's pixels, which is where a start puts the target.
cv::Point_<float> center_of(const cv::Rect_<int>& rect);

/// All four members finite and both sides above 1: a box that can be searched for.
bool is_usable_box(const base::BBox& box);

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
