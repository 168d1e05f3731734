// Scripted candidates: a target, spikes in its response, and the decision that they lead to.

#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <utility>
#include <vector>

#include "tracking_runtime/parameter/atom/resnet18.h"
#include "tracking_runtime/tracker/atom/frame_decision.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace decision_test {

inline constexpr int kSide = 192;
inline constexpr int kMiddle = kSide / 2;

struct Spike {
  int x = kMiddle;
  int y = kMiddle;
  float height = 100.0F;
};

/// Settings under which a single clean spike is a normal, accepted frame and nothing is smoothed.
inline NativeCppBackend::Config plain_config() {
  NativeCppBackend::Config config = parameter::atom::parameters();
  config.search_size = kSide;
  config.search_area_factor = 4.0F;
  config.target_not_found_score_threshold = 1.0F;
  config.use_soft_argmax = false;
  config.micro_motion_deadband_px = 0.0F;
  config.micro_motion_deadband_ratio = 0.0F;
  config.position_smoothing = 1.0F;
  config.jump_filter_enabled = false;
  config.min_update_scale_margin = 0.0F;
  config.frames_between_learning = 1000;
  config.roi_scale_deadband_px = 0.0F;
  config.roi_scale_deadband_ratio = 0.0F;
  config.scale_change_deadband = 0.0F;
  config.scale_smoothing = 1.0F;
  return config;
}

/// A target of 48 x 48 in the middle of 640 x 480: root area times 4 is 192, so the scale is 1.
inline TargetState started(const NativeCppBackend::Config& config) {
  TargetState state(config);
  state.initialized = true;
  state.runtime_initialized = true;
  state.image_size = {640, 480};
  const cv::Rect_<int> box{296, 216, 48, 48};
  state.place_at_start_(box);
  state.derive_scale_at_start_(box);
  return state;
}

/// The same of a target four times as wide as high: its width is the larger side of every limit.
inline TargetState started_oblong(const NativeCppBackend::Config& config) {
  TargetState state = started(config);
  state.target_size = {48.0F, 12.0F};
  state.base_target_size = {48.0F, 12.0F};
  return state;
}

inline Candidate candidate(float scale, const TargetState& state, const std::vector<Spike>& spikes) {
  Candidate result;
  result.scale = scale;
  result.target_scale = state.target_scale * scale;
  result.response = cv::Mat::zeros(kSide, kSide, CV_32F);
  for (const Spike& spike : spikes) result.response.at<float>(spike.y, spike.x) = spike.height;
  result.raw = spikes.front().height;
  result.peak = {spikes.front().x, spikes.front().y};
  result.feature = FeatureMap{1, 1, 1, 1, {1.0F}};
  return result;
}

inline FrameDecision decide(TargetState* state, std::vector<Candidate> candidates,
                            const FramePath& path = kViewPath) {
  for (std::size_t i = 0; i < candidates.size(); ++i) candidates[i].index = static_cast<int>(i);
  return decide_frame(state, &candidates, path);
}

inline FrameDecision decide_spikes(TargetState* state, const std::vector<Spike>& spikes,
                                   const FramePath& path = kViewPath) {
  return decide(state, {candidate(1.0F, *state, spikes)}, path);
}

}  // namespace decision_test
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
