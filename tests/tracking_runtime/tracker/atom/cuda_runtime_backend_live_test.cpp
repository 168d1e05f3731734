// Settings changed under a tracker that runs: what takes effect when, and what wants a new start.

#include <algorithm>
#include <cstdlib>

#include "tracking_runtime/tracker/atom/atom.h"
#include "tracking_runtime/tracker/atom/square_patch.h"
#include "tracking_runtime/tracker/atom/track_fixture.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace track_test {
namespace {

class LiveChange : public BackendTracking {
 protected:
  Config& settings() { return wanted_; }
  /// Hands the settings over; the status that answers.
  std::string change() {
    std::string status;
    EXPECT_TRUE(tracked_.backend.updateConfig(&wanted_, &status));
    return status;
  }
  Answer view_of(cv::Point_<int> corner) { return tracked_.view(picture(scene(corner))); }
  Answer view() { return view_of(Tracked::start); }
  TargetState& state() { return Access::state(tracked_.backend); }
  SampleMemory& memory() { return Access::memory(tracked_.backend); }
  int filter_side() { return Access::weights(tracked_.backend).filter_height; }

  Config wanted_ = tiny_config();
  Tracked tracked_{wanted_};
};

TEST_F(LiveChange, ToMoreScalesThanAtTheStartFailsEveryViewUntilTheyAreFewerAgain) {
  settings().search_scales = {0.9F, 0.95F, 1.0F, 1.05F};
  EXPECT_EQ(change(), "config_updated");
  for (int frame = 0; frame < 3; ++frame) {
    const Answer answer = view();
    EXPECT_FALSE(answer.ok);
    EXPECT_EQ(answer.status, "TensorBatch exceeds TensorRT batch capacity");
    EXPECT_EQ(answer.score, -1.0F);
  }
  EXPECT_EQ(state().frame_index, 0);
  // A host image has its patches classified one by one.
  EXPECT_EQ(tracked_.image(scene(Tracked::start)).status, "ok_native_cpp_backend");
  settings().search_scales = {0.95F, 1.0F, 1.05F};
  EXPECT_EQ(change(), "config_updated");
  EXPECT_EQ(view().status, "ok");
}

TEST_F(LiveChange, ToFewerScalesHoldsFromTheNextFrame) {
  for (const std::vector<float>& scales : {std::vector<float>{1.0F}, {1.0F, 1.05F}, {}}) {
    settings().search_scales = scales;
    EXPECT_EQ(change(), "config_updated");
    EXPECT_EQ(view().status, "ok");
    const auto frame = picture(scene(Tracked::start));
    host_cuda::reset_counters();
    EXPECT_EQ(tracked_.view(frame).status, "ok");
    // The responses once, and each projected sample once; without any scale there is the scale 1.
    const auto expected = std::max<std::size_t>(scales.size(), 1) + 1;
    EXPECT_EQ(host_cuda::counters().synchronisations, static_cast<std::int64_t>(expected));
  }
}

TEST_F(LiveChange, OfTheSearchAreaCutsOtherPatchesAndLeavesTheScaleThatMeasuresThem) {
  const auto patch_side_px = [&] {
    return static_cast<float>(patch_square(state().target_pos, state().target_size.width,
                                           state().target_size.height, state().config.search_area_factor)
                                  ->side);
  };
  const float scale = state().target_scale;
  const auto believed_px = static_cast<float>(state().config.search_size) * scale;
  EXPECT_NEAR(patch_side_px(), believed_px, 1.0F);
  settings().search_area_factor = 8.0F;
  EXPECT_EQ(change(), "config_updated");
  EXPECT_EQ(state().target_scale, scale);
  EXPECT_NEAR(patch_side_px(), 2.0F * believed_px, 1.0F);
  EXPECT_TRUE(view().ok);  // and nothing says so: displacements read as half of what they are
}

TEST_F(LiveChange, OfTheFilterSizeKeepsTheRunningFilterAndMovesTheLabels) {
  const FeatureMap feature{1, 8, 8, 8, std::vector<float>(8 * 8 * 8, 1.0F)};
  const auto centre_of_label = [&] {
    const LabelMap label = Access::label_at_target(tracked_.backend, feature);
    float mass = 0.0F;
    float moment = 0.0F;
    for (std::size_t i = 0; i < label.data.size(); ++i) {
      mass += label.data[i];
      moment += label.data[i] * static_cast<float>(i % 8);
    }
    return moment / mass;
  };
  ASSERT_EQ(filter_side(), 4);
  EXPECT_NEAR(centre_of_label(), 4.0F, 0.05F);
  settings().filter_size = 5;
  EXPECT_EQ(change(), "config_updated");
  EXPECT_EQ(filter_side(), 4);
  EXPECT_NEAR(centre_of_label(), 3.5F, 0.05F);  // half a cell beside what the filter learned
  EXPECT_EQ(view().status, "ok");
  EXPECT_EQ(filter_side(), 4);
  EXPECT_EQ(Access::weights(tracked_.backend).filter_width, 4);
}

TEST_F(LiveChange, OfTheMemorySizeRebuildsTheMemoryAroundTheNextSample) {
  ASSERT_GT(memory().num_init_samples, 1);
  settings().sample_memory_size = 12;
  EXPECT_EQ(change(), "config_updated");
  EXPECT_EQ(memory().sample_weights.size(), 20U);  // until a sample comes
  EXPECT_EQ(view().status, "ok");
  EXPECT_EQ(memory().sample_weights.size(), 12U);
  EXPECT_EQ(memory().num_stored_samples, 1);
  EXPECT_EQ(memory().num_init_samples, 1);
  EXPECT_EQ(memory().sample_weights.front(), 1.0F);
  EXPECT_EQ(memory().previous_replace_index, -1);
  EXPECT_EQ(view().status, "ok");
  EXPECT_EQ(memory().num_stored_samples, 2);
}

TEST_F(LiveChange, OfLearningHoldsAtTheNextTraining) {
  settings().frames_between_learning = 1;
  settings().update_iterations = 3;
  settings().max_sample_history = 2;
  settings().learning_rate = 0.5F;
  EXPECT_EQ(change(), "config_updated");
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(view().status, "ok");
  settings().update_iterations = 4;
  settings().max_sample_history = 5;
  EXPECT_EQ(change(), "config_updated");  // awaits the first training
  EXPECT_FALSE(Access::training_in_flight(tracked_.backend));
  EXPECT_EQ(view().status, "ok");
  EXPECT_EQ(change(), "config_updated");
  const std::string lines = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(lines.find("job=1 frame=1 reason=periodic schedule iter=3 "), std::string::npos) << lines;
  EXPECT_NE(lines.find("selected=2 cap=2\n"), std::string::npos) << lines;
  EXPECT_NE(lines.find("job=2 frame=2 reason=periodic schedule iter=4 "), std::string::npos) << lines;
  EXPECT_NE(lines.find("selected=5 cap=5\n"), std::string::npos) << lines;
}

TEST_F(LiveChange, OfThresholdsHoldsAtTheNextFrame) {
  EXPECT_EQ(view().status, "ok");
  settings().target_not_found_score_threshold = kNever;
  EXPECT_EQ(change(), "config_updated");
  EXPECT_EQ(view().status, "ok_low_confidence_hold");
  settings().target_not_found_score_threshold = -kNever;
  settings().jump_filter_enabled = true;
  settings().jump_min_score = 1.0F;
  settings().jump_max_motion_factor = 100.0F;
  settings().jump_max_scale_change = 100.0F;
  EXPECT_EQ(change(), "config_updated");
  EXPECT_EQ(view().status, "ok_low_confidence_freeze_hold");
  settings().jump_filter_enabled = false;
  settings().prefer_stable_reacquisition = true;
  EXPECT_EQ(change(), "config_updated");
  EXPECT_EQ(view().status, "ok");  // preferred now, and not active
}

TEST_F(LiveChange, OfTheProjectionIsRefusedAndTheTrackerGoesOn) {
  settings().compressed_dim = 4;
  settings().min_update_confidence = 0.25F;
  EXPECT_EQ(change(), "compressed_dim requires reinit");
  EXPECT_EQ(settings().compressed_dim, 8);
  EXPECT_EQ(state().config.compressed_dim, 8);
  EXPECT_EQ(state().config.min_update_confidence, 0.25F);
  EXPECT_EQ(view().status, "ok");
}

TEST_F(LiveChange, FollowsATeleportOrAZoomWithTheNewLimits) {
  settings().max_ratio_from_initial_size = 1.5F;
  settings().prefer_stable_reacquisition = true;
  EXPECT_EQ(change(), "config_updated");
  const float start_scale = state().initial_target_scale;
  EXPECT_TRUE(tracked_.backend.teleport({20.0F, 20.0F, 96.0F, 96.0F}, nullptr, nullptr));
  EXPECT_FLOAT_EQ(state().target_scale, 1.5F * start_scale);
  EXPECT_TRUE(state().recovery_active);
}

// The engine of the environment stands in for the configured one at the start only.
class EngineOfTheEnvironment : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* before = std::getenv(kVariable);
    if (before != nullptr) before_ = before;
    ::setenv(kVariable, tiny_engine().c_str(), 1);
  }
  void TearDown() override {
    ::unsetenv(kVariable);
    if (!before_.empty()) ::setenv(kVariable, before_.c_str(), 1);
  }

  static constexpr const char* kVariable = "OSTREL_TRACKER_ATOM_TRT_ENGINE";

 private:
  std::string before_;
};

