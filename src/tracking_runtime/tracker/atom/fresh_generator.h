#pragma once

#include <random>

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// A generator with a seed of its own from the system, so that no two starts draw the same numbers.
inline std::mt19937 fresh_generator() {
  std::random_device device("default");
  return std::mt19937(device());
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
