#include "tracking_runtime/tracker/atom/view_crops.h"

#include <gtest/gtest.h>

#include <limits>

#include "tracking_runtime/parameter/atom/resnet18.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

/// A target of 48 x 48 around (100, 80): with the factor 4 its patch at scale 1 has 192 frame pixels.
TargetState target() {
  NativeCppBackend::Config config = parameter::atom::parameters();
  config.search_size = 192;
  config.search_area_factor = 4.0F;
  config.search_scales = {1.0F};
  TargetState state(config);
  state.target_pos = {100.9F, 80.0F};
  state.target_size = {48.0F, 48.0F};
  return state;
}

std::vector<optrix::AffineCrop> crops_of(const TargetState& state, float scale_x, float scale_y) {
  std::vector<float> kept;
  return view_crops(state, scale_x, scale_y, &kept);
}

TEST(ViewCrops, APatchOfTheNetworksSizeReadsPixelByPixel) {
  const std::vector<optrix::AffineCrop> crops = crops_of(target(), 1.0F, 1.0F);
  ASSERT_EQ(crops.size(), 1u);
  EXPECT_EQ(crops[0].scale_x, 1.0F);
  EXPECT_EQ(crops[0].scale_y, 1.0F);
  EXPECT_EQ(crops[0].offset_x, 100.0F - 95.0F);  // the truncated centre less (192 - 1) / 2
  EXPECT_EQ(crops[0].offset_y, 80.0F - 95.0F);   // outside the view, and passed on as it is
}

TEST(ViewCrops, MapsFramePixelsToViewPixelsAtTheirCentres) {
  const std::vector<optrix::AffineCrop> crops = crops_of(target(), 0.5F, 2.0F);
  ASSERT_EQ(crops.size(), 1u);
  EXPECT_EQ(crops[0].scale_x, 0.5F);
  EXPECT_EQ(crops[0].offset_x, 5.0F * 0.5F - 0.25F);
  EXPECT_EQ(crops[0].scale_y, 2.0F);
  EXPECT_EQ(crops[0].offset_y, -15.0F * 2.0F + 0.5F);
}

TEST(ViewCrops, ScalesThePatchToTheNetworkInput) {
  TargetState state = target();
  state.target_size = {96.0F, 96.0F};  // 384 frame pixels
  const std::vector<optrix::AffineCrop> crops = crops_of(state, 1.0F, 1.0F);
  ASSERT_EQ(crops.size(), 1u);
  EXPECT_EQ(crops[0].scale_x, 2.0F);
  EXPECT_EQ(crops[0].offset_x, 100.0F - 191.0F + 0.5F);
}

TEST(ViewCrops, KeepsScalesAboveZeroInAscendingOrder) {
  TargetState state = target();
  state.config.search_scales = {1.1F, -1.0F, 0.9F, 0.0F, 1.1F};
  std::vector<float> kept;
  const std::vector<optrix::AffineCrop> crops = view_crops(state, 1.0F, 1.0F, &kept);
  EXPECT_EQ(kept, (std::vector<float>{0.9F, 1.1F}));
  ASSERT_EQ(crops.size(), 2u);
  EXPECT_LT(crops[0].scale_x, crops[1].scale_x);
}

TEST(ViewCrops, ABrokenTargetGivesNumbersAndNoCrash) {
  TargetState state = target();
  state.target_pos = {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity()};
  EXPECT_EQ(crops_of(state, 1.0F, 1.0F).size(), 1u);
  state.target_size = {std::numeric_limits<float>::infinity(), 1.0F};
  EXPECT_LE(crops_of(state, 1.0F, 1.0F).size(), 1u);
}

}  // namespace
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
