#include "tracking_runtime/tracker/atom/augmentation.h"

#include <opencv2/imgproc.hpp>
#include <utility>

#include "tracking_runtime/tracker/atom/square_patch.h"
#include "tracking_runtime/tracker/atom/stage_clock.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

void keep(cv::Mat image, const cv::Point_<float>& center, std::vector<AugmentedPatch>* patches) {
  if (!image.empty()) patches->push_back({std::move(image), center});
}

void add_shifts(const cv::Mat& frame, const cv::Rect_<int>& box, const TargetState& state,
                std::vector<AugmentedPatch>* patches) {
  const float unit_px = static_cast<float>(state.config.search_size / 2.0) * state.target_scale;
  for (const auto& [shift_x, shift_y] : kInitRelativeShifts) {
    const cv::Point_<float> center = state.target_pos + cv::Point_<float>(shift_x, shift_y) * unit_px;
    keep(cut_square_patch(frame, center, static_cast<float>(box.width), static_cast<float>(box.height),
                          state.config.search_area_factor, state.config.search_size),
         center, patches);
  }
}

cv::Mat mirrored(const cv::Mat& patch) {
  cv::Mat result;
  cv::flip(patch, result, 1);
  return result;
}

cv::Mat blurred(const cv::Mat& patch) {
  cv::Mat result;
  cv::GaussianBlur(patch, result, cv::Size(0, 0), kInitBlurSigma, kInitBlurSigma, cv::BORDER_REPLICATE);
  return result;
}

cv::Mat rotated(const cv::Mat& patch, float angle_deg) {
  const cv::Point_<float> middle(static_cast<float>(patch.cols) * 0.5F,
                                 static_cast<float>(patch.rows) * 0.5F);
  const cv::Mat rotation = cv::getRotationMatrix2D(middle, static_cast<double>(angle_deg), 1.0);
  cv::Mat result;
  cv::warpAffine(patch, result, rotation, patch.size(), cv::INTER_LINEAR, cv::BORDER_REPLICATE);
  return result;
}

void add_template_variations(const cv::Mat& template_patch, const cv::Point_<float>& center,
                             std::vector<AugmentedPatch>* patches, InitTimings* timings) {
  StageClock clock;
  keep(mirrored(template_patch), center, patches);
  timings->flip += clock.lap_ms();
  keep(blurred(template_patch), center, patches);
  timings->blur += clock.lap_ms();
  for (const float angle_deg : kInitRotationAngles) keep(rotated(template_patch, angle_deg), center, patches);
  timings->rotate += clock.lap_ms();
}

}  // namespace

std::vector<AugmentedPatch> augmented_patches(const cv::Mat& frame, const cv::Mat& template_patch,
                                              const cv::Rect_<int>& box, const TargetState& state,
                                              InitTimings* timings) {
  std::vector<AugmentedPatch> patches;
  keep(template_patch, state.target_pos, &patches);
  StageClock clock;
  add_shifts(frame, box, state, &patches);
  timings->shift += clock.elapsed_ms();
  if (!template_patch.empty()) add_template_variations(template_patch, state.target_pos, &patches, timings);
  if (patches.empty()) patches.push_back({template_patch, state.target_pos});
  return patches;
}

double draw_uniform(std::mt19937* generator) {
  const double low = static_cast<double>((*generator)());
  const double high = static_cast<double>((*generator)());
  return (low + high * 4294967296.0) / 18446744073709551616.0;  // 2^32, 2^64
}

std::vector<float> draw_dropout_masks(int channels, std::mt19937* generator) {
  std::vector<float> masks;
  if (channels < 1) return masks;
  masks.reserve(static_cast<std::size_t>(kInitDropoutSamples) * static_cast<std::size_t>(channels));
  for (int i = 0; i < kInitDropoutSamples * channels; ++i) {
    masks.push_back(draw_uniform(generator) < kDropoutKeepProbability ? kDropoutGain : 0.0F);
  }
  return masks;
}

FeatureMap dropout_feature(const FeatureMap& feature, const std::vector<float>& masks, int index) {
  FeatureMap result = feature;
  const auto channels = static_cast<std::size_t>(feature.channels);
  const std::size_t plane = feature.sample_stride() / channels;
  for (std::size_t c = 0; c < channels; ++c) {
    const float mask = masks[static_cast<std::size_t>(index) * channels + c];
    for (std::size_t i = c * plane; i < (c + 1) * plane; ++i) result.data[i] *= mask;
  }
  return result;
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
