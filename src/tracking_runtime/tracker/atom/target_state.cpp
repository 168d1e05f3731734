#include "tracking_runtime/tracker/atom/target_state.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "tracking_runtime/tracker/atom/frame_rect.h"
#include "tracking_runtime/tracker/atom/held.h"
#include "tracking_runtime/tracker/atom/rounding.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

constexpr float kMinSide_px = 2.0F;
constexpr float kMinStartSide_px = 10.0F;  // the scale bounds keep the target at least this large
constexpr float kMinRatio = 0.001F;
constexpr float kMinSeedVariance = 1e-4F;
constexpr float kMinNoise = 1e-8F;
constexpr float kOutsideShare = 0.3F;  // of a side, by which the centre may leave the frame

cv::Size_<float> at_least(const cv::Size_<float>& size, float side) {
  return {std::max(side, size.width), std::max(side, size.height)};
}

// One axis of the position clamp.
float held_centre(float centre, float target_side, int frame_side) {
  const float low = -kOutsideShare * target_side;
  const float high = static_cast<float>(frame_side) + kOutsideShare * target_side;
  return low < high ? held(centre, low, high) : low;
}

// One axis of the published box: the corner that keeps the side inside the frame.
float held_corner(float centre, float side, float frame_side) {
  return held(centre - side / 2.0F, 0.0F, std::max(frame_side - side, 0.0F));
}

void place(TargetState* state, const cv::Point_<float>& position, const cv::Size_<int>& frame_size) {
  state->target_pos.x = held_centre(position.x, state->target_size.width, frame_size.width);
  state->target_pos.y = held_centre(position.y, state->target_size.height, frame_size.height);
}

void take_scale(TargetState* state, float scale) {
  state->target_scale = scale;
  state->target_size = at_least(state->base_target_size * scale, kMinSide_px);
}

}  // namespace

TargetState::TargetState(NativeCppBackend::Config initial_config) : config(std::move(initial_config)) {}

void TargetState::place_at_start_(const cv::Rect_<int>& box) {
  target_pos = center_of(box);
  target_size = {static_cast<float>(box.width), static_cast<float>(box.height)};
}

void TargetState::derive_scale_at_start_(const cv::Rect_<int>& box) {
  const cv::Size_<float> start_size(static_cast<float>(box.width), static_cast<float>(box.height));
  const cv::Size_<float> search_area = at_least(start_size * config.search_area_factor, 1.0F);
  const float patch_side = std::sqrt(search_area.width * search_area.height);
  const float scale = patch_side / static_cast<float>(std::max(config.search_size, 1));
  const bool usable = scale > kMinTargetScale && std::isfinite(scale);
  target_scale = usable ? scale : 1.0F;
  base_target_size = at_least(start_size / target_scale, kMinSide_px);

  min_target_scale = std::max(kMinStartSide_px / std::max(base_target_size.width, 1.0F),
                              kMinStartSide_px / std::max(base_target_size.height, 1.0F));
  max_target_scale = std::min(std::max(static_cast<float>(image_size.height) / base_target_size.height, 1.0F),
                              std::max(static_cast<float>(image_size.width) / base_target_size.width, 1.0F));
  target_scale = clamp_target_scale_physical_(target_scale);
  initial_target_scale = target_scale;
  if (config.enable_scale_predictor) seed_scale_kalman_(target_scale);
}

float TargetState::clamp_target_scale_physical_(float scale) const {
  return held(scale, min_target_scale, max_target_scale);
}

float TargetState::clamp_target_scale_(float scale) const {
  const float physical = clamp_target_scale_physical_(scale);
  if (!(initial_target_scale > kMinTargetScale)) return physical;
  const auto [smaller, larger] =
      std::minmax({config.min_ratio_from_initial_size, config.max_ratio_from_initial_size});
  const float low = std::max(smaller, kMinRatio);
  const float high = std::max(larger, low);
  return held(physical, initial_target_scale * low, initial_target_scale * high);
}

void TargetState::reset_scale_kalman_() {
  scale_kalman_seeded = false;
  scale_log = 0.0F;
  scale_log_velocity = 0.0F;
  scale_p00 = 1.0F;
  scale_p01 = 0.0F;
  scale_p10 = 0.0F;
  scale_p11 = 1.0F;
}

