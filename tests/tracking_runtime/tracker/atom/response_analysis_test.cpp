#include "tracking_runtime/tracker/atom/response_analysis.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "support/golden_mat.h"
#include "tracking_runtime/tracker/atom/gpu/close_to.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_projection_classifier.h"
#include "tracking_runtime/tracker/atom/gpu/device_arrays.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

using ostrel_test::float_map;
using ostrel_test::floats_of;

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

/// A map whose cells count 0, 1, 2, ...
cv::Mat counting_map(int rows, int cols) {
  cv::Mat map(rows, cols, CV_32F);
  for (int i = 0; i < rows * cols; ++i) map.at<float>(i / cols, i % cols) = static_cast<float>(i);
  return map;
}

FeatureMap sample_of(const ostrel_test::GoldenCase& golden, int index) {
  FeatureMap sample{1, golden.i32("channels"), golden.i32("height"), golden.i32("width"), {}};
  const std::vector<float> all = golden.input_as<float>("features");
  const auto stride = static_cast<std::ptrdiff_t>(sample.sample_stride());
  sample.data.assign(all.begin() + index * stride, all.begin() + (index + 1) * stride);
  return sample;
}

ClassifierState filter_of(const ostrel_test::GoldenCase& golden) {
  ClassifierState weights;
  weights.filter_weights = golden.input_as<float>("filter");
  weights.filter_channels = golden.i32("channels");
  weights.filter_height = golden.i32("filter_height");
  weights.filter_width = golden.i32("filter_width");
  return weights;
}

TEST(ClassifyFeature, MatchesGoldenCorrelations) {
  for (const auto& golden : ostrel_test::load_golden("correlate")) {
    std::vector<float> responses;
    for (int i = 0; i < golden.i32("samples"); ++i) {
      const cv::Mat response = classify_feature(sample_of(golden, i), filter_of(golden));
      EXPECT_EQ(response.size(), cv::Size(golden.i32("width"), golden.i32("height")));
      EXPECT_EQ(response.type(), CV_32F);
      const std::vector<float> values = floats_of(response);
      responses.insert(responses.end(), values.begin(), values.end());
    }
    EXPECT_TRUE(ostrel_test::matches_golden(golden.output("response"), responses)) << golden.name();
  }
}

TEST(ClassifyFeature, EqualsTheClassifierOnTheDevice) {
  // Sums of up to 200 products of size 1 in single precision, in two orders.
  constexpr double kOrderOfSummation = 2e-5;
  const ostrel_test::TestStream stream;
  for (const auto& [filter_height, filter_width] : {std::pair{4, 4}, {3, 3}, {5, 2}, {1, 1}}) {
    const FeatureMap feature{1, 8, 7, 9, ostrel_test::random_values(8 * 7 * 9, 1)};
    ClassifierState weights;
    weights.filter_channels = 8;
    weights.filter_height = filter_height;
    weights.filter_width = filter_width;
    weights.filter_weights =
        ostrel_test::random_values(static_cast<std::size_t>(8 * filter_height * filter_width), 2);
    const ostrel_test::DeviceArray<float> features(feature.data);
    CudaProjectionClassifier classifier;
    std::vector<float> on_device;
    std::string error;
    ASSERT_TRUE(classifier.ensure_capacity(1, 8, 8, 7, 9, filter_height, filter_width, &error) &&
                classifier.upload_weights({}, false, 8, 8, weights.filter_weights, filter_height,
                                          filter_width, &error) &&
                classifier.project_and_classify(features.get(), 1, stream.get(), &error) &&
                classifier.download_responses(1, &on_device, stream.get(), &error))
        << error;
    EXPECT_TRUE(
        ostrel_test::close_to(floats_of(classify_feature(feature, weights)), on_device, kOrderOfSummation))
        << filter_height << "x" << filter_width;
  }
}

TEST(ClassifyFeature, IsEmptyForWhatItCannotClassify) {
  const ClassifierState filter{{}, 0, 0, 0, {1.0F, 2.0F}, 2, 1, 1, 0};
  const FeatureMap good{1, 2, 1, 1, {3.0F, 4.0F}};
  ASSERT_EQ(floats_of(classify_feature(good, filter)), std::vector<float>{11.0F});

  EXPECT_TRUE(classify_feature(FeatureMap{}, filter).empty()) << "undefined";
  EXPECT_TRUE(classify_feature({1, 2, 1, 1, {3.0F}}, filter).empty()) << "short data";
  EXPECT_TRUE(classify_feature({2, 2, 1, 1, {3.0F, 4.0F, 5.0F, 6.0F}}, filter).empty()) << "two samples";
  EXPECT_TRUE(classify_feature({1, 1, 1, 1, {3.0F}}, filter).empty()) << "other channels";
  EXPECT_TRUE(classify_feature(good, ClassifierState{}).empty()) << "no filter";
}

