#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "ostrel_plugin/src/ostrel_config.h"

/// Every setting of the plug-in, in order, with its type, bounds and default in the digits of the schema text.

namespace ostrel_test {

using ConfigMember =
    std::variant<std::string OstrelConfig::*, float OstrelConfig::*, std::int32_t OstrelConfig::*,
                 bool OstrelConfig::*, std::vector<float> OstrelConfig::*>;

struct ConfigSetting {
  const char* group;
  const char* key;
  const char* type;
  const char* minimum;  ///< empty where there is no range
  const char* maximum;
  const char* default_text;
  ConfigMember member;
};

// clang-format off
inline const std::array<ConfigSetting, 51> kConfigSettings = {{
    {"engine", "tracker_engine_path", "string", "", "", "\"models/IA_engine/tracker/resnet18_192_opt5.engine\"", &OstrelConfig::tracker_engine_path},
    {"engine", "reference_trace_path", "string", "", "", "\"\"", &OstrelConfig::reference_trace_path},
    {"processing", "frame_scale", "number", "0.4", "1.0", "1.0", &OstrelConfig::frame_scale},
    {"processing", "search_area_factor", "number", "2.0", "20.0", "7.0", &OstrelConfig::search_area_factor},
    {"processing", "search_scales", "array", "", "", "[0.950392, 1.0, 1.05]", &OstrelConfig::search_scales},
    {"learning", "update_iterations", "integer", "1", "100", "45", &OstrelConfig::update_iterations},
    {"learning", "learning_rate", "number", "0.0", "1.0", "0.04", &OstrelConfig::learning_rate},
    {"learning", "filter_regularization", "number", "0.0", "10.0", "3.0", &OstrelConfig::filter_regularization},
    {"learning", "feature_projection_dim", "integer", "1", "256", "256", &OstrelConfig::feature_projection_dim},
    {"learning", "frames_between_learning", "integer", "1", "200", "4", &OstrelConfig::frames_between_learning},
    {"learning", "max_sample_history", "integer", "8", "250", "10", &OstrelConfig::max_sample_history},
    {"learning", "max_hard_negative_history", "integer", "8", "250", "128", &OstrelConfig::max_hard_negative_history},
    {"learning", "startup_filter_iterations", "integer", "1", "500", "60", &OstrelConfig::startup_filter_iterations},
    {"learning", "startup_box_refinement_iterations", "integer", "1", "50", "20", &OstrelConfig::startup_box_refinement_iterations},
    {"tracking", "target_not_found_score_threshold", "number", "0.0", "1.0", "0.1", &OstrelConfig::target_not_found_score_threshold},
    {"tracking", "position_smoothing", "number", "0.0", "1.0", "0.88", &OstrelConfig::position_smoothing},
    {"tracking", "micro_motion_deadband_px", "number", "0.0", "10.0", "0.75", &OstrelConfig::micro_motion_deadband_px},
    {"tracking", "micro_motion_deadband_ratio", "number", "0.0", "0.1", "0.004", &OstrelConfig::micro_motion_deadband_ratio},
    {"tracking", "min_update_confidence", "number", "0.0", "1.0", "0.75", &OstrelConfig::min_update_confidence},
    {"tracking", "min_update_scale_margin", "number", "0.0", "1.0", "0.02", &OstrelConfig::min_update_scale_margin},
    {"scale", "scale_smoothing", "number", "0.0", "1.0", "1.0", &OstrelConfig::scale_smoothing},
    {"scale", "scale_change_deadband", "number", "0.0", "0.2", "0.01", &OstrelConfig::scale_change_deadband},
    {"scale", "roi_scale_deadband_px", "number", "0.0", "50.0", "1.5", &OstrelConfig::roi_scale_deadband_px},
    {"scale", "roi_scale_deadband_ratio", "number", "0.0", "0.2", "0.015", &OstrelConfig::roi_scale_deadband_ratio},
    {"scale", "enable_scale_predictor", "boolean", "", "", "true", &OstrelConfig::enable_scale_predictor},
    {"scale", "scale_predictor_process_noise_scale", "number", "0.0", "1.0", "0.0002", &OstrelConfig::scale_predictor_process_noise_scale},
    {"scale", "scale_predictor_process_noise_velocity", "number", "0.0", "1.0", "0.00005", &OstrelConfig::scale_predictor_process_noise_velocity},
    {"scale", "scale_predictor_measurement_noise_scale", "number", "0.0", "1.0", "0.03", &OstrelConfig::scale_predictor_measurement_noise_scale},
    {"scale", "use_log_scale_peak_refinement", "boolean", "", "", "true", &OstrelConfig::use_log_scale_peak_refinement},
    {"scale", "min_ratio_from_initial_size", "number", "0.01", "100.0", "0.4", &OstrelConfig::min_ratio_from_initial_size},
    {"scale", "max_ratio_from_initial_size", "number", "0.01", "100.0", "2.5", &OstrelConfig::max_ratio_from_initial_size},
    {"reacquisition", "prefer_stable_reacquisition", "boolean", "", "", "true", &OstrelConfig::prefer_stable_reacquisition},
    {"reacquisition", "confirm_frames", "integer", "1", "20", "1", &OstrelConfig::confirm_frames},
    {"reacquisition", "min_score", "number", "0.0", "1.0", "0.80", &OstrelConfig::reacquisition_min_score},
    {"reacquisition", "max_motion_factor", "number", "0.5", "10.0", "4.0", &OstrelConfig::reacquisition_max_motion_factor},
    {"reacquisition", "max_frames", "integer", "0", "600", "200", &OstrelConfig::max_frames},
    {"jump_filter", "enabled", "boolean", "", "", "true", &OstrelConfig::jump_filter_enabled},
    {"jump_filter", "min_score", "number", "0.0", "1.0", "0.7", &OstrelConfig::jump_filter_min_score},
    {"jump_filter", "max_motion_factor", "number", "0.0", "5.0", "0.25", &OstrelConfig::jump_filter_max_motion_factor},
    {"jump_filter", "max_scale_change", "number", "0.0", "1.0", "0.06", &OstrelConfig::max_scale_change},
    {"preposition", "enabled", "boolean", "", "", "false", &OstrelConfig::preposition_enabled},
    {"target", "class_id", "integer", "-1", "65535", "-1", &OstrelConfig::class_id},
    {"target", "tracker_id", "integer", "-1", "65535", "0", &OstrelConfig::tracker_id},
    {"target", "class_name", "string", "", "", "\"OstrelTracking\"", &OstrelConfig::class_name},
    {"publication", "lost_after_low_score_frames", "integer", "0", "10000", "10", &OstrelConfig::lost_after_low_score_frames},
    {"publication", "lost_score_threshold", "number", "0.0", "1.0", "0.7", &OstrelConfig::lost_score_threshold},
    {"publication", "publish_after_confirm_frames", "integer", "0", "1000", "5", &OstrelConfig::publish_after_confirm_frames},
    {"publication", "dead_status_confirm_frames", "integer", "0", "1000", "5", &OstrelConfig::dead_status_confirm_frames},
    {"runtime", "dead_timeout_s", "number", "0.0", "300.0", "10.0", &OstrelConfig::dead_timeout_s},
    {"debug", "enabled", "boolean", "", "", "false", &OstrelConfig::debug_enabled},
    {"debug", "log_every_n_frames", "integer", "1", "10000", "5", &OstrelConfig::log_every_n_frames},
}};
// clang-format on

}  // namespace ostrel_test
