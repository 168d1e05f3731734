// Teleport and zoom: a running tracker corrected from outside.

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "ostrel_plugin/src/tracker_runtime_config.h"
#include "support/golden.h"
#include "tracking_runtime/tracker/atom/started_backend_fixture.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

class Corrections : public StartedBackend {
 protected:
  Corrections() { pretend_started(); }

  bool teleport(const base::BBox& expected) { return backend_->teleport(expected, &bbox_, &status_); }
  bool zoom(float factor) { return backend_->zoomChanged(factor, &bbox_, &status_); }

  /// Expects a refusal with this word that leaves state and box alone, with and without somewhere to write.
  template <typename Operation>
  void expect_refusal(const std::string& word, const Operation& operation) {
    const std::string before = state_text(state());
    status_ = "untouched";
    EXPECT_FALSE(operation(&bbox_, &status_));
    EXPECT_EQ(status_, word);
    EXPECT_FALSE(operation(nullptr, nullptr));
    EXPECT_EQ(state_text(state()), before) << word;
    EXPECT_EQ(bbox_.width, -1.0F) << word;
  }
  void expect_teleport_refused(const std::string& word, const base::BBox& expected) {
    expect_refusal(word, [&](base::BBox* box, std::string* status) {
      return backend_->teleport(expected, box, status);
    });
  }
  void expect_zoom_refused(const std::string& word, float factor) {
    expect_refusal(word, [&](base::BBox* box, std::string* status) {
      return backend_->zoomChanged(factor, box, status);
    });
  }

  const base::BBox good_{10.0F, 10.0F, 20.0F, 20.0F};
};

TEST(CorrectionsOfAStart, FollowGoldenSequences) {
  const auto golden = ostrel_test::load_golden_case("teleport_zoom", "sequence");
  CudaRuntimeBackend backend(ostrel_algo_internal::buildTrackerRuntimeConfig(OstrelConfig()));
  TargetState& state = CudaRuntimeBackendTestAccess::state(backend);
  state.image_size = {golden.i32("image_width"), golden.i32("image_height")};
  const cv::Rect box(golden.i32("x"), golden.i32("y"), golden.i32("w"), golden.i32("h"));
  state.place_at_start_(box);
  state.derive_scale_at_start_(box);
  state.initialized = state.runtime_initialized = true;

  const std::vector<float> ops = golden.input_as<float>("ops");
  std::vector<float> states;
  std::vector<std::string> words;
  for (std::size_t i = 0; i + 5 <= ops.size(); i += 5) {
    base::BBox found{kNan, kNan, kNan, kNan};
    std::string word;
    const base::BBox expected{ops[i + 1], ops[i + 2], ops[i + 3], ops[i + 4]};
    const bool ok = ops[i] == 0.0F ? backend.teleport(expected, &found, &word)
                                   : backend.zoomChanged(ops[i + 1], &found, &word);
    words.push_back(word);
    states.insert(states.end(),
                  {ok ? 1.0F : 0.0F, found.x, found.y, found.width, found.height, state.target_pos.x,
                   state.target_pos.y, state.target_size.width, state.target_size.height, state.target_scale,
                   state.initial_target_scale, state.recovery_active ? 1.0F : 0.0F});
  }
  EXPECT_EQ(words, golden.lines("status"));
  EXPECT_TRUE(ostrel_test::matches_golden(golden.output("states"), states));
}

TEST_F(Corrections, NeedBothHalvesOfAStart) {
  for (bool TargetState::*half : {&TargetState::initialized, &TargetState::runtime_initialized}) {
    state().*half = false;
    expect_teleport_refused("backend_not_initialized", {kNan, 10.0F, 20.0F, 20.0F});
    expect_zoom_refused("backend_not_initialized", 0.0F);
    state().*half = true;
  }
}

