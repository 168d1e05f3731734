#include "ostrel_plugin/scripted_clock.h"

#include <algorithm>
#include <mutex>
#include <utility>

#include "ostrel_plugin/src/steady_clock.h"

namespace ostrel_test {
namespace {

struct ClockScript {
  std::mutex mutex;
  std::uint64_t now_ns = 0;
  std::vector<std::uint64_t> next_ns;  ///< last one first
  int readings = 0;
};

ClockScript& script() {
  static ClockScript instance;
  return instance;
}

std::uint64_t readScript() {
  const std::lock_guard<std::mutex> lock(script().mutex);
  ++script().readings;
  if (script().next_ns.empty()) return script().now_ns;
  const std::uint64_t reading = script().next_ns.back();
  script().next_ns.pop_back();
  return reading;
}

}  // namespace

ScriptedClock::ScriptedClock(std::uint64_t now_ns) {
  readNext({});
  set(now_ns);
  takeReadings();
  ostrel_algo_internal::replaceSteadyClock(readScript);
}

ScriptedClock::~ScriptedClock() {
  ostrel_algo_internal::replaceSteadyClock(nullptr);
}

std::uint64_t ScriptedClock::now() const {
  const std::lock_guard<std::mutex> lock(script().mutex);
  return script().now_ns;
}

void ScriptedClock::set(std::uint64_t now_ns) {
  const std::lock_guard<std::mutex> lock(script().mutex);
  script().now_ns = now_ns;
}

void ScriptedClock::advance(std::uint64_t by_ns) {
  const std::lock_guard<std::mutex> lock(script().mutex);
  script().now_ns += by_ns;
}

void ScriptedClock::readNext(std::vector<std::uint64_t> readings_ns) {
  std::reverse(readings_ns.begin(), readings_ns.end());
  const std::lock_guard<std::mutex> lock(script().mutex);
  script().next_ns = std::move(readings_ns);
}

int ScriptedClock::takeReadings() {
  const std::lock_guard<std::mutex> lock(script().mutex);
  return std::exchange(script().readings, 0);
}

}  // namespace ostrel_test
