#pragma once

#include <cstdint>

namespace ostrel_algo_internal {

/// The steady clock in nanoseconds since its epoch. Every time that the plug-in object compares, shows or logs
/// comes from here.
std::uint64_t steadyNowNs();

/// Where steadyNowNs() takes its time from, for the whole process; null brings back the steady clock. Only
/// tests call this, so that minutes pass in them without waiting. Any thread may read meanwhile.
using ClockSource = std::uint64_t (*)();
void replaceSteadyClock(ClockSource source) noexcept;

/// Milliseconds from one time of that clock to a later one.
inline double elapsedMs(std::uint64_t from_ns, std::uint64_t to_ns) {
  return static_cast<double>(to_ns - from_ns) / 1e6;
}

}  // namespace ostrel_algo_internal
