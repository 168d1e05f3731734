#pragma once

#include <array>
#include <cstddef>
#include <opencv2/core.hpp>
#include <random>
#include <vector>

#include "tracking_runtime/tracker/atom/feature_map.h"
#include "tracking_runtime/tracker/atom/init_timings.h"
#include "tracking_runtime/tracker/atom/target_state.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// Shifts of the start-up set in units of half the patch side, rows and columns alike.
inline constexpr std::array<std::array<float, 2>, 2> kInitRelativeShifts = {{{0.6F, 0.6F}, {-0.6F, -0.6F}}};
inline constexpr std::array<float, 2> kInitRotationAngles = {10.0F, -10.0F};  // degrees
inline constexpr double kInitBlurSigma = 2.0;                                 // patch pixels
inline constexpr int kInitDropoutSamples = 2;
inline constexpr double kDropoutKeepProbability = 0.8;
inline constexpr float kDropoutGain = 1.25F;

/// A variation of the start frame: a patch and the frame point that lies in its middle.
struct AugmentedPatch {
  cv::Mat image;
  cv::Point_<float> center;
};

/// The start-up set before feature extraction: template, two shifts, mirror, blur, two rotations, in this
/// order, without those that could not be made; and the masks of the dropout samples, one value per channel,
/// one sample after the other.
struct AugmentedSet {
  std::vector<AugmentedPatch> patches;
  std::vector<float> dropout_masks;
};

/// The patches. Shifts are cut anew from `frame` with the sides of `box`; the rest is made from
/// `template_patch`. At least one patch comes back. Adds its time to the stages of `timings`.
std::vector<AugmentedPatch> augmented_patches(const cv::Mat& frame, const cv::Mat& template_patch,
                                              const cv::Rect_<int>& box, const TargetState& state,
                                              InitTimings* timings);

/// A number in [0, 1], 1 only by rounding, of double precision from two draws.
double draw_uniform(std::mt19937* generator);

/// Masks of all dropout samples: a channel is kept and amplified, so that the expected energy stays, or
/// dropped as a whole.
std::vector<float> draw_dropout_masks(int channels, std::mt19937* generator);

/// Dropout sample `index`: the feature (one sample), each plane multiplied by its mask value.
FeatureMap dropout_feature(const FeatureMap& feature, const std::vector<float>& masks, int index);

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
