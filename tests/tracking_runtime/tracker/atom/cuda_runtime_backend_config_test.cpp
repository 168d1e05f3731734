// Live reconfiguration: what a running backend takes, what it refuses, what follows from a change.

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "support/config_text.h"
#include "tracking_runtime/tracker/atom/started_backend_fixture.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

using ostrel_test::config_text;

class BackendConfig : public StartedBackend {
 protected:
  bool update() { return backend_->updateConfig(&wanted_, &status_); }
  void trace_to(const std::string& name) {
    wanted_.reference_trace_path = name.empty() ? "" : path(name);
    EXPECT_TRUE(update());
  }
  NativeCppBackend::Config wanted_ = config();
};

TEST_F(BackendConfig, WantsARecord) {
  EXPECT_FALSE(backend_->updateConfig(nullptr, &status_));
  EXPECT_EQ(status_, "invalid_config_pointer");
  EXPECT_FALSE(backend_->updateConfig(nullptr, nullptr));
}

TEST_F(BackendConfig, LeavesAnOutstandingJobWithoutARecord) {
  leave_failed_job(17);
  EXPECT_FALSE(backend_->updateConfig(nullptr, &status_));
  EXPECT_TRUE(Access::training_future(*backend_).valid());
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

constexpr float NativeCppBackend::Config::*kNoises[] = {
    &NativeCppBackend::Config::scale_predictor_process_noise_scale,
    &NativeCppBackend::Config::scale_predictor_process_noise_velocity,
    &NativeCppBackend::Config::scale_predictor_measurement_noise_scale};

TEST_F(BackendConfig, SeedsTheScaleFilterWithTheNewNoisesWhenThePredictorComesOn) {
  state().target_scale = 2.0F;
  wanted_.enable_scale_predictor = true;
  wanted_.scale_predictor_measurement_noise_scale = 0.5F;
  wanted_.scale_predictor_process_noise_velocity = 0.125F;
  EXPECT_TRUE(update());
  EXPECT_TRUE(state().scale_kalman_seeded);
  EXPECT_FLOAT_EQ(state().scale_log, std::log(2.0F));
  EXPECT_EQ(state().scale_p00, 0.5F);
  EXPECT_EQ(state().scale_p11, 0.125F);
}

TEST_F(BackendConfig, ResetsTheScaleFilterWhenThePredictorGoesOff) {
  wanted_.enable_scale_predictor = true;
  EXPECT_TRUE(update());
  EXPECT_TRUE(state().scale_kalman_seeded) << "by the switch alone";
  wanted_.enable_scale_predictor = false;
  EXPECT_TRUE(update());
  EXPECT_FALSE(state().scale_kalman_seeded);
  EXPECT_EQ(state().scale_p00, 1.0F);
}

TEST_F(BackendConfig, SeedsTheScaleFilterAnewForEachNoiseThatMoves) {
  wanted_.enable_scale_predictor = true;
  EXPECT_TRUE(update());
  for (float NativeCppBackend::Config::*noise : kNoises) {
    state().scale_log_velocity = 0.25F;
    wanted_.*noise *= 1.5F;
    EXPECT_TRUE(update());
    EXPECT_EQ(state().scale_log_velocity, 0.0F);
  }
}

TEST_F(BackendConfig, ResetsTheScaleFilterForANoiseThatMovesWhileThePredictorIsOff) {
  for (float NativeCppBackend::Config::*noise : kNoises) {
    state().scale_kalman_seeded = true;
    wanted_.*noise *= 1.5F;
    EXPECT_TRUE(update());
    EXPECT_FALSE(state().scale_kalman_seeded);
  }
}

TEST_F(BackendConfig, LeavesTheScaleFilterAloneForANoiseThatHardlyMoves) {
  wanted_.enable_scale_predictor = true;
  for (float NativeCppBackend::Config::*noise : kNoises) wanted_.*noise = 1e-4F;
  EXPECT_TRUE(update());
  for (float NativeCppBackend::Config::*noise : kNoises) {
    state().scale_log_velocity = 0.25F;
    wanted_.*noise = 1e-4F + 1e-10F;
    ASSERT_NE(wanted_.*noise, 1e-4F);
    EXPECT_TRUE(update());
    EXPECT_EQ(state().scale_log_velocity, 0.25F);
    EXPECT_EQ(state().config.*noise, wanted_.*noise);
    for (const float moved : {1e-4F + 2e-9F, 1e-4F}) {
      state().scale_log_velocity = 0.25F;
      wanted_.*noise = moved;
      EXPECT_TRUE(update());
      EXPECT_EQ(state().scale_log_velocity, 0.0F) << moved;
    }
  }
  state().scale_log_velocity = 0.25F;
  wanted_.learning_rate = 0.75F;
  EXPECT_TRUE(update());
  EXPECT_EQ(state().scale_log_velocity, 0.25F);
}

TEST_F(BackendConfig, MovesTheTraceToAnotherFileWithAHeaderOfItsOwn) {
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

bool is_open(const std::string& file) {
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (std::filesystem::read_symlink(entry.path(), gone) == file) return true;
  }
  return false;
}

TEST_F(BackendConfig, ClosesTheTraceThatItLeaves) {
  pretend_started();
  trace_to("first.tsv");
  EXPECT_TRUE(backend_->zoomChanged(2.0F, nullptr, nullptr));
  EXPECT_TRUE(is_open(path("first.tsv")));
  trace_to("second.tsv");
  EXPECT_FALSE(is_open(path("first.tsv")));
  EXPECT_NE(Access::trace_writer(*backend_), nullptr);
  trace_to("");
  EXPECT_NE(Access::trace_writer(*backend_), nullptr);
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

TEST_F(BackendConfig, DropsTheExceptionOfAJobWithNowhereToWrite) {
  leave_failed_job(std::runtime_error("device lost"));
  EXPECT_TRUE(backend_->updateConfig(&wanted_, nullptr));
  EXPECT_FALSE(Access::training_future(*backend_).valid());
  EXPECT_TRUE(update());
  EXPECT_EQ(status_, "config_updated");
}

TEST_F(BackendConfig, ChangesBetweenTrainingsThatRun) {
  fill(4);
  printed([&] {
    for (int round = 1; round <= 10; ++round) {
      schedule(2, 3, "periodic", round);
      wanted_.filter_regularization = 0.125F * static_cast<float>(round);
      wanted_.learning_rate = 0.01F * static_cast<float>(round);
      wanted_.sample_memory_size = kCapacity + round % 2;
      EXPECT_TRUE(update());
      EXPECT_FALSE(Access::training_in_flight(*backend_));
      EXPECT_TRUE(Access::store_training_sample(*backend_, feature(round), label(round), 0.05F));
    }
  });
  EXPECT_EQ(filter_version(), 17U);
}

}  // namespace
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
