#pragma once

#include "ostrel_plugin/src/ostrel_config.h"
#include "tracking_runtime/tracker/atom/native_cpp_backend.h"

namespace ostrel_algo_internal {

/// The tracker's record for a plug-in configuration: the built-in values, overlaid by every setting that
/// reaches the tracker. The backend is always "cuda" and the network input 192 pixels; an empty engine path
/// or an empty list of scales keeps the built-in one.
ostrel_tracker::tracking_runtime::tracker::atom::NativeCppBackend::Config buildTrackerRuntimeConfig(
    const OstrelConfig& config);

}  // namespace ostrel_algo_internal
