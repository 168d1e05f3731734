#include "tracking_runtime/parameter/atom/resnet18.h"

namespace ostrel_tracker::tracking_runtime::parameter::atom {

tracker::atom::NativeCppBackend::Config parameters() {
  tracker::atom::NativeCppBackend::Config config;
  config.trt_engine_path = "models/IA_engine/tracker/resnet18_288.engine";
  config.runtime_backend = "cuda";
  config.reserved_flag = true;
  config.reserved_count = 2;
  config.template_size = 112;
  config.search_size = 288;
  config.search_area_factor = 5.0F;
  config.search_scales = {0.9039F, 1.0F, 1.1F};
  config.target_not_found_score_threshold = 0.55F;
  config.sample_memory_size = 250;
  config.frames_between_learning = 20;
  config.max_sample_history = 96;
  config.max_hard_negative_history = 128;
  config.update_iterations = 5;
  config.hard_negative_iterations = 10;
  config.learning_rate = 0.01F;
  config.hard_negative_learning_rate = 0.02F;
  config.filter_regularization = 0.02F;
  config.filter_regularization_floor = 0.001F;
  config.use_projection_matrix = true;
  config.update_projection_matrix = true;
  config.compressed_dim = 32;
  config.filter_size = 4;
  config.projection_regularization = 0.0001F;
  config.startup_filter_iterations = 20;
  config.startup_box_refinement_iterations = 15;
  config.proj_init_method = "randn";
  config.filter_init_method = "randn";
  config.enable_hard_negative_analysis = true;
  config.distractor_ratio = 0.8F;
  config.hard_negative_ratio = 0.5F;
  config.peak_exclusion_scale = 2.2F;
  config.peak_distance_ratio = 0.8F;
  config.scale_update_on_uncertain = true;
  config.enable_online_update = true;
  config.min_ratio_from_initial_size = 0.4F;
  config.max_ratio_from_initial_size = 2.5F;
  config.use_soft_argmax = true;
  config.soft_argmax_radius = 2;
  config.soft_argmax_sharpness = 10.0F;
  config.position_smoothing = 1.0F;
  config.micro_motion_deadband_px = 0.75F;
  config.micro_motion_deadband_ratio = 0.005F;
  config.scale_smoothing = 0.6F;
  config.scale_change_deadband = 0.01F;
  config.roi_scale_deadband_px = 1.5F;
  config.roi_scale_deadband_ratio = 0.015F;
  config.enable_scale_predictor = false;
  config.scale_predictor_process_noise_scale = 0.0005F;
  config.scale_predictor_process_noise_velocity = 0.0001F;
  config.scale_predictor_measurement_noise_scale = 0.01F;
  config.prefer_stable_reacquisition = true;
  config.reacquire_confirm_frames = 3;
  config.reacquire_min_score = 0.8F;
  config.reacquire_max_motion_factor = 4.0F;
  config.reacquire_max_frames = 90;
  config.use_log_scale_peak_refinement = true;
  config.min_update_confidence = 0.45F;
  config.min_update_scale_margin = 0.03F;
  config.jump_filter_enabled = true;
  config.jump_min_score = 0.45F;
  config.jump_max_motion_factor = 0.35F;
  config.jump_max_scale_change = 0.08F;
  return config;
}

}  // namespace ostrel_tracker::tracking_runtime::parameter::atom
