// The backend's life, corrections from outside and live reconfiguration.

#include "tracking_runtime/tracker/atom/cuda_runtime_backend.h"

#include <gtest/gtest.h>
#include <host_cuda/control.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "ostrel_plugin/src/tracker_runtime_config.h"
#include "support/config_text.h"
#include "support/golden.h"
#include "tracking_runtime/tracker/atom/training_fixture.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

using ostrel_test::config_text;
using Access = CudaRuntimeBackendTestAccess;

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

class Backend : public TrainingFixture {
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

  base::BBox bbox_{-1.0F, -1.0F, -1.0F, -1.0F};
  std::string status_ = "untouched";
};

TEST_F(Backend, BeginsEmptyAndTouchesNoDevice) {
  ostrel::host_cuda::reset_counters();
  CudaRuntimeBackend backend(config());
  EXPECT_TRUE(ostrel::host_cuda::counters().calls.empty());
  EXPECT_STREQ(backend.name(), "cuda");
  EXPECT_EQ(config_text(Access::state(backend).config), config_text(config()));
  EXPECT_NE(Access::trace_writer(backend), nullptr);
  EXPECT_TRUE(Access::memory(backend).empty());
  EXPECT_EQ(Access::memory(backend).previous_replace_index, -1);
  EXPECT_TRUE(Access::weights(backend).filter_weights.empty());
  EXPECT_FALSE(Access::state(backend).initialized);
  EXPECT_EQ(Access::state(backend).target_scale, 1.0F);
  EXPECT_EQ(Access::state(backend).min_target_scale, 0.1F);
  EXPECT_EQ(Access::state(backend).max_target_scale, 10.0F);
  EXPECT_FALSE(Access::training_future(backend).valid());
}

TEST_F(Backend, NamesAStageThatIsMissing) {
  const std::string text = "runtime_backend='cuda' selected, but this ATOM stage is not implemented";
  EXPECT_EQ(Access::not_implemented_error(*backend_, nullptr), text);
  EXPECT_EQ(Access::not_implemented_error(*backend_, ""), text);
  EXPECT_EQ(Access::not_implemented_error(*backend_, "track"), text + " at stage 'track'");
}

