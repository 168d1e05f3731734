#pragma once

#include <algorithm>

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// The value held to the bounds; the upper one has the last word. A value that is not a number becomes the lower
/// bound, so that it cannot spread through a state.
template <typename T>
T held(T value, T low, T high) {
  return std::min(std::max(low, value), high);
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
