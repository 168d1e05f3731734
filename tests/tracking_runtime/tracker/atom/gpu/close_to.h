#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <sstream>
#include <vector>

namespace ostrel_test {

/// Whether every value lies within `tolerance` of the expected one, or within `tolerance` times its size
/// where that is above 1. Float sums of up to a few thousand terms of size 1 keep 1e-5 of the largest partial
/// sum.
template <typename Actual, typename Expected>
::testing::AssertionResult close_to(const std::vector<Expected>& expected, const std::vector<Actual>& actual,
                                    double tolerance) {
  if (expected.size() != actual.size()) {
    return ::testing::AssertionFailure() << actual.size() << " values instead of " << expected.size();
  }
  for (std::size_t i = 0; i < expected.size(); ++i) {
    const double wanted = static_cast<double>(expected[i]);
    const double found = static_cast<double>(actual[i]);
    if (std::abs(found - wanted) <= tolerance * std::max(1.0, std::abs(wanted))) continue;
    return ::testing::AssertionFailure() << "[" << i << "] " << found << " instead of " << wanted;
  }
  return ::testing::AssertionSuccess();
}

}  // namespace ostrel_test