TEST_F(Backend, FollowsGoldenCorrections) {
  const auto golden = ostrel_test::load_golden_case("teleport_zoom", "sequence");
  CudaRuntimeBackend backend(ostrel_algo_internal::buildTrackerRuntimeConfig(OstrelConfig()));
  TargetState& state = Access::state(backend);
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

TEST_F(Backend, ChecksATeleportInOrder) {
  const base::BBox good{10.0F, 10.0F, 20.0F, 20.0F};
  const base::BBox bad{kNan, 10.0F, 20.0F, 20.0F};
  EXPECT_FALSE(backend_->teleport(bad, &bbox_, &status_));
  EXPECT_EQ(status_, "backend_not_initialized");
  pretend_started();
  state().runtime_initialized = false;
  EXPECT_FALSE(backend_->teleport(good, &bbox_, &status_));
  EXPECT_EQ(status_, "backend_not_initialized");
  state().runtime_initialized = true;
  state().image_size = {100, 0};
  EXPECT_FALSE(backend_->teleport(bad, &bbox_, &status_));
  EXPECT_EQ(status_, "invalid_expected_bbox");
  EXPECT_FALSE(backend_->teleport(good, &bbox_, &status_));
  EXPECT_EQ(status_, "unknown_frame_size");
  EXPECT_FALSE(backend_->teleport(good, nullptr, nullptr));
  EXPECT_EQ(bbox_.width, -1.0F);
  EXPECT_FALSE(state().recovery_active);
}

TEST_F(Backend, CutsATeleportBoxToTheFrame) {
  pretend_started();
  state().config.max_ratio_from_initial_size = 100.0F;
  EXPECT_TRUE(backend_->teleport({-20.0F, 30.0F, 900.0F, 10.0F}, &bbox_, &status_));
  EXPECT_EQ(status_, "teleport_ok");
  EXPECT_FLOAT_EQ(state().target_pos.x, 49.5F);
  EXPECT_FLOAT_EQ(state().target_pos.y, 34.5F);
  EXPECT_FLOAT_EQ(state().target_scale, std::sqrt(10.0F));
}

TEST_F(Backend, TakesTheScaleOfATeleportFromTheBaseSize) {
  pretend_started();
  state().target_scale = 1.5F;
  EXPECT_TRUE(backend_->teleport({40.0F, 30.0F, 20.0F, 20.0F}, nullptr, nullptr));
  EXPECT_FLOAT_EQ(state().target_scale, 2.0F);
  EXPECT_EQ(state().initial_target_scale, 1.0F);
  EXPECT_TRUE(state().recovery_active);
}

TEST_F(Backend, HoldsATeleportToTheRatioClamp) {
  pretend_started();
  EXPECT_TRUE(backend_->teleport({10.0F, 10.0F, 60.0F, 60.0F}, nullptr, nullptr));
  EXPECT_FLOAT_EQ(state().target_scale, 2.5F);
}

TEST_F(Backend, KeepsTheScaleAtATeleportWithoutABaseSize) {
  pretend_started();
  state().base_target_size = {0.0F, 10.0F};
  state().target_scale = 1.5F;
  EXPECT_TRUE(backend_->teleport({40.0F, 30.0F, 20.0F, 20.0F}, nullptr, nullptr));
  EXPECT_EQ(state().target_scale, 1.5F);
  EXPECT_FLOAT_EQ(state().target_pos.x, 49.5F);
}

TEST_F(Backend, TakesTheSideItselfWhereTheBaseIsAPixelOrLess) {
  pretend_started();
  state().base_target_size = {0.5F, 10.0F};
  state().config.max_ratio_from_initial_size = 100.0F;
  EXPECT_TRUE(backend_->teleport({40.0F, 30.0F, 4.0F, 10.0F}, nullptr, nullptr));
  EXPECT_FLOAT_EQ(state().target_scale, 2.0F);
}

TEST_F(Backend, TakesAVanishingScaleForABoxThatIsNothingBesideTheBase) {
  pretend_started();
  state().base_target_size = {1e5F, 1e5F};
  state().min_target_scale = 1e-5F;
  state().config.min_ratio_from_initial_size = 0.001F;
  EXPECT_TRUE(backend_->teleport({40.0F, 30.0F, 2.0F, 2.0F}, nullptr, nullptr));
  EXPECT_FLOAT_EQ(state().target_scale, 0.001F);
}

TEST_F(Backend, LeavesRecoveryOffWhereItIsNotPreferred) {
  pretend_started();
  state().config.prefer_stable_reacquisition = false;
  EXPECT_TRUE(backend_->teleport({40.0F, 30.0F, 20.0F, 20.0F}, nullptr, nullptr));
  EXPECT_FALSE(state().recovery_active);
  EXPECT_TRUE(backend_->zoomChanged(1.5F, nullptr, nullptr));
  EXPECT_FALSE(state().recovery_active);
}

TEST_F(Backend, ChecksAZoomInOrder) {
  EXPECT_FALSE(backend_->zoomChanged(0.0F, &bbox_, &status_));
  EXPECT_EQ(status_, "backend_not_initialized");
  pretend_started();
  state().image_size = {0, 80};
  for (const float factor : {0.0F, -2.0F, kNan, kInfinity}) {
    EXPECT_FALSE(backend_->zoomChanged(factor, &bbox_, &status_));
    EXPECT_EQ(status_, "invalid_scale_factor");
  }
  EXPECT_FALSE(backend_->zoomChanged(2.0F, &bbox_, &status_));
  EXPECT_EQ(status_, "unknown_frame_size");
  EXPECT_FALSE(backend_->zoomChanged(2.0F, nullptr, nullptr));
}

TEST_F(Backend, ZoomsInPlaceAndBack) {
  pretend_started();
  EXPECT_TRUE(backend_->zoomChanged(2.0F, &bbox_, &status_));
  EXPECT_EQ(status_, "zoom_changed_ok");
  EXPECT_EQ(state().target_size, cv::Size_<float>(20.0F, 20.0F));
  EXPECT_EQ(state().target_pos, cv::Point_<float>(50.0F, 40.0F));
  EXPECT_EQ(state().initial_target_scale, 2.0F);
  EXPECT_EQ(bbox_.x, 40.0F);
  EXPECT_EQ(bbox_.width, 20.0F);
  EXPECT_TRUE(state().recovery_active);
  EXPECT_TRUE(backend_->zoomChanged(0.5F, nullptr, nullptr));
  EXPECT_EQ(state().target_scale, 1.0F);
  EXPECT_EQ(state().initial_target_scale, 1.0F);
}

TEST_F(Backend, HoldsAZoomToThePhysicalBoundsAlone) {
  pretend_started();
  EXPECT_TRUE(backend_->zoomChanged(100.0F, nullptr, nullptr));
  EXPECT_EQ(state().target_scale, 8.0F);
  EXPECT_EQ(state().initial_target_scale, 8.0F);
}

TEST_F(Backend, LeavesWhatItLearnedThroughCorrections) {
  pretend_started();
  fill(3);
  const std::vector<float> before = filter();
  EXPECT_TRUE(backend_->teleport({40.0F, 30.0F, 20.0F, 20.0F}, nullptr, nullptr));
  EXPECT_TRUE(backend_->zoomChanged(1.5F, nullptr, nullptr));
  EXPECT_EQ(filter(), before);
  EXPECT_EQ(filter_version(), 7U);
  EXPECT_EQ(Access::memory(*backend_).num_stored_samples, 3);
}

class BackendTrace : public Backend {
 protected:
  BackendTrace()
      : folder_(std::filesystem::path(::testing::TempDir()) /
                ("backend_trace_" + std::to_string(::getpid()))) {
    std::filesystem::create_directories(folder_);
  }
  ~BackendTrace() override { std::filesystem::remove_all(folder_); }
  std::string path(const std::string& name) const { return (folder_ / name).string(); }
  static std::vector<std::string> lines_of(const std::string& path) {
    std::ifstream file(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) lines.push_back(line);
    return lines;
  }
  void trace_to(const std::string& name) {
    NativeCppBackend::Config wanted = state().config;
    wanted.reference_trace_path = name.empty() ? "" : path(name);
    ASSERT_TRUE(backend_->updateConfig(&wanted, nullptr));
  }

 private:
  std::filesystem::path folder_;
};

TEST_F(BackendTrace, RecordsCorrectionsAlsoWithoutAStatus) {
  NativeCppBackend::Config traced = config();
  traced.reference_trace_path = path("trace.tsv");
  backend_ = std::make_unique<CudaRuntimeBackend>(traced);
  pretend_started();
  state().frame_index = 12;
  EXPECT_TRUE(backend_->teleport({40.0F, 30.0F, 20.0F, 20.0F}, nullptr, nullptr));
  EXPECT_TRUE(backend_->zoomChanged(0.5F, nullptr, nullptr));
  EXPECT_FALSE(backend_->zoomChanged(0.0F, nullptr, nullptr));
  const std::vector<std::string> lines = lines_of(path("trace.tsv"));
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[1], "teleport\t12\tcuda\tteleport_ok\t40\t30\t20\t20\t0\t0\t0\t1\t2");
  EXPECT_EQ(lines[2], "zoom_changed\t12\tcuda\tzoom_changed_ok\t45\t35\t10\t10\t0\t0\t0\t0.5\t1");
}