TEST_F(Corrections, RefuseATeleportToABoxThatIsNone) {
  state().image_size = {0, 0};  // judged later than the box
  for (const float bad : {kNan, kInfinity, -kInfinity}) {
    expect_teleport_refused("invalid_expected_bbox", {bad, 10.0F, 20.0F, 20.0F});
    expect_teleport_refused("invalid_expected_bbox", {10.0F, bad, 20.0F, 20.0F});
    expect_teleport_refused("invalid_expected_bbox", {10.0F, 10.0F, bad, 20.0F});
    expect_teleport_refused("invalid_expected_bbox", {10.0F, 10.0F, 20.0F, bad});
  }
  expect_teleport_refused("invalid_expected_bbox", {10.0F, 10.0F, 1.0F, 20.0F});
  expect_teleport_refused("invalid_expected_bbox", {10.0F, 10.0F, 20.0F, 1.0F});
}

TEST_F(Corrections, RefuseAZoomByAFactorThatIsNone) {
  state().image_size = {0, 0};
  for (const float factor : {0.0F, -2.0F, kNan, kInfinity, -kInfinity}) {
    expect_zoom_refused("invalid_scale_factor", factor);
  }
}

TEST_F(Corrections, NeedAKnownFrameSize) {
  for (const cv::Size_<int> size : {cv::Size_<int>(0, 80), {100, 0}, {-1, 80}, {100, -1}}) {
    state().image_size = size;
    expect_teleport_refused("unknown_frame_size", good_);
    expect_zoom_refused("unknown_frame_size", 2.0F);
  }
  state().image_size = {1, 1};
  EXPECT_TRUE(teleport(good_));
  EXPECT_TRUE(zoom(2.0F));
}

TEST_F(Corrections, CutATeleportBoxToTheFrame) {
  state().config.max_ratio_from_initial_size = 100.0F;
  EXPECT_TRUE(teleport({-20.0F, 30.0F, 900.0F, 10.0F}));
  EXPECT_EQ(status_, "teleport_ok");
  EXPECT_FLOAT_EQ(state().target_pos.x, 49.5F);
  EXPECT_FLOAT_EQ(state().target_pos.y, 34.5F);
  EXPECT_FLOAT_EQ(state().target_scale, std::sqrt(10.0F));
  EXPECT_EQ(bbox_.width, state().target_size.width);
}

TEST_F(Corrections, PullATeleportBoxThatLeavesTheFrameBackInside) {
  EXPECT_TRUE(teleport({95.0F, 78.0F, 10.0F, 10.0F}));
  EXPECT_EQ(state().target_pos, cv::Point_<float>(94.5F, 74.5F));
  EXPECT_TRUE(teleport({-3.0F, -4.0F, 10.0F, 10.0F}));
  EXPECT_EQ(state().target_pos, cv::Point_<float>(4.5F, 4.5F));
}

TEST_F(Corrections, RoundATeleportBoxHalfAwayFromZero) {
  EXPECT_TRUE(teleport({40.5F, 30.49F, 10.5F, 9.5F}));
  EXPECT_EQ(state().target_pos, cv::Point_<float>(41.0F + 5.0F, 30.0F + 4.5F));
  EXPECT_FLOAT_EQ(state().target_scale, std::sqrt(1.1F));
  EXPECT_TRUE(teleport({-0.5F, 10.0F, 1.2F, 10.0F}));
  EXPECT_EQ(state().target_pos.x, 0.0F);
}

TEST_F(Corrections, TakeTheScaleOfATeleportFromTheBaseSize) {
  state().target_scale = 1.5F;
  EXPECT_TRUE(teleport({40.0F, 30.0F, 20.0F, 20.0F}));
  EXPECT_FLOAT_EQ(state().target_scale, 2.0F);
  EXPECT_EQ(state().target_size, cv::Size_<float>(20.0F, 20.0F));
  EXPECT_EQ(state().initial_target_scale, 1.0F);
  EXPECT_TRUE(state().recovery_active);
  EXPECT_EQ(bbox_.x, 39.5F);
  EXPECT_EQ(bbox_.y, 29.5F);
  EXPECT_EQ(bbox_.width, 20.0F);
  EXPECT_EQ(bbox_.height, 20.0F);
}

