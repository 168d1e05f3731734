#include "pacer.h"

#include <thread>

namespace ostrel_host {

void Pacer::wait_for(std::size_t frame) const {
  if (frame_rate_ <= 0.0) return;
  const std::chrono::duration<double> due(static_cast<double>(frame) / frame_rate_);
  std::this_thread::sleep_until(start_ + std::chrono::duration_cast<Clock::duration>(due));
}

double Pacer::elapsed_s() const {
  return std::chrono::duration<double>(Clock::now() - start_).count();
}

}  // namespace ostrel_host