TEST_F(BackendTrace, MovesToAnotherFileWithAHeaderOfItsOwn) {
  pretend_started();
  trace_to("first.tsv");
  EXPECT_TRUE(backend_->zoomChanged(2.0F, nullptr, nullptr));
  trace_to("first.tsv");  // unchanged: the file goes on
  EXPECT_TRUE(backend_->zoomChanged(0.5F, nullptr, nullptr));
  trace_to("second.tsv");
  EXPECT_FALSE(std::filesystem::exists(path("second.tsv")));
  EXPECT_TRUE(backend_->zoomChanged(2.0F, nullptr, nullptr));
  trace_to("");
  EXPECT_TRUE(backend_->zoomChanged(0.5F, nullptr, nullptr));
  EXPECT_EQ(lines_of(path("first.tsv")).size(), 3U);
  ASSERT_EQ(lines_of(path("second.tsv")).size(), 2U);
  EXPECT_EQ(lines_of(path("second.tsv"))[0].rfind("event\tframe\t", 0), 0U);
}

class BackendConfig : public Backend {
 protected:
  bool update() { return backend_->updateConfig(&wanted_, &status_); }
  NativeCppBackend::Config wanted_ = config();
};

TEST_F(BackendConfig, WantsARecord) {
  EXPECT_FALSE(backend_->updateConfig(nullptr, &status_));
  EXPECT_EQ(status_, "invalid_config_pointer");
  EXPECT_FALSE(backend_->updateConfig(nullptr, nullptr));
}

TEST_F(BackendConfig, TakesEveryOtherFieldAtOnce) {
  wanted_.reserved_flag = false;
  wanted_.search_area_factor = 6.5F;
  wanted_.search_scales = {0.9F, 1.0F};
  wanted_.sample_memory_size = 33;
  wanted_.filter_size = 5;
  wanted_.learning_rate = 0.5F;
  wanted_.jump_max_scale_change = 0.25F;
  const std::string expected = config_text(wanted_);
  EXPECT_TRUE(update());
  EXPECT_EQ(status_, "config_updated");
  EXPECT_EQ(config_text(state().config), expected);
  EXPECT_EQ(config_text(wanted_), expected);
}

TEST_F(BackendConfig, RefusesASearchSizeAndTellsSo) {
  wanted_.search_size = 64;
  EXPECT_TRUE(update());
  EXPECT_EQ(status_, "search_size requires reinit");
  EXPECT_EQ(wanted_.search_size, 288);
  EXPECT_EQ(config_text(state().config), config_text(config()));
}

