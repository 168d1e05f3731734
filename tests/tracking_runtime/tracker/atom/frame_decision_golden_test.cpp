// Scripted low-resolution responses in, decisions out, over configurations that together reach every word.

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <utility>

#include "ostrel_plugin/src/ostrel_config.h"
#include "ostrel_plugin/src/tracker_runtime_config.h"
#include "support/golden.h"
#include "tracking_runtime/tracker/atom/frame_decision.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

using Config = NativeCppBackend::Config;
using Setter = std::function<void(Config*, const ostrel_test::GoldenCase&, const std::string&)>;

Setter set(float Config::*member) {
  return [member](Config* config, const ostrel_test::GoldenCase& golden, const std::string& name) {
    config->*member = golden.f32(name);
  };
}
Setter set(int Config::*member) {
  return [member](Config* config, const ostrel_test::GoldenCase& golden, const std::string& name) {
    config->*member = golden.i32(name);
  };
}
Setter set(bool Config::*member) {
  return [member](Config* config, const ostrel_test::GoldenCase& golden, const std::string& name) {
    config->*member = golden.boolean(name);
  };
}

void set_search_scales(Config* config, const ostrel_test::GoldenCase& golden, const std::string& name) {
  config->search_scales.clear();
  std::istringstream words(golden.text(name));
  for (std::string word; std::getline(words, word, ',');) config->search_scales.push_back(std::stof(word));
}

Config config_of(const ostrel_test::GoldenCase& golden) {
  Config config = ostrel_algo_internal::buildTrackerRuntimeConfig(OstrelConfig());
  const std::map<std::string, Setter> setters{
      {"jump_filter_enabled", set(&Config::jump_filter_enabled)},
      {"prefer_stable_reacquisition", set(&Config::prefer_stable_reacquisition)},
      {"min_update_confidence", set(&Config::min_update_confidence)},
      {"min_update_scale_margin", set(&Config::min_update_scale_margin)},
      {"reacquire_confirm_frames", set(&Config::reacquire_confirm_frames)},
      {"reacquire_max_frames", set(&Config::reacquire_max_frames)},
      {"reacquire_min_score", set(&Config::reacquire_min_score)},
      {"enable_hard_negative_analysis", set(&Config::enable_hard_negative_analysis)},
      {"use_soft_argmax", set(&Config::use_soft_argmax)},
      {"position_smoothing", set(&Config::position_smoothing)},
      {"enable_online_update", set(&Config::enable_online_update)},
      {"frames_between_learning", set(&Config::frames_between_learning)},
      {"scale_smoothing", set(&Config::scale_smoothing)},
      {"enable_scale_predictor", set(&Config::enable_scale_predictor)},
      {"scale_update_on_uncertain", set(&Config::scale_update_on_uncertain)},
      {"target_not_found_score_threshold", set(&Config::target_not_found_score_threshold)},
      {"use_log_scale_peak_refinement", set(&Config::use_log_scale_peak_refinement)},
      {"search_scales", set_search_scales}};
  for (const auto& [name, setter] : setters) {
    if (golden.has(name)) setter(&config, golden, name);
  }
  return config;
}

TargetState start_state(const ostrel_test::GoldenCase& golden) {
  TargetState state(config_of(golden));
  state.image_size = {golden.i32("image_width"), golden.i32("image_height")};
  const cv::Rect_<int> box{golden.i32("x"), golden.i32("y"), golden.i32("w"), golden.i32("h")};
  state.place_at_start_(box);
  state.derive_scale_at_start_(box);
  return state;
}

/// The candidates of one frame; a response of NaN stands for none.
std::vector<Candidate> candidates_of(const ostrel_test::GoldenArray& responses, std::size_t frame,
                                     const TargetState& state) {
  std::vector<Candidate> candidates;
  const int rows = static_cast<int>(responses.shape[2]);
  const int cols = static_cast<int>(responses.shape[3]);
  const std::size_t plane = responses.shape[2] * responses.shape[3];
  std::size_t kept = 0;
  for (const float scale : sorted_search_scales(state.config.search_scales)) {
    if (!(scale > 0.0F)) continue;
    cv::Mat response(rows, cols, CV_32F);
    const std::size_t offset = (frame * responses.shape[1] + kept) * plane;
    for (std::size_t i = 0; i < plane; ++i) {
      response.ptr<float>()[i] = static_cast<float>(responses.values[offset + i]);
    }
    if (std::isnan(response.at<float>(0, 0))) response.release();
    std::optional<Candidate> candidate =
        make_candidate(response, scale, state.target_scale, 4, 4, state.config.search_size);
    if (candidate) {
      candidate->index = static_cast<int>(kept);
      candidate->feature = FeatureMap{1, 1, 1, 1, {0.0F}};
      candidates.push_back(std::move(*candidate));
    }
    ++kept;
  }
  return candidates;
}

