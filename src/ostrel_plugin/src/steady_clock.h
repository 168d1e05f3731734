#pragma once

#include <chrono>
#include <cstdint>

namespace ostrel_algo_internal {

/// The steady clock in nanoseconds since its epoch.
inline std::uint64_t steadyNowNs() {
  using std::chrono::nanoseconds;
  const auto since_epoch = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(std::chrono::duration_cast<nanoseconds>(since_epoch).count());
}

/// Milliseconds from one time of that clock to a later one.
inline double elapsedMs(std::uint64_t from_ns, std::uint64_t to_ns) {
  return static_cast<double>(to_ns - from_ns) / 1e6;
}

}  // namespace ostrel_algo_internal
