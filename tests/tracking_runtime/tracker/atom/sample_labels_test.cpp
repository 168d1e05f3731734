#include "tracking_runtime/tracker/atom/sample_labels.h"

#include <gtest/gtest.h>

#include <string>

#include "support/golden.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

TargetState state_with(int search_size, int filter_size, cv::Size_<float> base_size,
                       cv::Point_<float> target_pos) {
  NativeCppBackend::Config config;
  config.search_size = search_size;
  config.filter_size = filter_size;
  TargetState state(config);
  state.base_target_size = base_size;
  state.target_pos = target_pos;
  return state;
}

cv::Mat map_of(const LabelMap& label) {
  return cv::Mat(label.data, true).reshape(1, label.height);
}

TEST(SampleLabel, MatchesGoldenLabels) {
  int compared = 0;
  for (const auto& golden : ostrel_test::load_golden("labels")) {
    if (golden.name().compare(0, 5, "build") != 0) continue;
    const TargetState state = state_with(golden.i32("search_size"), golden.i32("filter_size"),
                                         {golden.f32("base_width"), golden.f32("base_height")},
                                         {golden.f32("target_x"), golden.f32("target_y")});
    const LabelMap label =
        build_label(state, golden.i32("height"), golden.i32("width"),
                    {golden.f32("sample_x"), golden.f32("sample_y")}, golden.f32("sample_scale"));
    ASSERT_TRUE(label.defined());
    EXPECT_EQ(label.samples, 1);
    EXPECT_EQ(label.height, golden.i32("height"));
    EXPECT_EQ(label.width, golden.i32("width"));
    EXPECT_TRUE(ostrel_test::matches_golden(golden.output("label"), label.data)) << golden.name();
    ++compared;
  }
  EXPECT_EQ(compared, 6);
}

TEST(SampleLabel, PeaksHalfACellPastTheMiddleForAnEvenFilter) {
  const TargetState state = state_with(192, 4, {32.0F, 32.0F}, {50.0F, 60.0F});
  const cv::Mat even = map_of(build_label(state, 12, 12, {50.0F, 60.0F}, 1.0F));
  EXPECT_FLOAT_EQ(even.at<float>(6, 6), 1.0F);
  const cv::Mat odd =
      map_of(build_label(state_with(192, 3, {32.0F, 32.0F}, {50.0F, 60.0F}), 12, 12, {50.0F, 60.0F}, 1.0F));
  EXPECT_FLOAT_EQ(odd.at<float>(5, 5), odd.at<float>(6, 6));
  EXPECT_LT(odd.at<float>(6, 6), 1.0F);
}

TEST(SampleLabel, MovesWithTheTargetSeenFromThePatch) {
  const TargetState state = state_with(192, 4, {32.0F, 32.0F}, {66.0F, 60.0F});
  // One cell of 12 is 16 pixels at scale 1: the target stands one column to the right of the patch's middle.
  EXPECT_FLOAT_EQ(map_of(build_label(state, 12, 12, {50.0F, 60.0F}, 1.0F)).at<float>(6, 7), 1.0F);
}

TEST(SampleLabel, KeepsItsWidthAsTheTargetGrows) {
  TargetState state = state_with(192, 4, {32.0F, 32.0F}, {50.0F, 60.0F});
  const LabelMap before = build_label(state, 12, 12, {50.0F, 60.0F}, 1.0F);
  state.target_size = {500.0F, 500.0F};
  EXPECT_EQ(build_label(state, 12, 12, {50.0F, 60.0F}, 3.0F).data, before.data);
}

TEST(SampleLabel, CountsABaseSideBelowOneAsOne) {
  const TargetState thin = state_with(192, 4, {0.0F, 64.0F}, {50.0F, 60.0F});
  const TargetState one = state_with(192, 4, {1.0F, 64.0F}, {50.0F, 60.0F});
  EXPECT_EQ(build_label(thin, 12, 12, {50.0F, 60.0F}, 1.0F).data,
            build_label(one, 12, 12, {50.0F, 60.0F}, 1.0F).data);
}

TEST(SampleLabel, CountsASearchOrFilterSizeBelowOneAsOne) {
  const cv::Point_<float> point{50.0F, 60.0F};
  EXPECT_EQ(build_label(state_with(0, 0, {1.0F, 1.0F}, point), 3, 3, point, 1.0F).data,
            build_label(state_with(1, 1, {1.0F, 1.0F}, point), 3, 3, point, 1.0F).data);
}

TEST(SampleLabel, LeavesTheMapAtScaleZeroWithoutFailing) {
  const TargetState state = state_with(192, 4, {32.0F, 32.0F}, {51.0F, 60.0F});
  const LabelMap label = build_label(state, 12, 12, {50.0F, 60.0F}, 0.0F);
  ASSERT_TRUE(label.defined());
  for (const float value : label.data) EXPECT_NEAR(value, 0.0F, 1e-6F);
}

TEST(SampleLabel, IsUndefinedWithoutCells) {
  const TargetState state = state_with(192, 4, {32.0F, 32.0F}, {50.0F, 60.0F});
  for (const LabelMap& label :
       {build_label(state, 0, 12, {50.0F, 60.0F}, 1.0F), build_label(state, 12, -1, {50.0F, 60.0F}, 1.0F)}) {
    EXPECT_FALSE(label.defined());
    EXPECT_EQ(label.samples + label.height + label.width, 0);
  }
}

}  // namespace
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
