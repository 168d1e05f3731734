#pragma once

#include <cmath>
#include <limits>

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// Float to integer, defined for every input: a NaN gives 0, a value beyond the range of `int` its nearest
/// end. Equal to the plain cast wherever that is defined, so that a broken number never indexes memory.
inline int truncate_to_int(double value) {
  if (std::isnan(value)) return 0;
  if (value >= static_cast<double>(std::numeric_limits<int>::max())) return std::numeric_limits<int>::max();
  if (value <= static_cast<double>(std::numeric_limits<int>::min())) return std::numeric_limits<int>::min();
  return static_cast<int>(value);
}

/// Nearest integer, halves away from zero, defined for every input as `truncate_to_int`.
inline int round_to_int(float value) {
  return truncate_to_int(static_cast<double>(std::round(value)));
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
