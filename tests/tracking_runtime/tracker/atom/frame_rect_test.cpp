#include "tracking_runtime/tracker/atom/frame_rect.h"

#include <gtest/gtest.h>

#include <limits>
#include <vector>

#include "support/golden.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

template <typename Result, typename Function>
std::vector<Result> run_table(const std::vector<float>& rows, Function function) {
  std::vector<Result> results;
  for (std::size_t i = 0; i + 6 <= rows.size(); i += 6) {
    const base::BBox box{rows[i], rows[i + 1], rows[i + 2], rows[i + 3]};
    const auto found = function(box, cv::Size(static_cast<int>(rows[i + 4]), static_cast<int>(rows[i + 5])));
    results.insert(results.end(), {found.x, found.y, found.width, found.height});
  }
  return results;
}

void expect_box(const base::BBox& box, float x, float y, float width, float height) {
  EXPECT_EQ(box.x, x);
  EXPECT_EQ(box.y, y);
  EXPECT_EQ(box.width, width);
  EXPECT_EQ(box.height, height);
}

TEST(ClampBbox, MatchesGoldenBoxes) {
  const auto golden = ostrel_test::load_golden_case("clamp_bbox", "table");
  const auto boxes = run_table<float>(golden.input_as<float>("box_size"), clamp_bbox);
  EXPECT_TRUE(ostrel_test::matches_golden(golden.output("box"), boxes));
}

TEST(ClampBbox, BringsABoxTooWideForTheFrameBackToItsEdge) {
  expect_box(clamp_bbox({50.0F, 60.0F, 900.0F, 10.0F}, {100, 80}), 0.0F, 60.0F, 100.0F, 10.0F);
}

TEST(ClampBbox, CountsAFrameWithoutSizeAsOnePixel) {
  expect_box(clamp_bbox({5.0F, 6.0F, 7.0F, 8.0F}, {0, -3}), 0.0F, 0.0F, 1.0F, 1.0F);
}

TEST(ClampBbox, GivesABoxInsideTheFrameForNumbersThatAreNone) {
  expect_box(clamp_bbox({kNan, kInfinity, kNan, -kInfinity}, {100, 80}), 0.0F, 79.0F, 1.0F, 1.0F);
  expect_box(clamp_bbox({-kInfinity, kNan, kInfinity, 20.0F}, {100, 80}), 0.0F, 0.0F, 100.0F, 20.0F);
}

TEST(RoundedRectInFrame, MatchesGoldenRectangles) {
  const auto golden = ostrel_test::load_golden_case("start_rect", "table");
  const auto rects = run_table<int>(golden.input_as<float>("box_size"), rounded_rect_in_frame);
  EXPECT_TRUE(ostrel_test::matches_golden(golden.output("rect"), rects));
}

TEST(RoundedRectInFrame, RoundsHalvesAwayFromZero) {
  EXPECT_EQ(rounded_rect_in_frame({2.5F, 3.5F, 4.5F, 5.49F}, {100, 80}), cv::Rect(3, 4, 5, 5));
}

TEST(RoundedRectInFrame, SurvivesCoordinatesBeyondTheRangeOfIntegers) {
  EXPECT_EQ(rounded_rect_in_frame({1e20F, -1e20F, 1e20F, 1e20F}, {100, 80}), cv::Rect(0, 0, 100, 80));
  EXPECT_EQ(rounded_rect_in_frame({2147483648.0F, 2e9F, 10.0F, 10.0F}, {100, 80}), cv::Rect(90, 70, 10, 10));
}

TEST(ClampRect, MovesAndCutsABoxIntoTheFrame) {
  const cv::Size_<int> frame(100, 80);
  EXPECT_EQ(clamp_rect({10, 20, 30, 40}, frame), cv::Rect(10, 20, 30, 40));
  EXPECT_EQ(clamp_rect({-5, -6, 30, 40}, frame), cv::Rect(0, 0, 30, 40));
  EXPECT_EQ(clamp_rect({90, 75, 30, 40}, frame), cv::Rect(70, 40, 30, 40));
  EXPECT_EQ(clamp_rect({10, 20, 300, 400}, frame), cv::Rect(0, 0, 100, 80));
  EXPECT_EQ(clamp_rect({10, 20, 0, -4}, frame), cv::Rect(10, 20, 1, 1));
  EXPECT_EQ(clamp_rect({10, 20, 5, 5}, {0, -1}), cv::Rect(0, 0, 1, 1));
}

TEST(IsUsableBox, WantsFiniteMembersAndSidesAboveOne) {
  EXPECT_TRUE(is_usable_box({-5.0F, 0.0F, 1.001F, 2.0F}));
  EXPECT_FALSE(is_usable_box({0.0F, 0.0F, 1.0F, 2.0F}));
  EXPECT_FALSE(is_usable_box({0.0F, 0.0F, 2.0F, 1.0F}));
  EXPECT_FALSE(is_usable_box({kNan, 0.0F, 2.0F, 2.0F}));
  EXPECT_FALSE(is_usable_box({0.0F, -kInfinity, 2.0F, 2.0F}));
  EXPECT_FALSE(is_usable_box({0.0F, 0.0F, kInfinity, 2.0F}));
  EXPECT_FALSE(is_usable_box({0.0F, 0.0F, 2.0F, kNan}));
}

}  // namespace
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
