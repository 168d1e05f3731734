#pragma once

#include <string>

#include "tracking_runtime/tracker/atom/native_cpp_backend.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// Appends to a status, after "; " where something stands there already. `status` may be null.
void add_note(const std::string& note, std::string* status);

/// Puts the fields that need a new network or new shapes back to their running values, with a note
/// "NAME requires reinit" for each that differed.
void keep_fixed_fields(const NativeCppBackend::Config& running, NativeCppBackend::Config* wanted,
                       std::string* status);

/// Whether the scale filter's state no longer fits: the predictor was switched, or a noise moved by more than
/// rounding does.
bool scale_filter_differs(const NativeCppBackend::Config& running, const NativeCppBackend::Config& wanted);

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
