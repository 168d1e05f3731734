#pragma once

#include <cstdint>
#include <vector>

namespace ostrel_test {

constexpr std::uint64_t kMillisecond_ns = 1'000'000;
constexpr std::uint64_t kSecond_ns = 1'000'000'000;

/// Stands in for the steady clock while it lives: time stands still until a test moves it. One at a time; other
/// threads may read meanwhile.
class ScriptedClock {
 public:
  explicit ScriptedClock(std::uint64_t now_ns = 1000 * kSecond_ns);
  ~ScriptedClock();
  ScriptedClock(const ScriptedClock&) = delete;
  ScriptedClock& operator=(const ScriptedClock&) = delete;

  std::uint64_t now() const;
  void set(std::uint64_t now_ns);
  void advance(std::uint64_t by_ns);
  /// The next readings, in order; after them the standing time again.
  void readNext(std::vector<std::uint64_t> readings_ns);
  /// How often the clock was read since the last call of this.
  int takeReadings();
};

}  // namespace ostrel_test
