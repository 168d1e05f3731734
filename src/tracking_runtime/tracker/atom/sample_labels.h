#pragma once

#include <opencv2/core.hpp>

#include "tracking_runtime/tracker/atom/feature_map.h"
#include "tracking_runtime/tracker/atom/target_state.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// The response that the classifier ought to give on a sample of `height` x `width` cells: a Gaussian where
/// the target stands now, seen from `sample_pos` (frame pixels), around which a patch of `search_size` pixels
/// was cut at `sample_scale` frame pixels per patch pixel. Its width is a quarter of the root area of the
/// base target size in cells, so it does not change as the target grows; an even filter moves the peak by
/// half a cell. Undefined for a size below 1.
LabelMap build_label(const TargetState& state, int height, int width, const cv::Point_<float>& sample_pos,
                     float sample_scale);

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
