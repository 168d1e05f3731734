#pragma once

#include <chrono>

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// Milliseconds of stages by the monotonic clock: whole nanoseconds divided by 1e6.
class StageClock {
 public:
  StageClock() : start_(std::chrono::steady_clock::now()) {}

  double elapsed_ms() const { return to_ms(std::chrono::steady_clock::now() - start_); }
  /// Milliseconds since construction or the last lap; a new lap starts.
  double lap_ms() {
    const auto now = std::chrono::steady_clock::now();
    const double ms = to_ms(now - start_);
    start_ = now;
    return ms;
  }

 private:
  static double to_ms(std::chrono::steady_clock::duration span) {
    return static_cast<double>(std::chrono::duration_cast<std::chrono::nanoseconds>(span).count()) / 1e6;
  }

  std::chrono::steady_clock::time_point start_;
};

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
