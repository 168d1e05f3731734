#include "tracking_runtime/libs/dcf/dcf.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "support/golden_mat.h"
#include "tracking_runtime/libs/dcf/gauss_spatial.h"

namespace {

using ostrel_test::floats_of;
using ostrel_tracker::tracking_runtime::libs::dcf::gauss_spatial;
using ostrel_tracker::tracking_runtime::libs::dcf::label_function_spatial;
using ostrel_tracker::tracking_runtime::libs::dcf::SizeYX;

bool starts_with(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

TEST(GaussSpatial, MatchesGoldenRows) {
  int compared = 0;
  for (const auto& golden : ostrel_test::load_golden("labels")) {
    if (!starts_with(golden.name(), "gauss")) continue;
    const cv::Mat row =
        gauss_spatial(golden.i32("size"), golden.f32("sigma"), golden.f32("center"), golden.i32("end_pad"));
    EXPECT_EQ(row.type(), CV_32F);
    EXPECT_EQ(row.rows, 1) << golden.name();
    EXPECT_TRUE(ostrel_test::matches_golden(golden.output("row"), floats_of(row))) << golden.name();
    ++compared;
  }
  EXPECT_EQ(compared, 5);
}

TEST(GaussSpatial, SamplesAnEvenAxisAtHalfCells) {
  const std::vector<float> row = floats_of(gauss_spatial(4, 1.0F, 0.0F, 0));
  ASSERT_EQ(row.size(), 4u);
  const std::vector<double> coordinates = {-1.5, -0.5, 0.5, 1.5};
  for (std::size_t i = 0; i < row.size(); ++i) {
    EXPECT_NEAR(row[i], std::exp(-0.5 * coordinates[i] * coordinates[i]), 1e-6);
  }
}

TEST(GaussSpatial, HasNoColumnsWhenThePadTakesAllCells) {
  const cv::Mat row = gauss_spatial(3, 1.0F, 0.0F, -3);
  EXPECT_EQ(row.rows, 1);
  EXPECT_EQ(row.cols, 0);
  EXPECT_EQ(row.type(), CV_32F);
}

TEST(LabelFunctionSpatial, MatchesGoldenMaps) {
  int compared = 0;
  for (const auto& golden : ostrel_test::load_golden("labels")) {
    if (!starts_with(golden.name(), "spatial")) continue;
    const cv::Mat label = label_function_spatial(
        SizeYX(golden.i32("height"), golden.i32("width")), {golden.f32("sigma_row"), golden.f32("sigma_col")},
        {golden.f32("center_row"), golden.f32("center_col")}, {golden.i32("pad_row"), golden.i32("pad_col")});
    EXPECT_EQ(label.rows, golden.i32("height") + golden.i32("pad_row"));
    EXPECT_EQ(label.cols, golden.i32("width") + golden.i32("pad_col"));
    EXPECT_TRUE(ostrel_test::matches_golden(golden.output("label"), floats_of(label))) << golden.name();
    ++compared;
  }
  EXPECT_EQ(compared, 2);
}

TEST(LabelFunctionSpatial, IsEmptyWithoutCells) {
  EXPECT_EQ(label_function_spatial(SizeYX(3, 4), {1.0F, 1.0F}, {0.0F, 0.0F}, {-3, 0}).size(), cv::Size(4, 0));
  EXPECT_EQ(label_function_spatial(SizeYX(3, 4), {1.0F, 1.0F}, {0.0F, 0.0F}, {0, -4}).size(), cv::Size(0, 3));
}

}  // namespace
