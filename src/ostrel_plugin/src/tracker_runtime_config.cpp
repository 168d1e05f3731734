#include "ostrel_plugin/src/tracker_runtime_config.h"

#include "tracking_runtime/parameter/atom/resnet18.h"

namespace ostrel_algo_internal {
namespace {

using RuntimeConfig = ostrel_tracker::tracking_runtime::tracker::atom::NativeCppBackend::Config;

// The default engine of the plug-in is built for this input; the built-in parameters are for another one.
constexpr int kSearchSize_px = 192;

void overlay_engine(const OstrelConfig& config, RuntimeConfig* runtime) {
  if (!config.tracker_engine_path.empty()) runtime->trt_engine_path = config.tracker_engine_path;
  runtime->runtime_backend = "cuda";
  runtime->reference_trace_path = config.reference_trace_path;
}

void overlay_processing(const OstrelConfig& config, RuntimeConfig* runtime) {
  runtime->search_size = kSearchSize_px;
  runtime->search_area_factor = config.search_area_factor;
  if (!config.search_scales.empty()) runtime->search_scales = config.search_scales;
}

void overlay_learning(const OstrelConfig& config, RuntimeConfig* runtime) {
  runtime->update_iterations = config.update_iterations;
  runtime->learning_rate = config.learning_rate;
  runtime->filter_regularization = config.filter_regularization;
  runtime->compressed_dim = config.feature_projection_dim;
  runtime->frames_between_learning = config.frames_between_learning;
  runtime->max_sample_history = config.max_sample_history;
  runtime->max_hard_negative_history = config.max_hard_negative_history;
  runtime->startup_filter_iterations = config.startup_filter_iterations;
  runtime->startup_box_refinement_iterations = config.startup_box_refinement_iterations;
}

void overlay_tracking(const OstrelConfig& config, RuntimeConfig* runtime) {
  runtime->target_not_found_score_threshold = config.target_not_found_score_threshold;
  runtime->position_smoothing = config.position_smoothing;
  runtime->micro_motion_deadband_px = config.micro_motion_deadband_px;
  runtime->micro_motion_deadband_ratio = config.micro_motion_deadband_ratio;
  runtime->min_update_confidence = config.min_update_confidence;
  runtime->min_update_scale_margin = config.min_update_scale_margin;
}

void overlay_scale(const OstrelConfig& config, RuntimeConfig* runtime) {
  runtime->scale_smoothing = config.scale_smoothing;
  runtime->scale_change_deadband = config.scale_change_deadband;
  runtime->roi_scale_deadband_px = config.roi_scale_deadband_px;
  runtime->roi_scale_deadband_ratio = config.roi_scale_deadband_ratio;
  runtime->enable_scale_predictor = config.enable_scale_predictor;
  runtime->scale_predictor_process_noise_scale = config.scale_predictor_process_noise_scale;
  runtime->scale_predictor_process_noise_velocity = config.scale_predictor_process_noise_velocity;
  runtime->scale_predictor_measurement_noise_scale = config.scale_predictor_measurement_noise_scale;
  runtime->use_log_scale_peak_refinement = config.use_log_scale_peak_refinement;
  runtime->min_ratio_from_initial_size = config.min_ratio_from_initial_size;
  runtime->max_ratio_from_initial_size = config.max_ratio_from_initial_size;
}

void overlay_reacquisition(const OstrelConfig& config, RuntimeConfig* runtime) {
  runtime->prefer_stable_reacquisition = config.prefer_stable_reacquisition;
  runtime->reacquire_confirm_frames = config.confirm_frames;
  runtime->reacquire_min_score = config.reacquisition_min_score;
  runtime->reacquire_max_motion_factor = config.reacquisition_max_motion_factor;
  runtime->reacquire_max_frames = config.max_frames;
}

void overlay_jump_filter(const OstrelConfig& config, RuntimeConfig* runtime) {
  runtime->jump_filter_enabled = config.jump_filter_enabled;
  runtime->jump_min_score = config.jump_filter_min_score;
  runtime->jump_max_motion_factor = config.jump_filter_max_motion_factor;
  runtime->jump_max_scale_change = config.max_scale_change;
}

}  // namespace

RuntimeConfig buildTrackerRuntimeConfig(const OstrelConfig& config) {
  RuntimeConfig runtime = ostrel_tracker::tracking_runtime::parameter::atom::parameters();
  overlay_engine(config, &runtime);
  overlay_processing(config, &runtime);
  overlay_learning(config, &runtime);
  overlay_tracking(config, &runtime);
  overlay_scale(config, &runtime);
  overlay_reacquisition(config, &runtime);
  overlay_jump_filter(config, &runtime);
  return runtime;
}

}  // namespace ostrel_algo_internal
