#pragma once

#include "tracking_runtime/tracker/atom/native_cpp_backend.h"

namespace ostrel_tracker::tracking_runtime::parameter::atom {

/// The tracker's built-in values for a ResNet-18 backbone. Reads no file and no environment; each call gives
/// a record of its own. Fields that no configuration key reaches keep these values for good.
tracker::atom::NativeCppBackend::Config parameters();

}  // namespace ostrel_tracker::tracking_runtime::parameter::atom
