#include "tracking_runtime/tracker/atom/augmentation.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "support/golden_mat.h"
#include "tracking_runtime/tracker/atom/fresh_generator.h"
#include "tracking_runtime/tracker/atom/square_patch.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

using ostrel_test::coordinate_image;

TargetState state_at(const cv::Rect_<int>& box, int search_size, float factor, float scale) {
  NativeCppBackend::Config config;
  config.search_size = search_size;
  config.search_area_factor = factor;
  TargetState state(config);
  state.target_pos = {static_cast<float>(box.x) + static_cast<float>(box.width - 1) * 0.5F,
                      static_cast<float>(box.y) + static_cast<float>(box.height - 1) * 0.5F};
  state.target_scale = scale;
  return state;
}

cv::Mat template_of(const cv::Mat& frame, const cv::Rect_<int>& box, const TargetState& state) {
  return cut_square_patch(frame, state.target_pos, static_cast<float>(box.width),
                          static_cast<float>(box.height), state.config.search_area_factor,
                          state.config.search_size);
}

std::vector<AugmentedPatch> augment(const cv::Mat& frame, const cv::Rect_<int>& box,
                                    const TargetState& state) {
  InitTimings timings;
  return augmented_patches(frame, template_of(frame, box, state), box, state, &timings);
}

double largest_difference(const cv::Mat& a, const cv::Mat& b) {
  return cv::norm(a, b, cv::NORM_INF);
}

TEST(AugmentedPatches, MatchTheGoldenSetInItsOrder) {
  const auto golden = ostrel_test::load_golden_case("augmentation", "list");
  const cv::Rect_<int> box(golden.i32("x"), golden.i32("y"), golden.i32("w"), golden.i32("h"));
  const TargetState state =
      state_at(box, golden.i32("search_size"), golden.f32("search_area_factor"), golden.f32("target_scale"));
  const std::vector<AugmentedPatch> patches =
      augment(ostrel_test::bgr_image(golden.input("image")), box, state);
  ASSERT_EQ(patches.size(), 7u);
  std::vector<int> bytes;
  std::vector<float> centers;
  for (const AugmentedPatch& patch : patches) {
    const std::vector<int> image = ostrel_test::bytes_of(patch.image);
    bytes.insert(bytes.end(), image.begin(), image.end());
    centers.insert(centers.end(), {patch.center.x, patch.center.y});
  }
  EXPECT_TRUE(ostrel_test::matches_golden(golden.output("patches"), bytes));
  EXPECT_TRUE(ostrel_test::matches_golden(golden.output("centres"), centers));
}

TEST(AugmentedPatches, ShiftByLessForASmallerScale) {
  const cv::Rect_<int> box(30, 20, 11, 11);
  const auto patches = augment(coordinate_image(64, 96), box, state_at(box, 48, 3.0F, 0.5F));
  ASSERT_EQ(patches.size(), 7u);
  EXPECT_FLOAT_EQ(patches[1].center.x, 35.0F + 0.6F * 24.0F * 0.5F);
  EXPECT_FLOAT_EQ(patches[1].center.y, 25.0F + 0.6F * 24.0F * 0.5F);
  EXPECT_FLOAT_EQ(patches[2].center.x, 35.0F - 0.6F * 24.0F * 0.5F);
}

TEST(AugmentedPatches, TakeHalfOfAnOddPatchSideWithItsFraction) {
  const cv::Rect_<int> box(30, 20, 11, 11);
  const auto patches = augment(coordinate_image(64, 96), box, state_at(box, 45, 3.0F, 1.0F));
  EXPECT_FLOAT_EQ(patches[1].center.x, 35.0F + 0.6F * 22.5F);
}

TEST(AugmentedPatches, ShiftOffTheFrameIntoReplicatedBorder) {
  const cv::Mat frame = coordinate_image(32, 32);
  const cv::Rect_<int> box(26, 26, 6, 6);
  const auto patches = augment(frame, box, state_at(box, 24, 2.0F, 4.0F));
  ASSERT_EQ(patches.size(), 7u);
  EXPECT_GT(patches[1].center.x, 32.0F);
  for (int i = 0; i < 24; ++i) EXPECT_EQ(patches[1].image.at<cv::Vec3b>(i, i), cv::Vec3b(31, 31, 7));
}

TEST(AugmentedPatches, LeaveOutAShiftWithoutPixels) {
  const cv::Rect_<int> box(30, 20, 11, 11);
  const cv::Mat frame = coordinate_image(64, 96);
  const TargetState state = state_at(box, 48, 3.0F, 1.0F);
  InitTimings timings;
  const auto patches = augmented_patches(cv::Mat(), template_of(frame, box, state), box, state, &timings);
  ASSERT_EQ(patches.size(), 5u);
  for (const AugmentedPatch& patch : patches) EXPECT_EQ(patch.center, state.target_pos);
  EXPECT_EQ(largest_difference(patches[1].image, template_of(frame, box, state)) > 0.0, true)
      << "mirror next";
}

