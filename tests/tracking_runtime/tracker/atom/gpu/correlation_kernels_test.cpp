#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "close_to.h"
#include "joint_operators.h"
#include "reference_numerics.h"
#include "support/golden.h"

namespace ostrel_test {
namespace {

// Sums of at most a few hundred products of size 1 in single precision.
constexpr double kFloatSum = 2e-5;

Shape shape_of(const GoldenCase& golden) {
  return {golden.i32("samples"), golden.i32("channels"),      golden.i32("height"),
          golden.i32("width"),   golden.i32("filter_height"), golden.i32("filter_width")};
}

const std::vector<Shape>& shapes() {
  static const std::vector<Shape> all = {
      {2, 8, 12, 12, 4, 4}, {1, 5, 7, 9, 3, 3}, {1, 4, 1, 1, 4, 4},
      {3, 3, 4, 6, 1, 1},   {1, 3, 6, 5, 5, 2}, {2, 2, 2, 3, 7, 6},  // a filter larger than the map
      {3, 6, 20, 17, 4, 4}                                           // several blocks, the last one not full
  };
  return all;
}

TEST(CorrelationKernels, MatchGoldenResponses) {
  for (const GoldenCase& golden : load_golden("correlate")) {
    EXPECT_TRUE(matches_golden(golden.output("response"),
                               run_correlation(shape_of(golden), golden.input_as<float>("features"),
                                               golden.input_as<float>("filter"))))
        << golden.name();
  }
}

TEST(CorrelationKernels, MatchGoldenFilterGradients) {
  for (const GoldenCase& golden : load_golden("filter_gradient")) {
    EXPECT_TRUE(matches_golden(golden.output("result"),
                               run_filter_gradient(shape_of(golden), golden.input_as<float>("features"),
                                                   golden.input_as<float>("gradient"), golden.f32("scale"),
                                                   golden.input_as<float>("initial"))))
        << golden.name();
  }
}

TEST(CorrelationKernels, MatchGoldenBackPropagation) {
  for (const GoldenCase& golden : load_golden("backprop")) {
    EXPECT_TRUE(matches_golden(
        golden.output("result"),
        run_backprop(shape_of(golden), golden.input_as<float>("gradient"), golden.input_as<float>("filter"))))
        << golden.name();
  }
}

TEST(CorrelationKernels, EqualPlainLoopsOverShapes) {
  for (const Shape& shape : shapes()) {
    const auto features = random_values(shape.features(), 1);
    const auto filter = random_values(shape.taps(), 2);
    EXPECT_TRUE(close_to(reference_correlation(shape, widen(features), widen(filter)),
                         run_correlation(shape, features, filter), kFloatSum));
  }
}

TEST(CorrelationKernels, GradientAddsScaledPlainLoopsToWhatStands) {
  for (const Shape& shape : shapes()) {
    const auto features = random_values(shape.features(), 3);
    const auto gradient = random_values(shape.positions(), 4);
    const auto initial = random_values(shape.taps(), 5);
    Doubles expected = reference_filter_gradient(shape, widen(features), widen(gradient));
    for (std::size_t i = 0; i < expected.size(); ++i) expected[i] = initial[i] + 0.25 * expected[i];
    EXPECT_TRUE(
        close_to(expected, run_filter_gradient(shape, features, gradient, 0.25F, initial), kFloatSum));
  }
}

TEST(CorrelationKernels, BackPropagationEqualsPlainLoopsAndOverwrites) {
  for (const Shape& shape : shapes()) {
    const auto gradient = random_values(shape.positions(), 6);
    const auto filter = random_values(shape.taps(), 7);
    EXPECT_TRUE(close_to(reference_backprop(shape, widen(gradient), widen(filter)),
                         run_backprop(shape, gradient, filter), kFloatSum));
  }
}

TEST(CorrelationKernels, AreAdjointToEachOther) {
  for (const Shape& shape : shapes()) {
    const auto features = random_values(shape.features(), 8);
    const auto filter = random_values(shape.taps(), 9);
    const auto gradient = random_values(shape.positions(), 10);
    const double forward = reference_dot(widen(run_correlation(shape, features, filter)), widen(gradient));
    const double by_filter = reference_dot(
        widen(run_filter_gradient(shape, features, gradient, 1.0F, std::vector<float>(shape.taps(), 0.0F))),
        widen(filter));
    const double by_features = reference_dot(widen(run_backprop(shape, gradient, filter)), widen(features));
    const double size = static_cast<double>(shape.features());
    EXPECT_NEAR(forward, by_filter, 1e-6 * size);
    EXPECT_NEAR(forward, by_features, 1e-6 * size);
  }
}

TEST(CorrelationKernels, PairEqualsTwoSingleCorrelations) {
  for (const Shape& shape : shapes()) {
    const auto features_a = random_values(shape.features(), 11);
    const auto features_b = random_values(shape.features(), 12);
    const auto filter_a = random_values(shape.taps(), 13);
    const auto filter_b = random_values(shape.taps(), 14);
    const auto [a, b] = run_pair(shape, features_a, filter_a, features_b, filter_b);
    EXPECT_EQ(a, run_correlation(shape, features_a, filter_a));
    EXPECT_EQ(b, run_correlation(shape, features_b, filter_b));
  }
}

// A feature of 1 in the middle of an otherwise empty map makes the response show the filter mirrored: tap i
// answers at the middle minus the tap's offset.
std::vector<float> response_to_one_feature(int side, int filter_side, int middle) {
  const Shape shape{1, 1, side, side, filter_side, filter_side};
  std::vector<float> features(shape.features(), 0.0F);
  features[static_cast<std::size_t>(middle * side + middle)] = 1.0F;
  std::vector<float> filter(shape.taps());
  for (std::size_t i = 0; i < filter.size(); ++i) filter[i] = static_cast<float>(i + 1);
  return run_correlation(shape, features, filter);
}

TEST(CorrelationKernels, EvenFilterReachesTwoUpAndOneDown) {
  const auto response = response_to_one_feature(9, 4, 4);
  // Tap (0, 0), value 1, has the offset -2: the position 2 below and right of the feature sees it.
  EXPECT_EQ(response[6 * 9 + 6], 1.0F);
  // Tap (3, 3), value 16, has the offset +1.
  EXPECT_EQ(response[3 * 9 + 3], 16.0F);
  EXPECT_EQ(response[7 * 9 + 7], 0.0F);
  EXPECT_EQ(response[2 * 9 + 2], 0.0F);
}

TEST(CorrelationKernels, OddFilterReachesOneToEachSide) {
  const auto response = response_to_one_feature(9, 3, 4);
  EXPECT_EQ(response[5 * 9 + 5], 1.0F);
  EXPECT_EQ(response[3 * 9 + 3], 9.0F);
  EXPECT_EQ(response[6 * 9 + 6], 0.0F);
  EXPECT_EQ(response[2 * 9 + 2], 0.0F);
}

TEST(CorrelationKernels, BackPropagationHasTheOppositeOffsets) {
  const Shape shape{1, 1, 9, 9, 4, 4};
  std::vector<float> gradient(shape.positions(), 0.0F);
  gradient[4 * 9 + 4] = 1.0F;
  std::vector<float> filter(shape.taps());
  for (std::size_t i = 0; i < filter.size(); ++i) filter[i] = static_cast<float>(i + 1);
  const auto result = run_backprop(shape, gradient, filter);
  EXPECT_EQ(result[2 * 9 + 2], 1.0F);   // tap (0, 0) looks two up and left of the response
  EXPECT_EQ(result[5 * 9 + 5], 16.0F);  // tap (3, 3) looks one down and right
  EXPECT_EQ(result[6 * 9 + 6], 0.0F);
}

TEST(CorrelationKernels, OnlyTheMiddleTapMeetsAMapOfOne) {
  const Shape shape{1, 1, 1, 1, 4, 4};
  std::vector<float> filter(16, 100.0F);
  filter[2 * 4 + 2] = 3.0F;
  EXPECT_EQ(run_correlation(shape, {2.0F}, filter), std::vector<float>{6.0F});
  EXPECT_EQ(run_backprop(shape, {2.0F}, filter), std::vector<float>{6.0F});
  std::vector<float> expected(16, 0.0F);
  expected[2 * 4 + 2] = 10.0F;
  EXPECT_EQ(run_filter_gradient(shape, {2.0F}, {5.0F}, 1.0F, std::vector<float>(16, 0.0F)), expected);
}

}  // namespace
}  // namespace ostrel_test
