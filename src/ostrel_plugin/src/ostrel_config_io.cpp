#include "ostrel_plugin/src/ostrel_config_io.h"

#include <exception>
#include <variant>

#include "ostrel_plugin/src/swcfg.h"

namespace ostrel_cfg {
namespace {

struct Text {
  std::string OstrelConfig::*member;
};

struct Flag {
  bool OstrelConfig::*member;
};

struct Number {
  float OstrelConfig::*member;
  double min;
  double max;
};

struct Count {
  std::int32_t OstrelConfig::*member;
  std::int32_t min;
  std::int32_t max;
};

struct Scales {
  std::vector<float> OstrelConfig::*member;
};

struct Setting {
  const char* path;
  std::variant<Text, Flag, Number, Count, Scales> target;
};

// In the order of the record and of the schema, which hold the same bounds.
// clang-format off
constexpr Setting kSettings[] = {
    {"engine/tracker_engine_path", Text{&OstrelConfig::tracker_engine_path}},
    {"engine/reference_trace_path", Text{&OstrelConfig::reference_trace_path}},
    {"processing/frame_scale", Number{&OstrelConfig::frame_scale, 0.4, 1.0}},
    {"processing/search_area_factor", Number{&OstrelConfig::search_area_factor, 2.0, 20.0}},
    {"processing/search_scales", Scales{&OstrelConfig::search_scales}},
    {"learning/update_iterations", Count{&OstrelConfig::update_iterations, 1, 100}},
    {"learning/learning_rate", Number{&OstrelConfig::learning_rate, 0.0, 1.0}},
    {"learning/filter_regularization", Number{&OstrelConfig::filter_regularization, 0.0, 10.0}},
    {"learning/feature_projection_dim", Count{&OstrelConfig::feature_projection_dim, 1, 256}},
    {"learning/frames_between_learning", Count{&OstrelConfig::frames_between_learning, 1, 200}},
    {"learning/max_sample_history", Count{&OstrelConfig::max_sample_history, 8, 250}},
    {"learning/max_hard_negative_history", Count{&OstrelConfig::max_hard_negative_history, 8, 250}},
    {"learning/startup_filter_iterations", Count{&OstrelConfig::startup_filter_iterations, 1, 500}},
    {"learning/startup_box_refinement_iterations", Count{&OstrelConfig::startup_box_refinement_iterations, 1, 50}},
    {"tracking/target_not_found_score_threshold", Number{&OstrelConfig::target_not_found_score_threshold, 0.0, 1.0}},
    {"tracking/position_smoothing", Number{&OstrelConfig::position_smoothing, 0.0, 1.0}},
    {"tracking/micro_motion_deadband_px", Number{&OstrelConfig::micro_motion_deadband_px, 0.0, 10.0}},
    {"tracking/micro_motion_deadband_ratio", Number{&OstrelConfig::micro_motion_deadband_ratio, 0.0, 0.1}},
    {"tracking/min_update_confidence", Number{&OstrelConfig::min_update_confidence, 0.0, 1.0}},
    {"tracking/min_update_scale_margin", Number{&OstrelConfig::min_update_scale_margin, 0.0, 1.0}},
    {"scale/scale_smoothing", Number{&OstrelConfig::scale_smoothing, 0.0, 1.0}},
    {"scale/scale_change_deadband", Number{&OstrelConfig::scale_change_deadband, 0.0, 0.2}},
    {"scale/roi_scale_deadband_px", Number{&OstrelConfig::roi_scale_deadband_px, 0.0, 50.0}},
    {"scale/roi_scale_deadband_ratio", Number{&OstrelConfig::roi_scale_deadband_ratio, 0.0, 0.2}},
    {"scale/enable_scale_predictor", Flag{&OstrelConfig::enable_scale_predictor}},
    {"scale/scale_predictor_process_noise_scale", Number{&OstrelConfig::scale_predictor_process_noise_scale, 0.0, 1.0}},
    {"scale/scale_predictor_process_noise_velocity", Number{&OstrelConfig::scale_predictor_process_noise_velocity, 0.0, 1.0}},
    {"scale/scale_predictor_measurement_noise_scale", Number{&OstrelConfig::scale_predictor_measurement_noise_scale, 0.0, 1.0}},
    {"scale/use_log_scale_peak_refinement", Flag{&OstrelConfig::use_log_scale_peak_refinement}},
    {"scale/min_ratio_from_initial_size", Number{&OstrelConfig::min_ratio_from_initial_size, 0.01, 100.0}},
    {"scale/max_ratio_from_initial_size", Number{&OstrelConfig::max_ratio_from_initial_size, 0.01, 100.0}},
    {"reacquisition/prefer_stable_reacquisition", Flag{&OstrelConfig::prefer_stable_reacquisition}},
    {"reacquisition/confirm_frames", Count{&OstrelConfig::confirm_frames, 1, 20}},
    {"reacquisition/min_score", Number{&OstrelConfig::reacquisition_min_score, 0.0, 1.0}},
    {"reacquisition/max_motion_factor", Number{&OstrelConfig::reacquisition_max_motion_factor, 0.5, 10.0}},
    {"reacquisition/max_frames", Count{&OstrelConfig::max_frames, 0, 600}},
    {"jump_filter/enabled", Flag{&OstrelConfig::jump_filter_enabled}},
    {"jump_filter/min_score", Number{&OstrelConfig::jump_filter_min_score, 0.0, 1.0}},
    {"jump_filter/max_motion_factor", Number{&OstrelConfig::jump_filter_max_motion_factor, 0.0, 5.0}},
    {"jump_filter/max_scale_change", Number{&OstrelConfig::max_scale_change, 0.0, 1.0}},
    {"preposition/enabled", Flag{&OstrelConfig::preposition_enabled}},
    {"target/class_id", Count{&OstrelConfig::class_id, -1, 65535}},
    {"target/tracker_id", Count{&OstrelConfig::tracker_id, -1, 65535}},
    {"target/class_name", Text{&OstrelConfig::class_name}},
    {"publication/lost_after_low_score_frames", Count{&OstrelConfig::lost_after_low_score_frames, 0, 10000}},
    {"publication/lost_score_threshold", Number{&OstrelConfig::lost_score_threshold, 0.0, 1.0}},
    {"publication/publish_after_confirm_frames", Count{&OstrelConfig::publish_after_confirm_frames, 0, 1000}},
    {"publication/dead_status_confirm_frames", Count{&OstrelConfig::dead_status_confirm_frames, 0, 1000}},
    {"runtime/dead_timeout_s", Number{&OstrelConfig::dead_timeout_s, 0.0, 300.0}},
    {"debug/enabled", Flag{&OstrelConfig::debug_enabled}},
    {"debug/log_every_n_frames", Count{&OstrelConfig::log_every_n_frames, 1, 10000}},
};
// clang-format on

template <typename T>
bool replace_if_other(T& member, const T& value) {
  if (member == value) return false;
  member = value;
  return true;
}

// A Double beyond the range of a float becomes an infinity.
bool to_scale(const SwJsonValue& value, float* scale) {
  switch (value.kind) {
    case SwJsonValue::Kind::Integer:
      *scale = static_cast<float>(value.int_value);
      return true;
    case SwJsonValue::Kind::Double:
      *scale = static_cast<float>(value.double_value);
      return true;
    case SwJsonValue::Kind::String:
      try {
        *scale = std::stof(value.string_value);
      } catch (const std::exception&) {
        return false;
      }
      return true;
    default:
      return false;
  }
}

// One element that is no number spoils the whole list, and so does a list without elements.
bool read_scales(const SwJsonDocument& document, const char* path, std::vector<float>* scales) {
  SwJsonValue value;
  if (!swcfg::getValue(document, path, value)) return false;
  if (value.kind != SwJsonValue::Kind::Array || value.array_value == nullptr) return false;
  for (const SwJsonValue& element : value.array_value->elements) {
    float scale = 0.0F;
    if (!to_scale(element, &scale)) return false;
    scales->push_back(scale);
  }
  return !scales->empty();
}

// Reads one setting and tells whether its member changed.
struct Assign {
  const SwJsonDocument& document;
  const char* path;
  OstrelConfig& config;

