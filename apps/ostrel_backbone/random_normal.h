// Normally distributed numbers that are the same on every machine: integers and exact additions only, no
// library distribution and no transcendental function.
#pragma once

#include <cstdint>
#include <random>

namespace ostrel::backbone {

class RandomNormal {
 public:
  explicit RandomNormal(std::uint32_t seed) : generator_(seed) {}

  // Mean 0, deviation 1: the sum of twelve uniform numbers less 6 (Irwin-Hall).
  double operator()() {
    double sum = 0.0;
    for (int i = 0; i < 12; ++i) sum += uniform();
    return sum - 6.0;
  }

  // In [0, 1), a multiple of 2^-32.
  double uniform() { return static_cast<double>(generator_()) * (1.0 / 4294967296.0); }

  // In [0, count).
  int below(int count) { return static_cast<int>(uniform() * count); }

 private:
  std::mt19937 generator_;
};

}  // namespace ostrel::backbone