TEST_F(EngineOfTheEnvironment, IsNotedAsAChangeByEachUpdate) {
  Config config = tiny_config();
  config.trt_engine_path = "models/configured.engine";
  ATOM atom(config);
  const cv::Mat frame = scene(Tracked::start);
  const AtomInitResult started = atom.initialize(
      frame,
      {static_cast<float>(Tracked::start.x), static_cast<float>(Tracked::start.y), kTargetSide, kTargetSide});
  ASSERT_TRUE(started.ok) << started.message;
  for (const float rate : {0.25F, 0.5F, 0.5F}) {
    config.learning_rate = rate;
    std::string status;
    EXPECT_TRUE(atom.updateConfig(config, &status));
    EXPECT_EQ(status, "trt_engine_path requires reinit");
  }
  config.compressed_dim = 4;
  std::string status;
  EXPECT_TRUE(atom.updateConfig(config, &status));
  EXPECT_EQ(status, "trt_engine_path requires reinit; compressed_dim requires reinit");
  config.compressed_dim = 8;
  config.trt_engine_path = tiny_engine();
  EXPECT_TRUE(atom.updateConfig(config, &status));
  EXPECT_EQ(status, "config_updated");
  EXPECT_TRUE(atom.track(frame).ok);
}

}  // namespace
}  // namespace track_test
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