  bool operator()(const Text& text) const {
    std::string value = config.*text.member;
    return swcfg::assignString(document, path, value) && replace_if_other(config.*text.member, value);
  }
  bool operator()(const Flag& flag) const {
    bool value = config.*flag.member;
    return swcfg::assignBool(document, path, value) && replace_if_other(config.*flag.member, value);
  }
  // Compared as floats: a document that repeats the present value in decimals changes nothing.
  bool operator()(const Number& number) const {
    double value = static_cast<double>(config.*number.member);
    return swcfg::assignDouble(document, path, value, number.min, number.max) &&
           replace_if_other(config.*number.member, static_cast<float>(value));
  }
  bool operator()(const Count& count) const {
    std::int32_t value = config.*count.member;
    return swcfg::assignInt(document, path, value, count.min, count.max) &&
           replace_if_other(config.*count.member, value);
  }
  bool operator()(const Scales& scales) const {
    std::vector<float> value;
    return read_scales(document, path, &value) && replace_if_other(config.*scales.member, value);
  }
};

}  // namespace

bool apply(const SwJsonDocument& document, OstrelConfig& config) {
  bool changed = false;
  for (const Setting& setting : kSettings) {
    changed = std::visit(Assign{document, setting.path, config}, setting.target) || changed;
  }
  return changed;
}

}  // namespace ostrel_cfg