TEST(RollMat, MatchesGoldenShifts) {
  for (const auto& golden : ostrel_test::load_golden("roll")) {
    const cv::Mat rolled =
        roll_mat(float_map(golden.input("input")), golden.i32("shift_rows"), golden.i32("shift_cols"));
    EXPECT_TRUE(ostrel_test::matches_golden(golden.output("output"), floats_of(rolled))) << golden.name();
  }
}

TEST(RollMat, ReducesNegativeAndLargeShifts) {
  const cv::Mat map = counting_map(3, 4);
  EXPECT_EQ(floats_of(roll_mat(map, -1, 0)), floats_of(roll_mat(map, 2, 0)));
  EXPECT_EQ(floats_of(roll_mat(map, 0, -9)), floats_of(roll_mat(map, 0, 3)));
  EXPECT_EQ(floats_of(roll_mat(map, 3, 4)), floats_of(map));
}

TEST(RollMat, MovesComplexElementsWhole) {
  cv::Mat map(2, 2, CV_32FC2);
  for (int i = 0; i < 4; ++i) {
    map.at<cv::Vec2f>(i / 2, i % 2) = {static_cast<float>(i), static_cast<float>(-i)};
  }
  const cv::Mat rolled = roll_mat(map, 1, 1);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(rolled.at<cv::Vec2f>(i / 2, i % 2)[1], static_cast<float>(i - 3));
}

TEST(RollMat, CopiesDeeplyWithoutAShift) {
  const cv::Mat map = counting_map(2, 2);
  EXPECT_NE(roll_mat(map, 0, 0).data, map.data);
}

TEST(RollMat, KeepsNothingEmpty) {
  EXPECT_TRUE(roll_mat(cv::Mat(), 1, 1).empty());
}

TEST(SoftArgmax, MatchesGoldenPoints) {
  for (const auto& golden : ostrel_test::load_golden("soft_argmax")) {
    const cv::Point_<float> point =
        soft_argmax_2d(float_map(golden.input("response")), {golden.i32("peak_x"), golden.i32("peak_y")},
                       golden.i32("radius"), golden.f32("sharpness"));
    EXPECT_TRUE(ostrel_test::matches_golden(golden.output("point"), std::vector<float>{point.x, point.y}))
        << golden.name();
  }
}

TEST(SoftArgmax, StaysInsideTheMapAtACorner) {
  const cv::Mat flat = cv::Mat::ones(8, 6, CV_32F);
  const cv::Point_<float> low = soft_argmax_2d(flat, {0, 0}, 2, 10.0F);
  EXPECT_NEAR(low.x, 1.0F, 1e-5F);  // the mean of columns 0, 1, 2
  EXPECT_NEAR(low.y, 1.0F, 1e-5F);
  const cv::Point_<float> high = soft_argmax_2d(flat, {5, 7}, 2, 10.0F);
  EXPECT_NEAR(high.x, 4.0F, 1e-5F);
  EXPECT_NEAR(high.y, 6.0F, 1e-5F);
}

TEST(SoftArgmax, ReturnsThePeakWithoutANeighbourhood) {
  const cv::Mat map = counting_map(4, 4);
  for (const cv::Point_<int> peak : {cv::Point_<int>{9, 1}, cv::Point_<int>{1, -5}}) {
    EXPECT_EQ(soft_argmax_2d(map, peak, 2, 1.0F), cv::Point_<float>(peak)) << peak;
  }
  EXPECT_EQ(soft_argmax_2d(map, {2, 3}, -1, 1.0F), cv::Point_<float>(2.0F, 3.0F));
  EXPECT_EQ(soft_argmax_2d(cv::Mat(), {2, 3}, 2, 1.0F), cv::Point_<float>(2.0F, 3.0F));
}

TEST(SoftArgmax, TakesTheWholeMapForAHugeRadius) {
  const cv::Point_<float> point =
      soft_argmax_2d(cv::Mat::zeros(3, 5, CV_32F), {4, 2}, std::numeric_limits<int>::max(), 1.0F);
  EXPECT_NEAR(point.x, 2.0F, 1e-5F);
  EXPECT_NEAR(point.y, 1.0F, 1e-5F);
}

TEST(SoftArgmax, PassesNotANumberOn) {
  const cv::Mat broken(3, 3, CV_32F, cv::Scalar(std::nan("")));
  const cv::Point_<float> point = soft_argmax_2d(broken, {1, 1}, 1, 1.0F);
  EXPECT_TRUE(std::isnan(point.x));
  EXPECT_TRUE(std::isnan(point.y));
}