TEST(AugmentedPatches, HoldAtLeastOne) {
  const cv::Rect_<int> box(30, 20, 11, 11);
  const TargetState state = state_at(box, 48, 3.0F, 1.0F);
  InitTimings timings;
  const auto patches = augmented_patches(cv::Mat(), cv::Mat(), box, state, &timings);
  ASSERT_EQ(patches.size(), 1u);
  EXPECT_EQ(patches[0].center, state.target_pos);
}

TEST(AugmentedPatches, MirrorAroundTheVerticalAxis) {
  const cv::Rect_<int> box(30, 20, 11, 11);
  const auto patches = augment(coordinate_image(64, 96), box, state_at(box, 48, 3.0F, 1.0F));
  for (int x = 0; x < 48; ++x) {
    EXPECT_EQ(patches[3].image.at<cv::Vec3b>(10, x), patches[0].image.at<cv::Vec3b>(10, 47 - x));
  }
}

TEST(AugmentedPatches, RotateBothWays) {
  cv::Mat frame(64, 96, CV_8UC3, cv::Scalar::all(0));
  frame(cv::Rect(35, 20, 30, 10)).setTo(cv::Scalar::all(255));  // a bar to the right of the target's middle
  const cv::Rect_<int> box(30, 20, 11, 11);
  const auto patches = augment(frame, box, state_at(box, 33, 3.0F, 1.0F));
  ASSERT_EQ(patches.size(), 7u);
  const auto brightness_above = [](const cv::Mat& patch) { return cv::sum(patch.rowRange(0, 11))[0]; };
  EXPECT_GT(brightness_above(patches[5].image), brightness_above(patches[6].image))
      << "a positive angle turns the bar up";
}

TEST(AugmentedPatches, TakeTheTimeOfEachKind) {
  const cv::Rect_<int> box(30, 20, 11, 11);
  const cv::Mat frame = coordinate_image(64, 96);
  const TargetState state = state_at(box, 48, 3.0F, 1.0F);
  InitTimings timings;
  timings.shift = 1000.0;
  augmented_patches(frame, template_of(frame, box, state), box, state, &timings);
  EXPECT_GT(timings.shift, 1000.0) << "accumulates";
  EXPECT_GT(timings.flip, 0.0);
  EXPECT_GT(timings.blur, 0.0);
  EXPECT_GT(timings.rotate, 0.0);
  EXPECT_EQ(timings.dropout_prep, 0.0);
}

TEST(DropoutMasks, MatchGoldenDraws) {
  for (const char* name : {"masks_5489", "masks_1"}) {
    const auto golden = ostrel_test::load_golden_case("augmentation", name);
    std::mt19937 generator(golden.u32("seed"));
    EXPECT_TRUE(ostrel_test::matches_golden(golden.output("masks"),
                                            draw_dropout_masks(golden.i32("raw_channels"), &generator)))
        << name;
  }
}

TEST(DropoutMasks, KeepAboutFourChannelsOfFive) {
  std::mt19937 generator = fresh_generator();
  const std::vector<float> masks = draw_dropout_masks(256, &generator);
  ASSERT_EQ(masks.size(), 512u);
  const auto kept = std::count(masks.begin(), masks.end(), 1.25F);
  EXPECT_EQ(kept + std::count(masks.begin(), masks.end(), 0.0F), 512);
  EXPECT_NEAR(static_cast<double>(kept) / 512.0, 0.8, 6.0 * std::sqrt(0.16 / 512.0));
}

TEST(DropoutMasks, DifferFromStartToStart) {
  std::mt19937 first = fresh_generator();
  std::mt19937 second = fresh_generator();
  EXPECT_NE(draw_dropout_masks(256, &first), draw_dropout_masks(256, &second));
}

TEST(DropoutMasks, AreEmptyWithoutChannels) {
  std::mt19937 generator(1);
  EXPECT_TRUE(draw_dropout_masks(0, &generator).empty());
}

TEST(UniformDraw, UsesTwoDrawsTheSecondOnTop) {
  std::mt19937 reference(7);
  const auto low = static_cast<double>(reference());
  const auto high = static_cast<double>(reference());
  std::mt19937 generator(7);
  EXPECT_DOUBLE_EQ(draw_uniform(&generator), std::ldexp(high, -32) + std::ldexp(low, -64));
  EXPECT_EQ(generator, reference);
}

TEST(DropoutFeature, MultipliesWholePlanesByTheMaskOfItsSample) {
  const FeatureMap feature{1, 2, 1, 2, {1.0F, 2.0F, 3.0F, 4.0F}};
  const std::vector<float> masks = {1.25F, 0.0F, 0.0F, 1.25F};
  EXPECT_EQ(dropout_feature(feature, masks, 0).data, (std::vector<float>{1.25F, 2.5F, 0.0F, 0.0F}));
  EXPECT_EQ(dropout_feature(feature, masks, 1).data, (std::vector<float>{0.0F, 0.0F, 3.75F, 5.0F}));
  EXPECT_TRUE(dropout_feature(feature, masks, 1).defined());
}

}  // namespace
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
