#pragma once

#include <opencv2/core.hpp>
#include <optional>

#include "tracking_runtime/tracker/atom/native_cpp_backend.h"
#include "tracking_runtime/tracker/base/bbox.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// Scales below this are floored to it, or taken as none at all.
inline constexpr float kMinTargetScale = 1e-6F;

/// The target as numbers: centre, size, one scale that ties them to a reference size, and the recovery mode.
/// The published box is always derived from it. No lock: one thread tracks, and a training job reads nothing
/// of it but settings of learning, which change only after the job was awaited.
/// Frame pixels throughout; `target_scale` is frame pixels per pixel of the network input.
struct TargetState {
  explicit TargetState(NativeCppBackend::Config initial_config);

  NativeCppBackend::Config config;

  bool initialized = false;
  bool runtime_initialized = false;
  int frame_index = 0;  ///< track calls that reached candidate analysis
  cv::Size_<int> image_size{0, 0};
  cv::Point_<float> target_pos{0.0F, 0.0F};
  cv::Size_<float> target_size{0.0F, 0.0F};
  cv::Size_<float> base_target_size{0.0F, 0.0F};  ///< size at scale 1.0
  float target_scale = 1.0F;
  float initial_target_scale = 1.0F;
  bool scale_kalman_seeded = false;
  float scale_log = 0.0F;
  float scale_log_velocity = 0.0F;
  float scale_p00 = 1.0F;
  float scale_p01 = 0.0F;
  float scale_p10 = 0.0F;
  float scale_p11 = 1.0F;
  float min_target_scale = 0.1F;
  float max_target_scale = 10.0F;
  bool recovery_active = false;
  int recovery_confirm_count = 0;
  int recovery_frame_count = 0;

  /// Centre and size of a fresh start box; `target_scale` and its bounds follow by `derive_scale_at_start_`.
  void place_at_start_(const cv::Rect_<int>& box);
  /// Base size, scales and bounds from the start box and `image_size`; seeds the scale filter when it is on.
  void derive_scale_at_start_(const cv::Rect_<int>& box);

  float clamp_target_scale_physical_(float scale) const;
  /// The physical clamp, then the ratio to the initial scale, which has the last word.
  float clamp_target_scale_(float scale) const;
  void reset_scale_kalman_();
  void seed_scale_kalman_(float scale);
  /// Constant-velocity Kalman filter on the log of the scale; the clamp alone while the predictor is off.
  float filter_target_scale_(float scale);
  cv::Rect_<int> bbox_from_state_(const cv::Size_<int>& frame_size) const;
  base::BBox bboxf_from_state_(const cv::Size_<int>& frame_size) const;
  void apply_external_state_(const cv::Point_<float>& position, const std::optional<float>& scale,
                             const cv::Size_<int>& frame_size, bool physical);
  void update_state_(const cv::Point_<float>& position, const std::optional<float>& scale,
                     const cv::Size_<int>& frame_size);
  void enter_recovery_mode_();
};

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
