#include "ostrel_plugin/src/steady_clock.h"

#include <atomic>
#include <chrono>

namespace ostrel_algo_internal {
namespace {

std::uint64_t readSteadyClock() {
  const auto since_epoch = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(since_epoch).count());
}

std::atomic<ClockSource> clock_source{readSteadyClock};

}  // namespace

std::uint64_t steadyNowNs() {
  return clock_source.load()();
}

void replaceSteadyClock(ClockSource source) noexcept {
  clock_source.store(source != nullptr ? source : readSteadyClock);
}

}  // namespace ostrel_algo_internal
