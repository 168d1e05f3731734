#pragma once

#include <opencv2/core.hpp>
#include <optional>

#include "tracking_runtime/tracker/atom/target_state.h"
#include "tracking_runtime/tracker/base/bbox.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// Corrections of the target from outside. Both distrust what follows and switch recovery mode on; neither
/// touches what was learned. They return the status word; anything but the ok word leaves the state as it was.

inline constexpr const char* kTeleportOk = "teleport_ok";
inline constexpr const char* kZoomChangedOk = "zoom_changed_ok";

/// Puts the target where the caller expects it, in frame pixels. The scale is the root of the size ratio to
/// the base size, within the ratio to the initial scale.
const char* teleport_target(TargetState* state, const base::BBox& expected);

/// The camera zoomed by this factor: the position stays, only the physical bounds hold the scale, and the
/// ratio clamp works around the zoomed scale from here on.
const char* zoom_target(TargetState* state, float scale_factor);

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
