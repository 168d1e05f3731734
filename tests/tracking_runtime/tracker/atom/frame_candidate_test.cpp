#include "tracking_runtime/tracker/atom/frame_candidate.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

TEST(SearchScales, AreSortedAndMerged) {
  EXPECT_EQ(sorted_search_scales({1.1F, 0.9F, 1.0F, 1.0F, 0.0F}),
            (std::vector<float>{0.0F, 0.9F, 1.0F, 1.1F}));
  EXPECT_EQ(sorted_search_scales({}), std::vector<float>{1.0F});
}

TEST(MakeCandidate, DropsAnEmptyResponseAndOneLargerThanTheSearchSize) {
  EXPECT_FALSE(make_candidate(cv::Mat(), 1.0F, 1.0F, 4, 4, 192).has_value());
  EXPECT_FALSE(make_candidate(cv::Mat::ones(9, 9, CV_32F), 1.0F, 1.0F, 4, 4, 8).has_value());
}

TEST(MakeCandidate, CentresZeroDisplacementAndRatesItsPeak) {
  // An even filter: zero displacement is the cell right below the middle of the low-resolution map.
  cv::Mat response = cv::Mat::zeros(12, 12, CV_32F);
  response.at<float>(6, 6) = 1.0F;
  const std::optional<Candidate> candidate = make_candidate(response, 0.95F, 2.0F, 4, 4, 192);
  ASSERT_TRUE(candidate.has_value());
  EXPECT_EQ(candidate->peak, cv::Point(96, 96));
  EXPECT_EQ(candidate->response.size(), cv::Size(192, 192));
  EXPECT_NEAR(candidate->raw, 144.0F, 12.5F);  // rows times columns: the transforms are not normalised
  EXPECT_FLOAT_EQ(candidate->target_scale, 1.9F);
  EXPECT_GT(candidate->confidence, 0.99F);
  EXPECT_LE(candidate->confidence, 1.0F);
}

TEST(MakeCandidate, RatesThePeakByTheSigmoidOfItsDeviationFromTheMean) {
  cv::Mat response = cv::Mat::zeros(8, 8, CV_32F);
  for (int i = 0; i < 64; ++i) response.at<float>(i / 8, i % 8) = static_cast<float>((i * 37) % 19) * 1e-3F;
  const std::optional<Candidate> candidate = make_candidate(response, 1.0F, 1.0F, 4, 4, 32);
  ASSERT_TRUE(candidate.has_value());
  double sum = 0.0;
  double squares = 0.0;
  double highest = -1e9;
  for (int i = 0; i < 32 * 32; ++i) {
    const double value = candidate->response.at<float>(i / 32, i % 32);
    sum += value;
    squares += value * value;
    highest = std::max(highest, value);
  }
  const double mean = sum / 1024.0;
  const double deviation = std::sqrt(squares / 1024.0 - mean * mean);
  EXPECT_FLOAT_EQ(candidate->raw, static_cast<float>(highest));
  EXPECT_NEAR(candidate->confidence, 1.0 / (1.0 + std::exp(-(highest - mean) / deviation)), 1e-4);
}

TEST(MakeCandidate, RatesAFlatResponseAtAHalf) {
  const std::optional<Candidate> flat = make_candidate(cv::Mat::zeros(8, 8, CV_32F), 1.0F, 1.0F, 4, 4, 32);
  ASSERT_TRUE(flat.has_value());
  EXPECT_EQ(flat->raw, 0.0F);
  EXPECT_EQ(flat->confidence, 0.5F);
}

}  // namespace
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