std::vector<double> ints_of(const FrameDecision& decision, const TargetState& state) {
  const TrainingRequest training = decision.training.value_or(TrainingRequest{});
  return {decision.ok ? 1.0 : 0.0,
          static_cast<double>(decision.flag),
          static_cast<double>(decision.best),
          decision.accepted ? 1.0 : 0.0,
          decision.store ? 1.0 : 0.0,
          static_cast<double>(training.iterations),
          static_cast<double>(training.sample_cap),
          state.recovery_active ? 1.0 : 0.0,
          static_cast<double>(state.recovery_confirm_count),
          static_cast<double>(state.recovery_frame_count)};
}

std::vector<double> floats_of(const FrameDecision& decision, const TargetState& state) {
  const float nan = std::nanf("");
  const base::BBox box = decision.bbox.value_or(base::BBox{nan, nan, nan, nan});
  const std::vector<float> values{decision.score,
                                  decision.raw,
                                  decision.max2,
                                  decision.best_scale,
                                  decision.scale_margin,
                                  decision.mx,
                                  decision.my,
                                  decision.motion,
                                  decision.rel_change,
                                  box.x,
                                  box.y,
                                  box.width,
                                  box.height,
                                  state.target_pos.x,
                                  state.target_pos.y,
                                  state.target_size.width,
                                  state.target_size.height,
                                  state.target_scale,
                                  state.scale_log,
                                  state.scale_log_velocity,
                                  decision.rate,
                                  decision.sample_pos.x,
                                  decision.sample_pos.y,
                                  decision.sample_scale};
  return std::vector<double>(values.begin(), values.end());
}

/// The frames of a case that the given columns of an output describe.
ostrel_test::GoldenArray row_of(const ostrel_test::GoldenArray& array, std::size_t frame) {
  ostrel_test::GoldenArray row = array;
  const std::size_t width = array.shape[1];
  row.shape = {width};
  row.values.assign(array.values.begin() + static_cast<std::ptrdiff_t>(frame * width),
                    array.values.begin() + static_cast<std::ptrdiff_t>((frame + 1) * width));
  return row;
}

class FrameDecisionGolden : public ::testing::TestWithParam<std::string> {};

TEST_P(FrameDecisionGolden, DecidesEveryFrameOfTheScript) {
  const ostrel_test::GoldenCase golden = ostrel_test::load_golden_case("frame_decision", GetParam());
  const ostrel_test::GoldenArray& responses = golden.input("responses");
  TargetState state = start_state(golden);
  for (std::size_t frame = 0; frame < responses.shape[0]; ++frame) {
    SCOPED_TRACE("frame " + std::to_string(frame + 1));
    std::vector<Candidate> candidates = candidates_of(responses, frame, state);
    const FrameDecision decision =
        decide_frame(&state, &candidates, golden.boolean("view") ? kViewPath : kHostImagePath);
    EXPECT_EQ(decision.status, golden.lines("status")[frame]);
    EXPECT_TRUE(ostrel_test::matches_golden(row_of(golden.output("ints"), frame), ints_of(decision, state)));
    EXPECT_TRUE(
        ostrel_test::matches_golden(row_of(golden.output("floats"), frame), floats_of(decision, state)));
  }
}

INSTANTIATE_TEST_SUITE_P(Scripts, FrameDecisionGolden,
                         ::testing::Values("default_view", "default_host", "jump_off", "jump_off_unstable",
                                           "jump_off_unstable_view", "confirm3_timeout4", "no_analysis",
                                           "no_online", "smoothing", "builtin_high_threshold",
                                           "single_scale"),
                         [](const auto& script) { return script.param; });

}  // namespace
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
