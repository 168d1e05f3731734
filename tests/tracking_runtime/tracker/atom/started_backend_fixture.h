#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "support/config_text.h"
#include "support/temporary_folder.h"
#include "tracking_runtime/tracker/atom/training_fixture.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

inline constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
inline constexpr float kInfinity = std::numeric_limits<float>::infinity();

/// Every member of the state, so that two are the same where their texts are.
inline std::string state_text(const TargetState& state) {
  std::ostringstream text;
  text.precision(std::numeric_limits<float>::max_digits10);
  text << ostrel_test::config_text(state.config) << state.initialized << ' ' << state.runtime_initialized
       << ' ' << state.frame_index << ' ' << state.image_size << ' ' << state.target_pos << ' '
       << state.target_size << ' ' << state.base_target_size << ' ' << state.target_scale << ' '
       << state.initial_target_scale << ' ' << state.scale_kalman_seeded << ' ' << state.scale_log << ' '
       << state.scale_log_velocity << ' ' << state.scale_p00 << ' ' << state.scale_p01 << ' '
       << state.scale_p10 << ' ' << state.scale_p11 << ' ' << state.min_target_scale << ' '
       << state.max_target_scale << ' ' << state.recovery_active << ' ' << state.recovery_confirm_count << ' '
       << state.recovery_frame_count;
  return text.str();
}

/// A backend that believes it was started; no engine stands behind it.
class StartedBackend : public TrainingFixture {
 protected:
  // As a start leaves it: a target of 10 x 10 at scale 1 in a frame of 100 x 80.
  void pretend_started() {
    state().initialized = true;
    state().runtime_initialized = true;
    state().image_size = {100, 80};
    state().base_target_size = {10.0F, 10.0F};
    state().target_size = {10.0F, 10.0F};
    state().target_pos = {50.0F, 40.0F};
    state().max_target_scale = 8.0F;
  }
  TargetState& state() { return Access::state(*backend_); }

  std::string path(const std::string& name) const { return folder_.path(name); }
  static std::vector<std::string> lines_of(const std::string& path) {
    std::ifstream file(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) lines.push_back(line);
    return lines;
  }

  base::BBox bbox_{-1.0F, -1.0F, -1.0F, -1.0F};
  std::string status_ = "untouched";

 private:
  ostrel_test::TemporaryFolder folder_;
};

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
