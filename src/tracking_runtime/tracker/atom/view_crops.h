#pragma once

#include <vector>

#include "tracking_runtime/tracker/atom/optrix_adapter.h"
#include "tracking_runtime/tracker/atom/target_state.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// The crops of a frame's search scales above 0, ascending, around the target. `scale_x`, `scale_y` are view
/// pixels per frame pixel. The centre of an output pixel falls on the centre of its source cell, in the view's
/// pixel-centre convention. Nothing is clipped: what happens outside the view is the picture library's
/// business. `kept` takes the scales that gave a crop.
std::vector<optrix::AffineCrop> view_crops(const TargetState& state, float scale_x, float scale_y,
                                           std::vector<float>* kept);

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
