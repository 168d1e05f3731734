#include "support/golden.h"

#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>
#include <vector>

namespace ostrel_test {
namespace {

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

GoldenArray array_of(std::vector<double> values, double absolute, double relative) {
  return {{values.size()}, values, absolute, relative};
}

TEST(Golden, ReadsParametersAndArraysWithShapeAndTolerance) {
  const GoldenCase golden = load_golden_case("correlate", "f5x2");
  EXPECT_EQ(golden.i32("filter_height"), 5);
  EXPECT_EQ(golden.i32("filter_width"), 2);
  EXPECT_EQ(golden.input("features").shape, (std::vector<std::size_t>{1, 3, 6, 5}));
  EXPECT_EQ(golden.input("features").values.size(), 90u);
  EXPECT_DOUBLE_EQ(golden.output("response").absolute_tolerance, 2e-5);
  EXPECT_DOUBLE_EQ(golden.output("response").relative_tolerance, 1e-5);
}

TEST(Golden, ThrowsOnWhatIsMissing) {
  EXPECT_THROW(load_golden("no_such_folder"), std::runtime_error);
  EXPECT_THROW(load_golden_case("correlate", "no_such_case"), std::runtime_error);
  const GoldenCase golden = load_golden_case("correlate", "one");
  EXPECT_THROW(golden.i32("no_such_parameter"), std::runtime_error);
  EXPECT_THROW(golden.input("response"), std::runtime_error);
  EXPECT_THROW(golden.output("features"), std::runtime_error);
  EXPECT_THROW(golden.lines("none"), std::runtime_error);
}

TEST(Golden, PassesValuesWithinEitherTolerance) {
  const GoldenArray expected = array_of({0.0, 100.0}, 0.1, 0.01);
  EXPECT_TRUE(matches_golden(expected, std::vector<double>{0.09, 101.05}));
  EXPECT_FALSE(matches_golden(expected, std::vector<double>{0.11, 100.0}));
  EXPECT_FALSE(matches_golden(expected, std::vector<double>{0.0, 101.2}));
}

TEST(Golden, RefusesAnotherLength) {
  EXPECT_FALSE(matches_golden(array_of({1.0, 2.0}, 1.0, 1.0), std::vector<double>{1.0}));
}

TEST(Golden, WantsNotANumberExactlyWhereItIsExpected) {
  const GoldenArray expected = array_of({kNan, 1.0}, 1e9, 1e9);
  EXPECT_TRUE(matches_golden(expected, std::vector<double>{kNan, 1.0}));
  EXPECT_FALSE(matches_golden(expected, std::vector<double>{0.0, 1.0}));
  EXPECT_FALSE(matches_golden(expected, std::vector<double>{kNan, kNan}));
}

TEST(Golden, ComparesContainersOfAnyArithmeticType) {
  EXPECT_TRUE(matches_golden(array_of({1.0, 2.0}, 0.0, 0.0), std::vector<int>{1, 2}));
  EXPECT_FALSE(matches_golden(array_of({1.0, 2.0}, 0.0, 0.0), std::vector<float>{1.0F, 2.5F}));
}

}  // namespace
}  // namespace ostrel_test
