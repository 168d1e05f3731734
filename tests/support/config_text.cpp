#include "support/config_text.h"

#include <sstream>

namespace ostrel_test {

std::string config_text(
    const ostrel_tracker::tracking_runtime::tracker::atom::NativeCppBackend::Config& config) {
  std::ostringstream text;
  text.precision(9);
  text << std::boolalpha;
  text << "trt_engine_path " << config.trt_engine_path << '\n';
  text << "runtime_backend " << config.runtime_backend << '\n';
  text << "reference_trace_path " << config.reference_trace_path << '\n';
  text << "reserved_flag " << config.reserved_flag << '\n';
  text << "reserved_count " << config.reserved_count << '\n';
  text << "template_size " << config.template_size << '\n';
  text << "search_size " << config.search_size << '\n';
  text << "search_area_factor " << config.search_area_factor << '\n';
  text << "search_scales";
  for (const float scale : config.search_scales) text << ' ' << scale;
  text << '\n';
  text << "target_not_found_score_threshold " << config.target_not_found_score_threshold << '\n';
  text << "sample_memory_size " << config.sample_memory_size << '\n';
  text << "frames_between_learning " << config.frames_between_learning << '\n';
  text << "max_sample_history " << config.max_sample_history << '\n';
  text << "max_hard_negative_history " << config.max_hard_negative_history << '\n';
  text << "update_iterations " << config.update_iterations << '\n';
  text << "hard_negative_iterations " << config.hard_negative_iterations << '\n';
  text << "learning_rate " << config.learning_rate << '\n';
  text << "hard_negative_learning_rate " << config.hard_negative_learning_rate << '\n';
  text << "filter_regularization " << config.filter_regularization << '\n';
  text << "filter_regularization_floor " << config.filter_regularization_floor << '\n';
  text << "use_projection_matrix " << config.use_projection_matrix << '\n';
  text << "update_projection_matrix " << config.update_projection_matrix << '\n';
  text << "compressed_dim " << config.compressed_dim << '\n';
  text << "filter_size " << config.filter_size << '\n';
  text << "projection_regularization " << config.projection_regularization << '\n';
  text << "startup_filter_iterations " << config.startup_filter_iterations << '\n';
  text << "startup_box_refinement_iterations " << config.startup_box_refinement_iterations << '\n';
  text << "proj_init_method " << config.proj_init_method << '\n';
  text << "filter_init_method " << config.filter_init_method << '\n';
  text << "enable_hard_negative_analysis " << config.enable_hard_negative_analysis << '\n';
  text << "distractor_ratio " << config.distractor_ratio << '\n';
  text << "hard_negative_ratio " << config.hard_negative_ratio << '\n';
  text << "peak_exclusion_scale " << config.peak_exclusion_scale << '\n';
  text << "peak_distance_ratio " << config.peak_distance_ratio << '\n';
  text << "scale_update_on_uncertain " << config.scale_update_on_uncertain << '\n';
  text << "enable_online_update " << config.enable_online_update << '\n';
  text << "min_ratio_from_initial_size " << config.min_ratio_from_initial_size << '\n';
  text << "max_ratio_from_initial_size " << config.max_ratio_from_initial_size << '\n';
  text << "use_soft_argmax " << config.use_soft_argmax << '\n';
  text << "soft_argmax_radius " << config.soft_argmax_radius << '\n';
  text << "soft_argmax_sharpness " << config.soft_argmax_sharpness << '\n';
  text << "position_smoothing " << config.position_smoothing << '\n';
  text << "micro_motion_deadband_px " << config.micro_motion_deadband_px << '\n';
  text << "micro_motion_deadband_ratio " << config.micro_motion_deadband_ratio << '\n';
  text << "scale_smoothing " << config.scale_smoothing << '\n';
  text << "scale_change_deadband " << config.scale_change_deadband << '\n';
  text << "roi_scale_deadband_px " << config.roi_scale_deadband_px << '\n';
  text << "roi_scale_deadband_ratio " << config.roi_scale_deadband_ratio << '\n';
  text << "enable_scale_predictor " << config.enable_scale_predictor << '\n';
  text << "scale_predictor_process_noise_scale " << config.scale_predictor_process_noise_scale << '\n';
  text << "scale_predictor_process_noise_velocity " << config.scale_predictor_process_noise_velocity << '\n';
  text << "scale_predictor_measurement_noise_scale " << config.scale_predictor_measurement_noise_scale
       << '\n';
  text << "prefer_stable_reacquisition " << config.prefer_stable_reacquisition << '\n';
  text << "reacquire_confirm_frames " << config.reacquire_confirm_frames << '\n';
  text << "reacquire_min_score " << config.reacquire_min_score << '\n';
  text << "reacquire_max_motion_factor " << config.reacquire_max_motion_factor << '\n';
  text << "reacquire_max_frames " << config.reacquire_max_frames << '\n';
  text << "use_log_scale_peak_refinement " << config.use_log_scale_peak_refinement << '\n';
  text << "min_update_confidence " << config.min_update_confidence << '\n';
  text << "min_update_scale_margin " << config.min_update_scale_margin << '\n';
  text << "jump_filter_enabled " << config.jump_filter_enabled << '\n';
  text << "jump_min_score " << config.jump_min_score << '\n';
  text << "jump_max_motion_factor " << config.jump_max_motion_factor << '\n';
  text << "jump_max_scale_change " << config.jump_max_scale_change << '\n';
  return text.str();
}

}  // namespace ostrel_test
