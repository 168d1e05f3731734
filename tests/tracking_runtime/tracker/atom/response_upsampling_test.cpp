#include <gtest/gtest.h>

#include "support/golden_mat.h"
#include "tracking_runtime/tracker/atom/response_analysis.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

using ostrel_test::float_map;
using ostrel_test::floats_of;

cv::Mat upsample(const cv::Mat& map, int filter_side, int search_size) {
  return upsample_response_fft(map, filter_side, filter_side, search_size);
}

/// Zero displacement in the middle of the map.
cv::Mat centred(const cv::Mat& map) {
  return roll_mat(map, (map.rows + 1) / 2, (map.cols + 1) / 2);
}

TEST(ResponseUpsampling, MatchesGoldenMaps) {
  int compared = 0;
  for (const auto& golden : ostrel_test::load_golden("upsample")) {
    const cv::Mat upsampled =
        upsample_response_fft(float_map(golden.input("response")), golden.i32("filter_height"),
                              golden.i32("filter_width"), golden.i32("search_size"));
    if (golden.name() == "larger_than_search") {
      EXPECT_TRUE(upsampled.empty());
      continue;
    }
    EXPECT_TRUE(ostrel_test::matches_golden(golden.output("upsampled"), floats_of(upsampled)))
        << golden.name();
    EXPECT_TRUE(ostrel_test::matches_golden(golden.output("centred"), floats_of(centred(upsampled))))
        << golden.name();
    ++compared;
  }
  EXPECT_EQ(compared, 6);
}

TEST(ResponseUpsampling, LeavesTheTransformsUnscaled) {
  const cv::Mat upsampled = upsample(cv::Mat(6, 6, CV_32F, cv::Scalar(2.0)), 4, 24);
  ASSERT_EQ(upsampled.size(), cv::Size(24, 24));
  for (const float value : floats_of(upsampled)) EXPECT_NEAR(value, 2.0F * 36.0F, 1e-3F);
}

TEST(ResponseUpsampling, BringsTheMiddleOfTheMapToTheCorner) {
  cv::Mat map = cv::Mat::zeros(12, 12, CV_32F);
  map.at<float>(6, 6) = 1.0F;
  cv::Point_<int> peak;
  cv::minMaxLoc(centred(upsample(map, 4, 48)), nullptr, nullptr, nullptr, &peak);
  EXPECT_EQ(peak, cv::Point_<int>(24, 24));
}

TEST(ResponseUpsampling, MakesASingleCellFlat) {
  const cv::Mat cell(1, 1, CV_32F, cv::Scalar(3.0));
  for (const int filter_side : {1, 4}) {
    for (const float value : floats_of(upsample(cell, filter_side, 9))) EXPECT_NEAR(value, 3.0F, 1e-5F);
    // An even side puts frequency zero one bin off its place, and nothing of it is left.
    for (const float value : floats_of(upsample(cell, filter_side, 8))) EXPECT_NEAR(value, 0.0F, 1e-5F);
  }
}

TEST(ResponseUpsampling, ConvertsTheMapToFloat) {
  cv::Mat map(12, 12, CV_8U);
  cv::randu(map, 0, 255);
  cv::Mat as_float;
  map.convertTo(as_float, CV_32F);
  EXPECT_EQ(floats_of(upsample(map, 4, 24)), floats_of(upsample(as_float, 4, 24)));
}

TEST(ResponseUpsampling, IsEmptyForUnusableMaps) {
  EXPECT_TRUE(upsample(cv::Mat(), 4, 24).empty()) << "nothing";
  EXPECT_TRUE(upsample(cv::Mat::zeros(12, 12, CV_32FC2), 4, 24).empty()) << "two planes";
  EXPECT_TRUE(upsample(cv::Mat::zeros(25, 12, CV_32F), 4, 24).empty()) << "too many rows";
  EXPECT_TRUE(upsample(cv::Mat::zeros(12, 25, CV_32F), 4, 24).empty()) << "too many columns";
  EXPECT_TRUE(upsample(cv::Mat::zeros(2, 2, CV_32F), 4, 0).empty()) << "a search size of 0 counts as 1";
  EXPECT_EQ(upsample(cv::Mat::ones(1, 1, CV_32F), 4, 0).size(), cv::Size(1, 1));
}

}  // namespace
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
