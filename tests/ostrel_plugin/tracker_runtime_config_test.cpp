#include "ostrel_plugin/src/tracker_runtime_config.h"

#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "ostrel_plugin/config_members.h"
#include "support/config_text.h"

namespace {

using ostrel_algo_internal::buildTrackerRuntimeConfig;
using ostrel_test::config_text;
using ostrel_test::kConfigMembers;
using ostrel_test::NamedMember;

// The tracker's field that a setting reaches, empty for settings that stay in the plug-in.
const std::map<std::string, std::string> kReached = {
    {"engine/tracker_engine_path", "trt_engine_path"},
    {"engine/reference_trace_path", "reference_trace_path"},
    {"processing/frame_scale", ""},
    {"processing/search_area_factor", "search_area_factor"},
    {"processing/search_scales", "search_scales"},
    {"learning/update_iterations", "update_iterations"},
    {"learning/learning_rate", "learning_rate"},
    {"learning/filter_regularization", "filter_regularization"},
    {"learning/feature_projection_dim", "compressed_dim"},
    {"learning/frames_between_learning", "frames_between_learning"},
    {"learning/max_sample_history", "max_sample_history"},
    {"learning/max_hard_negative_history", "max_hard_negative_history"},
    {"learning/startup_filter_iterations", "startup_filter_iterations"},
    {"learning/startup_box_refinement_iterations", "startup_box_refinement_iterations"},
    {"tracking/target_not_found_score_threshold", "target_not_found_score_threshold"},
    {"tracking/position_smoothing", "position_smoothing"},
    {"tracking/micro_motion_deadband_px", "micro_motion_deadband_px"},
    {"tracking/micro_motion_deadband_ratio", "micro_motion_deadband_ratio"},
    {"tracking/min_update_confidence", "min_update_confidence"},
    {"tracking/min_update_scale_margin", "min_update_scale_margin"},
    {"scale/scale_smoothing", "scale_smoothing"},
    {"scale/scale_change_deadband", "scale_change_deadband"},
    {"scale/roi_scale_deadband_px", "roi_scale_deadband_px"},
    {"scale/roi_scale_deadband_ratio", "roi_scale_deadband_ratio"},
    {"scale/enable_scale_predictor", "enable_scale_predictor"},
    {"scale/scale_predictor_process_noise_scale", "scale_predictor_process_noise_scale"},
    {"scale/scale_predictor_process_noise_velocity", "scale_predictor_process_noise_velocity"},
    {"scale/scale_predictor_measurement_noise_scale", "scale_predictor_measurement_noise_scale"},
    {"scale/use_log_scale_peak_refinement", "use_log_scale_peak_refinement"},
    {"scale/min_ratio_from_initial_size", "min_ratio_from_initial_size"},
    {"scale/max_ratio_from_initial_size", "max_ratio_from_initial_size"},
    {"reacquisition/prefer_stable_reacquisition", "prefer_stable_reacquisition"},
    {"reacquisition/confirm_frames", "reacquire_confirm_frames"},
    {"reacquisition/min_score", "reacquire_min_score"},
    {"reacquisition/max_motion_factor", "reacquire_max_motion_factor"},
    {"reacquisition/max_frames", "reacquire_max_frames"},
    {"jump_filter/enabled", "jump_filter_enabled"},
    {"jump_filter/min_score", "jump_min_score"},
    {"jump_filter/max_motion_factor", "jump_max_motion_factor"},
    {"jump_filter/max_scale_change", "jump_max_scale_change"},
    {"preposition/enabled", ""},
    {"target/class_id", ""},
    {"target/tracker_id", ""},
    {"target/class_name", ""},
    {"publication/lost_after_low_score_frames", ""},
    {"publication/lost_score_threshold", ""},
    {"publication/publish_after_confirm_frames", ""},
    {"publication/dead_status_confirm_frames", ""},
    {"runtime/dead_timeout_s", ""},
    {"debug/enabled", ""},
    {"debug/log_every_n_frames", ""},
};

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

// The lines of `changed` that `original` lacks at that place.
std::vector<std::string> changed_lines(const std::string& original, const std::string& changed) {
  const std::vector<std::string> before = lines_of(original);
  const std::vector<std::string> after = lines_of(changed);
  EXPECT_EQ(before.size(), after.size());
  std::vector<std::string> lines;
  for (std::size_t i = 0; i < before.size(); ++i) {
    if (before[i] != after[i]) lines.push_back(after[i]);
  }
  return lines;
}

// Gives the member a value that no default has; returns that value as `config_text` shows it.
struct Change {
  OstrelConfig& config;
  std::string operator()(std::string OstrelConfig::*member) const {
    config.*member = "other";
    return "other";
  }
  std::string operator()(float OstrelConfig::*member) const {
    config.*member = 0.375F;
    return "0.375";
  }
  std::string operator()(std::int32_t OstrelConfig::*member) const {
    config.*member = 77;
    return "77";
  }
  std::string operator()(bool OstrelConfig::*member) const {
    config.*member = !(config.*member);
    return config.*member ? "true" : "false";
  }
  std::string operator()(std::vector<float> OstrelConfig::*member) const {
    config.*member = {0.5F, 2.0F};
    return "0.5 2";
  }
};

TEST(TrackerRuntimeConfig, CopiesEachSettingIntoItsFieldAlone) {
  const std::string original = config_text(buildTrackerRuntimeConfig(OstrelConfig()));
  ASSERT_EQ(kReached.size(), kConfigMembers.size());
  for (const NamedMember& setting : kConfigMembers) {
    const std::string path = setting.path;
    SCOPED_TRACE(path);
    OstrelConfig config;
    const std::string value = std::visit(Change{config}, setting.member);
    const std::vector<std::string> changed =
        changed_lines(original, config_text(buildTrackerRuntimeConfig(config)));
    const std::string& field = kReached.at(path);
    if (field.empty()) {
      EXPECT_TRUE(changed.empty());
    } else {
      EXPECT_EQ(changed, std::vector<std::string>{field + " " + value});
    }
  }
}

TEST(TrackerRuntimeConfig, StartsFromTheDefaultsOfTheSchema) {
  const auto runtime = buildTrackerRuntimeConfig(OstrelConfig());
  EXPECT_EQ(runtime.trt_engine_path, "models/IA_engine/tracker/resnet18_192_opt5.engine");
  EXPECT_EQ(runtime.runtime_backend, "cuda");
  EXPECT_EQ(runtime.search_area_factor, 7.0F);
  EXPECT_EQ(runtime.search_size, 192);
  EXPECT_EQ(runtime.search_scales, (std::vector<float>{0.950392F, 1.0F, 1.05F}));
  EXPECT_EQ(runtime.update_iterations, 45);
  EXPECT_EQ(runtime.hard_negative_iterations, 10);
  EXPECT_TRUE(runtime.enable_scale_predictor);
  EXPECT_EQ(runtime.position_smoothing, 0.88F);
}

TEST(TrackerRuntimeConfig, KeepsTheBuiltInEngineForAnEmptyPathButNotItsInputSize) {
  OstrelConfig config;
  config.tracker_engine_path.clear();
  const auto runtime = buildTrackerRuntimeConfig(config);
  EXPECT_EQ(runtime.trt_engine_path, "models/IA_engine/tracker/resnet18_288.engine");
  EXPECT_EQ(runtime.search_size, 192);
}

TEST(TrackerRuntimeConfig, KeepsTheBuiltInScalesForAnEmptyList) {
  OstrelConfig config;
  config.search_scales.clear();
  EXPECT_EQ(buildTrackerRuntimeConfig(config).search_scales, (std::vector<float>{0.9039F, 1.0F, 1.1F}));
}

}  // namespace
