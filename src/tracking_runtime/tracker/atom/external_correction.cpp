#include "tracking_runtime/tracker/atom/external_correction.h"

#include <algorithm>
#include <cmath>

#include "tracking_runtime/tracker/atom/frame_rect.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

constexpr float kScaleOfAVanishingBox = 0.001F;

bool is_started(const TargetState& state) {
  return state.initialized && state.runtime_initialized;
}

bool frame_size_known(const TargetState& state) {
  return state.image_size.width > 0 && state.image_size.height > 0;
}

// How much larger a side is than at scale 1; a base side of a pixel or less gives no ratio.
float side_ratio(int side, float base_side) {
  return base_side > 1.0F ? static_cast<float>(side) / base_side : static_cast<float>(side);
}

std::optional<float> scale_for(const cv::Size_<int>& size, const cv::Size_<float>& base) {
  if (!(base.width > kMinTargetScale) || !(base.height > kMinTargetScale)) return std::nullopt;
  const float area_ratio = side_ratio(size.width, base.width) * side_ratio(size.height, base.height);
  if (!(area_ratio > kMinTargetScale)) return kScaleOfAVanishingBox;
  const float scale = std::sqrt(area_ratio);
  if (!std::isfinite(scale) || !(scale > kMinTargetScale)) return std::nullopt;
  return scale;
}

}  // namespace

const char* teleport_target(TargetState* state, const base::BBox& expected) {
  if (!is_started(*state)) return "backend_not_initialized";
  if (!is_usable_box(expected)) return "invalid_expected_bbox";
  if (!frame_size_known(*state)) return "unknown_frame_size";
  const cv::Rect_<int> rect = rounded_rect_in_frame(expected, state->image_size);
  const std::optional<float> scale = scale_for(rect.size(), state->base_target_size);
  state->apply_external_state_(center_of(rect), scale, state->image_size, false);
  state->enter_recovery_mode_();
  return kTeleportOk;
}

const char* zoom_target(TargetState* state, float scale_factor) {
  if (!is_started(*state)) return "backend_not_initialized";
  if (!(scale_factor > 0.0F) || !std::isfinite(scale_factor)) return "invalid_scale_factor";
  if (!frame_size_known(*state)) return "unknown_frame_size";
  const float scale = std::max(kMinTargetScale, scale_factor * state->target_scale);
  state->apply_external_state_(state->target_pos, scale, state->image_size, true);
  state->enter_recovery_mode_();
  return kZoomChangedOk;
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
