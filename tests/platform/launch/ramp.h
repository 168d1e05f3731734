#pragma once

#include <numeric>
#include <vector>

namespace launch_test {

/// 1, 2, 3, ...
inline std::vector<float> ramp(std::size_t n) {
  std::vector<float> values(n);
  std::iota(values.begin(), values.end(), 1.0F);
  return values;
}

}  // namespace launch_test