TEST_F(BackendConfig, RefusesFixedFieldsInOrderAndTakesTheRest) {
  wanted_.runtime_backend = "cpu";
  wanted_.trt_engine_path = "other.engine";
  wanted_.template_size = 1;
  wanted_.search_size = 2;
  wanted_.compressed_dim = 3;
  wanted_.use_projection_matrix = false;
  wanted_.learning_rate = 0.5F;
  EXPECT_TRUE(update());
  EXPECT_EQ(
      status_,
      "runtime_backend requires reinit; trt_engine_path requires reinit; template_size requires reinit; "
      "search_size requires reinit; compressed_dim requires reinit; use_projection_matrix requires reinit");
  NativeCppBackend::Config expected = config();
  expected.learning_rate = 0.5F;
  EXPECT_EQ(config_text(state().config), config_text(expected));
  EXPECT_EQ(config_text(wanted_), config_text(expected));
  wanted_.search_size = 2;
  EXPECT_TRUE(backend_->updateConfig(&wanted_, nullptr));
  EXPECT_EQ(wanted_.search_size, 288);
}

TEST_F(BackendConfig, SeedsTheScaleFilterWhenThePredictorComesOn) {
  state().target_scale = 2.0F;
  wanted_.enable_scale_predictor = true;
  EXPECT_TRUE(update());
  EXPECT_TRUE(state().scale_kalman_seeded);
  EXPECT_FLOAT_EQ(state().scale_log, std::log(2.0F));
}

TEST_F(BackendConfig, ResetsTheScaleFilterWhenThePredictorGoesOff) {
  wanted_.enable_scale_predictor = true;
  EXPECT_TRUE(update());
  wanted_.enable_scale_predictor = false;
  EXPECT_TRUE(update());
  EXPECT_FALSE(state().scale_kalman_seeded);
  EXPECT_EQ(state().scale_p00, 1.0F);
}

TEST_F(BackendConfig, SeedsTheScaleFilterAnewForEachNoiseThatMoves) {
  wanted_.enable_scale_predictor = true;
  EXPECT_TRUE(update());
  for (float NativeCppBackend::Config::*noise :
       {&NativeCppBackend::Config::scale_predictor_process_noise_scale,
        &NativeCppBackend::Config::scale_predictor_process_noise_velocity,
        &NativeCppBackend::Config::scale_predictor_measurement_noise_scale}) {
    state().scale_log_velocity = 0.25F;
    wanted_.*noise *= 1.5F;
    EXPECT_TRUE(update());
    EXPECT_EQ(state().scale_log_velocity, 0.0F);
  }
}

TEST_F(BackendConfig, LeavesTheScaleFilterAloneForANoiseThatHardlyMoves) {
  wanted_.enable_scale_predictor = true;
  wanted_.scale_predictor_process_noise_scale = 1e-4F;
  EXPECT_TRUE(update());
  state().scale_log_velocity = 0.25F;
  wanted_.scale_predictor_process_noise_scale = 1e-4F + 1e-10F;
  ASSERT_NE(wanted_.scale_predictor_process_noise_scale, 1e-4F);
  EXPECT_TRUE(update());
  EXPECT_EQ(state().scale_log_velocity, 0.25F);
  wanted_.learning_rate = 0.75F;
  EXPECT_TRUE(update());
  EXPECT_EQ(state().scale_log_velocity, 0.25F);
}

TEST_F(BackendConfig, ShowsTheExceptionOfAJobAndSucceeds) {
  leave_failed_job(std::runtime_error("device lost"));
  wanted_.search_size = 64;
  EXPECT_TRUE(update());
  EXPECT_EQ(status_, "previous_training_exception=device lost; search_size requires reinit");
  EXPECT_FALSE(Access::training_future(*backend_).valid());
  leave_failed_job(17);
  EXPECT_TRUE(update());
  EXPECT_EQ(status_, "previous_training_exception=unknown");
  EXPECT_TRUE(update());
  EXPECT_EQ(status_, "config_updated");
}

TEST_F(BackendConfig, AwaitsARunningJob) {
  fill(4);
  printed([&] {
    schedule(3, 10, "periodic", 1);
    wanted_.filter_regularization = 0.5F;
    EXPECT_TRUE(update());
    EXPECT_FALSE(Access::training_in_flight(*backend_));
  });
  EXPECT_EQ(status_, "config_updated");
  EXPECT_FALSE(Access::training_future(*backend_).valid());
  EXPECT_EQ(filter_version(), 8U);
}

}  // namespace
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
