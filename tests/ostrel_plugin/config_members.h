#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "ostrel_plugin/src/ostrel_config.h"

namespace ostrel_test {

using ConfigMember =
    std::variant<std::string OstrelConfig::*, float OstrelConfig::*, std::int32_t OstrelConfig::*,
                 bool OstrelConfig::*, std::vector<float> OstrelConfig::*>;

struct NamedMember {
  const char* path;
  ConfigMember member;
};

/// Whether two records agree in a member.
struct SameMember {
  const OstrelConfig& left;
  const OstrelConfig& right;
  template <typename T>
  bool operator()(T OstrelConfig::*member) const {
    return left.*member == right.*member;
  }
};

/// Which member of the record a path means. Types, bounds, defaults and order come from the schema text.
// clang-format off
inline const std::array<NamedMember, 51> kConfigMembers = {{
    {"engine/tracker_engine_path", &OstrelConfig::tracker_engine_path},
    {"engine/reference_trace_path", &OstrelConfig::reference_trace_path},
    {"processing/frame_scale", &OstrelConfig::frame_scale},
    {"processing/search_area_factor", &OstrelConfig::search_area_factor},
    {"processing/search_scales", &OstrelConfig::search_scales},
    {"learning/update_iterations", &OstrelConfig::update_iterations},
    {"learning/learning_rate", &OstrelConfig::learning_rate},
    {"learning/filter_regularization", &OstrelConfig::filter_regularization},
    {"learning/feature_projection_dim", &OstrelConfig::feature_projection_dim},
    {"learning/frames_between_learning", &OstrelConfig::frames_between_learning},
    {"learning/max_sample_history", &OstrelConfig::max_sample_history},
    {"learning/max_hard_negative_history", &OstrelConfig::max_hard_negative_history},
    {"learning/startup_filter_iterations", &OstrelConfig::startup_filter_iterations},
    {"learning/startup_box_refinement_iterations", &OstrelConfig::startup_box_refinement_iterations},
    {"tracking/target_not_found_score_threshold", &OstrelConfig::target_not_found_score_threshold},
    {"tracking/position_smoothing", &OstrelConfig::position_smoothing},
    {"tracking/micro_motion_deadband_px", &OstrelConfig::micro_motion_deadband_px},
    {"tracking/micro_motion_deadband_ratio", &OstrelConfig::micro_motion_deadband_ratio},
    {"tracking/min_update_confidence", &OstrelConfig::min_update_confidence},
    {"tracking/min_update_scale_margin", &OstrelConfig::min_update_scale_margin},
    {"scale/scale_smoothing", &OstrelConfig::scale_smoothing},
    {"scale/scale_change_deadband", &OstrelConfig::scale_change_deadband},
    {"scale/roi_scale_deadband_px", &OstrelConfig::roi_scale_deadband_px},
    {"scale/roi_scale_deadband_ratio", &OstrelConfig::roi_scale_deadband_ratio},
    {"scale/enable_scale_predictor", &OstrelConfig::enable_scale_predictor},
    {"scale/scale_predictor_process_noise_scale", &OstrelConfig::scale_predictor_process_noise_scale},
    {"scale/scale_predictor_process_noise_velocity", &OstrelConfig::scale_predictor_process_noise_velocity},
    {"scale/scale_predictor_measurement_noise_scale", &OstrelConfig::scale_predictor_measurement_noise_scale},
    {"scale/use_log_scale_peak_refinement", &OstrelConfig::use_log_scale_peak_refinement},
    {"scale/min_ratio_from_initial_size", &OstrelConfig::min_ratio_from_initial_size},
    {"scale/max_ratio_from_initial_size", &OstrelConfig::max_ratio_from_initial_size},
    {"reacquisition/prefer_stable_reacquisition", &OstrelConfig::prefer_stable_reacquisition},
    {"reacquisition/confirm_frames", &OstrelConfig::confirm_frames},
    {"reacquisition/min_score", &OstrelConfig::reacquisition_min_score},
    {"reacquisition/max_motion_factor", &OstrelConfig::reacquisition_max_motion_factor},
    {"reacquisition/max_frames", &OstrelConfig::max_frames},
    {"jump_filter/enabled", &OstrelConfig::jump_filter_enabled},
    {"jump_filter/min_score", &OstrelConfig::jump_filter_min_score},
    {"jump_filter/max_motion_factor", &OstrelConfig::jump_filter_max_motion_factor},
    {"jump_filter/max_scale_change", &OstrelConfig::max_scale_change},
    {"preposition/enabled", &OstrelConfig::preposition_enabled},
    {"target/class_id", &OstrelConfig::class_id},
    {"target/tracker_id", &OstrelConfig::tracker_id},
    {"target/class_name", &OstrelConfig::class_name},
    {"publication/lost_after_low_score_frames", &OstrelConfig::lost_after_low_score_frames},
    {"publication/lost_score_threshold", &OstrelConfig::lost_score_threshold},
    {"publication/publish_after_confirm_frames", &OstrelConfig::publish_after_confirm_frames},
    {"publication/dead_status_confirm_frames", &OstrelConfig::dead_status_confirm_frames},
    {"runtime/dead_timeout_s", &OstrelConfig::dead_timeout_s},
    {"debug/enabled", &OstrelConfig::debug_enabled},
    {"debug/log_every_n_frames", &OstrelConfig::log_every_n_frames},
}};
// clang-format on

}  // namespace ostrel_test