TEST(SoftArgmax, LeavesTheResponseAlone) {
  const cv::Mat map = counting_map(4, 4);
  soft_argmax_2d(map, {1, 1}, 1, 1.0F);
  EXPECT_EQ(floats_of(map), floats_of(counting_map(4, 4)));
}

TEST(QuadraticPeak, MatchesGoldenVertices) {
  const auto golden = ostrel_test::load_golden_case("quadratic_peak", "table");
  const std::vector<float> xy = golden.input_as<float>("xy");
  std::vector<float> vertices;
  for (std::size_t i = 0; i + 6 <= xy.size(); i += 6) {
    vertices.push_back(quadratic_peak_log_scale(xy[i], xy[i + 1], xy[i + 2], xy[i + 3], xy[i + 4], xy[i + 5])
                           .value_or(kNan));
  }
  EXPECT_TRUE(ostrel_test::matches_golden(golden.output("vertex"), vertices));
}

TEST(QuadraticPeak, AcceptsAVertexOnTheBoundary) {
  EXPECT_EQ(quadratic_peak_log_scale(0.0F, 0.0F, 1.0F, -1.0F, 2.0F, -4.0F), std::optional<float>(0.0F));
}

TEST(QuadraticPeak, AcceptsACurveJustConcaveEnough) {
  EXPECT_TRUE(quadratic_peak_log_scale(-1.0F, 0.0F, 0.0F, 2e-6F, 1.0F, 0.0F));
}

TEST(QuadraticPeak, HasNoVertexWithoutAConcaveCurveInside) {
  struct Row {
    const char* reason;
    float x0, y0, x1, y1, x2, y2;
  };
  for (const Row& row : {
           Row{"straight line", 0.0F, 0.0F, 1.0F, 1.0F, 2.0F, 2.0F},
           Row{"upward parabola", -1.0F, 1.0F, 0.0F, 0.0F, 1.0F, 1.0F},
           Row{"almost flat", -1.0F, 0.0F, 0.0F, 5e-7F, 1.0F, 0.0F},
           Row{"flat", -1.0F, 1.0F, 0.0F, 1.0F, 1.0F, 1.0F},
           Row{"vertex outside", 0.0F, 0.0F, 1.0F, 3.0F, 2.0F, 5.5F},
           Row{"equal points", 1.0F, 0.0F, 1.0F, 1.0F, 2.0F, 0.0F},
           Row{"not a number", 0.0F, kNan, 1.0F, 1.0F, 2.0F, 0.0F},
           Row{"infinite", 0.0F, 0.0F, 1.0F, 1.0F, kInfinity, 0.0F},
           Row{"vertex not finite", -1e19F, 0.0F, 0.0F, 3e38F, 1e19F, 0.0F},
       }) {
    EXPECT_FALSE(quadratic_peak_log_scale(row.x0, row.y0, row.x1, row.y1, row.x2, row.y2)) << row.reason;
  }
}

TEST(SoftDeadband, MatchesGoldenTable) {
  const auto golden = ostrel_test::load_golden_case("deadband", "table");
  const std::vector<float> table = golden.input_as<float>("value_band");
  std::vector<float> results;
  for (std::size_t i = 0; i + 2 <= table.size(); i += 2) {
    results.push_back(apply_soft_deadband(table[i], table[i + 1]));
  }
  EXPECT_TRUE(ostrel_test::matches_golden(golden.output("result"), results));
}

TEST(SoftDeadband, MovesTowardsZeroAndNotPastIt) {
  EXPECT_EQ(apply_soft_deadband(0.5F, 0.5F), 0.0F);
  EXPECT_EQ(apply_soft_deadband(-2.0F, 0.5F), -1.5F);
  EXPECT_EQ(apply_soft_deadband(2.0F, 0.5F), 1.5F);
  EXPECT_EQ(apply_soft_deadband(0.25F, 0.5F), 0.0F);
}

TEST(SoftDeadband, LeavesValuesAloneWithoutABand) {
  EXPECT_EQ(apply_soft_deadband(0.25F, 0.0F), 0.25F);
  EXPECT_EQ(apply_soft_deadband(0.25F, -1.0F), 0.25F);
  EXPECT_EQ(apply_soft_deadband(0.25F, kNan), 0.25F);
  EXPECT_EQ(apply_soft_deadband(kInfinity, 0.5F), kInfinity);
  EXPECT_EQ(apply_soft_deadband(-kInfinity, kInfinity), -kInfinity);
  EXPECT_TRUE(std::isnan(apply_soft_deadband(kNan, 0.5F)));
}

}  // namespace
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
