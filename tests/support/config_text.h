#pragma once

#include <string>

#include "tracking_runtime/tracker/atom/native_cpp_backend.h"

namespace ostrel_test {

/// The tracker's record as text, a line "name value" per member, in order; two records are equal where their
/// texts are. Floats with nine significant digits, which tell any two apart.
std::string config_text(
    const ostrel_tracker::tracking_runtime::tracker::atom::NativeCppBackend::Config& config);

}  // namespace ostrel_test