TEST_F(Corrections, HoldATeleportToTheRatioClampOnBothSides) {
  EXPECT_TRUE(teleport({10.0F, 10.0F, 60.0F, 60.0F}));
  EXPECT_FLOAT_EQ(state().target_scale, 2.5F);
  EXPECT_TRUE(teleport({10.0F, 10.0F, 2.0F, 2.0F}));
  EXPECT_FLOAT_EQ(state().target_scale, 0.4F);
  state().config.max_ratio_from_initial_size = 100.0F;
  EXPECT_TRUE(teleport({0.0F, 0.0F, 100.0F, 80.0F}));
  EXPECT_EQ(state().target_scale, 8.0F);  // the physical bound
}

TEST_F(Corrections, KeepTheScaleAtATeleportWithoutABaseSize) {
  for (const cv::Size_<float> base :
       {cv::Size_<float>(0.0F, 10.0F), {10.0F, 0.0F}, {1e-6F, 10.0F}, {10.0F, 1e-6F}, {kNan, 10.0F}}) {
    state().base_target_size = base;
    state().target_scale = 1.5F;
    EXPECT_TRUE(teleport({40.0F, 30.0F, 20.0F, 20.0F}));
    EXPECT_EQ(state().target_scale, 1.5F);
    EXPECT_FLOAT_EQ(state().target_pos.x, 49.5F);
  }
}

TEST_F(Corrections, TakeTheSideItselfWhereTheBaseIsAPixelOrLess) {
  state().config.max_ratio_from_initial_size = 100.0F;
  for (const float side : {0.5F, 0.75F, 1.0F}) {
    state().base_target_size = {side, 10.0F};
    EXPECT_TRUE(teleport({40.0F, 30.0F, 4.0F, 10.0F}));
    EXPECT_FLOAT_EQ(state().target_scale, 2.0F);
    state().base_target_size = {10.0F, side};
    EXPECT_TRUE(teleport({40.0F, 30.0F, 10.0F, 9.0F}));
    EXPECT_FLOAT_EQ(state().target_scale, 3.0F);
  }
  state().base_target_size = {1.25F, 10.0F};
  EXPECT_TRUE(teleport({40.0F, 30.0F, 5.0F, 10.0F}));
  EXPECT_FLOAT_EQ(state().target_scale, 2.0F);
}

TEST_F(Corrections, TakeAVanishingScaleForABoxThatIsNothingBesideTheBase) {
  state().base_target_size = {1e5F, 1e5F};
  state().min_target_scale = 1e-5F;
  state().config.min_ratio_from_initial_size = 0.001F;
  EXPECT_TRUE(teleport({40.0F, 30.0F, 2.0F, 2.0F}));
  EXPECT_FLOAT_EQ(state().target_scale, 0.001F);
  // Just above the limit the root of the ratio counts: here it lies above that constant, too.
  state().base_target_size = {1.6e3F, 1.6e3F};
  EXPECT_TRUE(teleport({40.0F, 30.0F, 2.0F, 2.0F}));
  EXPECT_FLOAT_EQ(state().target_scale, 0.00125F);
}

TEST_F(Corrections, ZoomInPlaceAndBack) {
  EXPECT_TRUE(zoom(2.0F));
  EXPECT_EQ(status_, "zoom_changed_ok");
  EXPECT_EQ(state().target_size, cv::Size_<float>(20.0F, 20.0F));
  EXPECT_EQ(state().target_pos, cv::Point_<float>(50.0F, 40.0F));
  EXPECT_EQ(state().initial_target_scale, 2.0F);
  EXPECT_EQ(bbox_.x, 40.0F);
  EXPECT_EQ(bbox_.width, 20.0F);
  EXPECT_TRUE(state().recovery_active);
  EXPECT_TRUE(zoom(0.5F));
  EXPECT_EQ(state().target_scale, 1.0F);
  EXPECT_EQ(state().initial_target_scale, 1.0F);
}