void TargetState::seed_scale_kalman_(float scale) {
  scale_kalman_seeded = true;
  scale_log = std::log(std::max(clamp_target_scale_(scale), kMinTargetScale));
  scale_log_velocity = 0.0F;
  scale_p01 = 0.0F;
  scale_p10 = 0.0F;
  // From the measurement noise, not the process noise of the scale: the seed is one measurement.
  scale_p00 = std::max(config.scale_predictor_measurement_noise_scale, kMinSeedVariance);
  scale_p11 = std::max(config.scale_predictor_process_noise_velocity, kMinSeedVariance);
}

float TargetState::filter_target_scale_(float scale) {
  const float measured = std::max(clamp_target_scale_(scale), kMinTargetScale);
  if (!config.enable_scale_predictor) return measured;
  if (!scale_kalman_seeded) {
    seed_scale_kalman_(measured);
    return measured;
  }
  const float scale_noise = std::max(config.scale_predictor_process_noise_scale, kMinNoise);
  const float velocity_noise = std::max(config.scale_predictor_process_noise_velocity, kMinNoise);
  const float measurement_noise = std::max(config.scale_predictor_measurement_noise_scale, kMinNoise);

  const float x0 = scale_log + scale_log_velocity;
  const float x1 = scale_log_velocity;
  const float p00 = scale_p00 + scale_p01 + scale_p10 + scale_p11 + scale_noise;
  const float p01 = scale_p01 + scale_p11;
  const float p10 = scale_p10 + scale_p11;
  const float p11 = scale_p11 + velocity_noise;

  const float innovation = std::log(measured) - x0;
  const float innovation_variance = p00 + measurement_noise;
  const float k0 = p00 / innovation_variance;
  const float k1 = p10 / innovation_variance;
  scale_log = x0 + k0 * innovation;
  scale_log_velocity = x1 + k1 * innovation;
  scale_p00 = (1.0F - k0) * p00;
  scale_p11 = p11 - k1 * p01;
  // Stored symmetrised, so that rounding cannot pull the two halves apart.
  scale_p01 = 0.5F * ((p10 - k1 * p00) + (1.0F - k0) * p01);
  scale_p10 = scale_p01;
  return clamp_target_scale_(std::exp(scale_log));
}

cv::Rect_<int> TargetState::bbox_from_state_(const cv::Size_<int>& frame_size) const {
  const cv::Size_<float> size = at_least(target_size, kMinSide_px);
  const int frame_width = std::max(frame_size.width, 1);
  const int frame_height = std::max(frame_size.height, 1);
  const int width = held(round_to_int(size.width), 2, frame_width);
  const int height = held(round_to_int(size.height), 2, frame_height);
  const int x = round_to_int(target_pos.x - size.width * 0.5F);
  const int y = round_to_int(target_pos.y - size.height * 0.5F);
  return {held(x, 0, frame_width - width), held(y, 0, frame_height - height), width, height};
}

base::BBox TargetState::bboxf_from_state_(const cv::Size_<int>& frame_size) const {
  const auto frame_width = static_cast<float>(std::max(frame_size.width, 1));
  const auto frame_height = static_cast<float>(std::max(frame_size.height, 1));
  const float width = held(target_size.width, kMinSide_px, frame_width);
  const float height = held(target_size.height, kMinSide_px, frame_height);
  return {held_corner(target_pos.x, width, frame_width), held_corner(target_pos.y, height, frame_height),
          width, height};
}

void TargetState::apply_external_state_(const cv::Point_<float>& position, const std::optional<float>& scale,
                                        const cv::Size_<int>& frame_size, bool physical) {
  if (scale) {
    const float wanted = std::max(kMinTargetScale, *scale);
    // A physical correction re-centres the ratio clamp on the new scale.
    const float taken = physical ? clamp_target_scale_physical_(wanted) : clamp_target_scale_(wanted);
    if (physical) initial_target_scale = taken;
    take_scale(this, taken);
    if (config.enable_scale_predictor) seed_scale_kalman_(taken);
  }
  place(this, position, frame_size);
}

void TargetState::update_state_(const cv::Point_<float>& position, const std::optional<float>& scale,
                                const cv::Size_<int>& frame_size) {
  if (scale) {
    const float clamped = clamp_target_scale_(*scale);
    take_scale(this, config.enable_scale_predictor ? filter_target_scale_(clamped) : clamped);
  }
  place(this, position, frame_size);
}

void TargetState::enter_recovery_mode_() {
  recovery_active = config.prefer_stable_reacquisition;
  recovery_confirm_count = 0;
  recovery_frame_count = 0;
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
