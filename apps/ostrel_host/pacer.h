// Frames at a camera's rate.
#pragma once

#include <chrono>
#include <cstddef>

namespace ostrel_host {

// Counts from its making.
class Pacer {
 public:
  // Frames per second; 0 does not pace.
  explicit Pacer(double frame_rate) : frame_rate_(frame_rate) {}

  // Sleeps until the frame is due, not at all where it is late.
  void wait_for(std::size_t frame) const;

  double elapsed_s() const;

 private:
  using Clock = std::chrono::steady_clock;

  double frame_rate_;
  Clock::time_point start_ = Clock::now();
};

}  // namespace ostrel_host