TEST_F(Corrections, HoldAZoomToThePhysicalBoundsAlone) {
  EXPECT_TRUE(zoom(100.0F));
  EXPECT_EQ(state().target_scale, 8.0F);
  EXPECT_EQ(state().initial_target_scale, 8.0F);
  EXPECT_TRUE(zoom(1e-9F));
  EXPECT_EQ(state().target_scale, 0.1F);
  EXPECT_EQ(state().initial_target_scale, 0.1F);
  state().min_target_scale = 0.0F;
  EXPECT_TRUE(zoom(1e-9F));
  EXPECT_EQ(state().target_scale, 1e-6F);
}

TEST_F(Corrections, SetTheScaleFilterToTheCorrectedScale) {
  state().config.enable_scale_predictor = true;
  state().scale_log_velocity = 0.25F;
  EXPECT_TRUE(zoom(2.0F));
  EXPECT_FLOAT_EQ(state().scale_log, std::log(2.0F));
  EXPECT_EQ(state().scale_log_velocity, 0.0F);
  state().scale_log_velocity = 0.25F;
  EXPECT_TRUE(teleport({40.0F, 30.0F, 30.0F, 30.0F}));
  EXPECT_FLOAT_EQ(state().scale_log, std::log(3.0F));
  EXPECT_EQ(state().scale_log_velocity, 0.0F);
}

TEST_F(Corrections, RestartRecoveryFromNothing) {
  for (const bool by_zoom : {false, true}) {
    state().recovery_active = false;
    state().recovery_confirm_count = 3;
    state().recovery_frame_count = 5;
    EXPECT_TRUE(by_zoom ? zoom(1.5F) : teleport(good_));
    EXPECT_TRUE(state().recovery_active);
    EXPECT_EQ(state().recovery_confirm_count, 0);
    EXPECT_EQ(state().recovery_frame_count, 0);
  }
}

TEST_F(Corrections, LeaveRecoveryOffWhereItIsNotPreferred) {
  state().config.prefer_stable_reacquisition = false;
  EXPECT_TRUE(teleport({40.0F, 30.0F, 20.0F, 20.0F}));
  EXPECT_FALSE(state().recovery_active);
  EXPECT_TRUE(zoom(1.5F));
  EXPECT_FALSE(state().recovery_active);
}

TEST_F(Corrections, LeaveWhatWasLearned) {
  fill(3);
  const std::vector<float> before = filter();
  EXPECT_TRUE(teleport({40.0F, 30.0F, 20.0F, 20.0F}));
  EXPECT_TRUE(zoom(1.5F));
  EXPECT_EQ(filter(), before);
  EXPECT_EQ(filter_version(), 7U);
  EXPECT_EQ(Access::memory(*backend_).num_stored_samples, 3);
}

TEST_F(Corrections, AreTracedAlsoWithoutAStatus) {
  NativeCppBackend::Config traced = config();
  traced.reference_trace_path = path("trace.tsv");
  backend_ = std::make_unique<CudaRuntimeBackend>(traced);
  pretend_started();
  state().frame_index = 12;
  EXPECT_TRUE(backend_->teleport({40.0F, 30.0F, 20.0F, 20.0F}, nullptr, nullptr));
  EXPECT_TRUE(backend_->zoomChanged(0.5F, nullptr, nullptr));
  EXPECT_FALSE(backend_->zoomChanged(0.0F, nullptr, nullptr));
  EXPECT_FALSE(backend_->teleport({40.0F, 30.0F, 1.0F, 20.0F}, nullptr, nullptr));
  const std::vector<std::string> lines = lines_of(path("trace.tsv"));
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[1], "teleport\t12\tcuda\tteleport_ok\t40\t30\t20\t20\t0\t0\t0\t1\t2");
  EXPECT_EQ(lines[2], "zoom_changed\t12\tcuda\tzoom_changed_ok\t45\t35\t10\t10\t0\t0\t0\t0.5\t1");
}

TEST_F(Corrections, NeedNoTrace) {
  Access::trace_writer(*backend_).reset();
  EXPECT_TRUE(teleport(good_));
  EXPECT_TRUE(zoom(2.0F));
}

}  // namespace
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
