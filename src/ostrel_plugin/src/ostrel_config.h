#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// The plug-in's one configuration record. A default-constructed record holds the defaults of the schema text
/// (`ostrel_cfg::schema()`); a JSON document overwrites what it names. Members stand in the order of the
/// schema and are named by their key, with the group in front where a key occurs in two groups.
struct OstrelConfig {
  // engine
  std::string tracker_engine_path = "models/IA_engine/tracker/resnet18_192_opt5.engine";
  std::string reference_trace_path;

  // processing
  float frame_scale = 1.0F;
  float search_area_factor = 7.0F;
  std::vector<float> search_scales{0.950392F, 1.0F, 1.05F};

  // learning
  std::int32_t update_iterations = 45;
  float learning_rate = 0.04F;
  float filter_regularization = 3.0F;
  std::int32_t feature_projection_dim = 256;
  std::int32_t frames_between_learning = 4;
  std::int32_t max_sample_history = 10;
  std::int32_t max_hard_negative_history = 128;
  std::int32_t startup_filter_iterations = 60;
  std::int32_t startup_box_refinement_iterations = 20;

  // tracking
  float target_not_found_score_threshold = 0.1F;
  float position_smoothing = 0.88F;
  float micro_motion_deadband_px = 0.75F;
  float micro_motion_deadband_ratio = 0.004F;
  float min_update_confidence = 0.75F;
  float min_update_scale_margin = 0.02F;

  // scale
  float scale_smoothing = 1.0F;
  float scale_change_deadband = 0.01F;
  float roi_scale_deadband_px = 1.5F;
  float roi_scale_deadband_ratio = 0.015F;
  bool enable_scale_predictor = true;
  float scale_predictor_process_noise_scale = 0.0002F;
  float scale_predictor_process_noise_velocity = 0.00005F;
  float scale_predictor_measurement_noise_scale = 0.03F;
  bool use_log_scale_peak_refinement = true;
  float min_ratio_from_initial_size = 0.4F;
  float max_ratio_from_initial_size = 2.5F;

  // reacquisition
  bool prefer_stable_reacquisition = true;
  std::int32_t confirm_frames = 1;
  float reacquisition_min_score = 0.80F;
  float reacquisition_max_motion_factor = 4.0F;
  std::int32_t max_frames = 200;

  // jump_filter
  bool jump_filter_enabled = true;
  float jump_filter_min_score = 0.7F;
  float jump_filter_max_motion_factor = 0.25F;
  float max_scale_change = 0.06F;

  // preposition
  bool preposition_enabled = false;

  // target
  std::int32_t class_id = -1;
  std::int32_t tracker_id = 0;
  std::string class_name = "OstrelTracking";

  // publication
  std::int32_t lost_after_low_score_frames = 10;
  float lost_score_threshold = 0.7F;
  std::int32_t publish_after_confirm_frames = 5;
  std::int32_t dead_status_confirm_frames = 5;

  // runtime
  float dead_timeout_s = 10.0F;

  // debug
  bool debug_enabled = false;
  std::int32_t log_every_n_frames = 5;
};
