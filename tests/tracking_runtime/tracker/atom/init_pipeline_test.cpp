#include <chrono>
#include <cmath>
#include <future>
#include <stdexcept>
#include <thread>

#include "tracking_runtime/tracker/atom/init_fixture.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace init_test {
namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

cv::Point_<int> highest(const cv::Mat& map) {
  cv::Point_<int> peak;
  cv::minMaxLoc(map, nullptr, nullptr, nullptr, &peak);
  return peak;
}

/// Sample `slot` of the memory.
FeatureMap stored_feature(const SampleMemory& memory, std::size_t slot) {
  FeatureMap feature{1, memory.memory_channels, memory.memory_height, memory.memory_width, {}};
  const auto begin =
      memory.training_features.begin() + static_cast<std::ptrdiff_t>(slot * feature.sample_stride());
  feature.data.assign(begin, begin + static_cast<std::ptrdiff_t>(feature.sample_stride()));
  return feature;
}

cv::Mat stored_label(const SampleMemory& memory, std::size_t slot) {
  const auto cells = static_cast<std::size_t>(memory.memory_label_height) *
                     static_cast<std::size_t>(memory.memory_label_width);
  const auto begin = memory.training_labels.begin() + static_cast<std::ptrdiff_t>(slot * cells);
  return cv::Mat(std::vector<float>(begin, begin + static_cast<std::ptrdiff_t>(cells)), true)
      .reshape(1, memory.memory_label_height);
}

TEST_F(TrackingStart, TellsEachStageOfTheHostPath) {
  config.update_projection_matrix = false;
  ASSERT_TRUE(start()) << error;
  EXPECT_EQ(error, "");
  EXPECT_THAT(
      init_lines(),
      ElementsAre(
          "[TRACK_DEBUG][ATOM] init: rect_proc=[30,20,16,12] → center=(37.5,25.5) size=(16.0,12.0) "
          "image=96x64",
          "[CudaRuntimeBackend] init stage=template_feature raw=[1,16,8,8]",
          "[CudaRuntimeBackend] init stage=aug_patches count=7",
          "[CudaRuntimeBackend] init stage=aug_raw count=9",
          "[CudaRuntimeBackend] init ready: samples=9 feature=[1,8,8,8] label=[1,8,8]",
          AllOf(StartsWith("[CudaRuntimeBackend] init timing cpu: total="), EndsWith(" path=host_path")),
          StartsWith("[CudaRuntimeBackend] init timing path: direct_labels=0.0 direct_trt=0.0 "
                     "direct_preload=0.0 direct_dropout=0.0 joint_opt=0.0 direct_filter_train=0.0 "
                     "projected_download=0.0 host_aug_feat=")));
}

TEST_F(TrackingStart, FillsTheMemoryWithNineEqualSamples) {
  ASSERT_TRUE(start()) << error;
  const SampleMemory& stored = memory();
  EXPECT_EQ(stored.num_stored_samples, 9);
  EXPECT_EQ(stored.num_init_samples, 9);
  for (std::size_t i = 0; i < 9; ++i) EXPECT_FLOAT_EQ(stored.sample_weights[i], 1.0F / 9.0F);
  EXPECT_EQ(stored.memory_channels, 8);
  EXPECT_EQ(stored.memory_height, kCells);
  EXPECT_EQ(stored.memory_label_width, kCells);
}

TEST_F(TrackingStart, GivesEachSampleTheLabelOfItsCentre) {
  ASSERT_TRUE(start()) << error;
  const SampleMemory& stored = memory();
  // 0.6 of half the patch is 0.6 * 4 of 8 cells: the peak moves against the shift. The filter is even, so a
  // centred peak lies half a cell past the middle, on cell 4.
  for (const std::size_t slot : {0u, 3u, 4u, 5u, 6u, 7u, 8u}) {
    EXPECT_EQ(highest(stored_label(stored, slot)), cv::Point_<int>(4, 4)) << slot;
  }
  EXPECT_EQ(highest(stored_label(stored, 1)), cv::Point_<int>(2, 2));
  EXPECT_EQ(highest(stored_label(stored, 2)), cv::Point_<int>(6, 6));
}

TEST_F(TrackingStart, MakesDropoutSamplesOfTheTemplate) {
  config.use_projection_matrix = false;
  ASSERT_TRUE(start()) << error;
  const FeatureMap original = stored_feature(memory(), 0);
  for (const std::size_t slot : {7u, 8u}) {
    const FeatureMap sample = stored_feature(memory(), slot);
    for (std::size_t i = 0; i < sample.data.size(); ++i) {
      const bool dropped = sample.data[i] == 0.0F;
      EXPECT_TRUE(dropped || sample.data[i] == 1.25F * original.data[i]) << slot << " " << i;
    }
  }
}

TEST_F(TrackingStart, GivesEachDropoutSampleItsOwnMask) {
  InitPipeline pipeline(&backend(), frame, kBox, &error);
  InitPipelineTestAccess access(&pipeline);
  access.set_template({1, 2, 1, 1, {4.0F, 8.0F}});
  access.set_dropout_masks({1.25F, 0.0F, 0.0F, 1.25F});
  ASSERT_TRUE(access.add_dropout_items());
  ASSERT_EQ(access.item_count(), 2u);
  EXPECT_EQ(access.item(0).data, (std::vector<float>{5.0F, 0.0F}));
  EXPECT_EQ(access.item(1).data, (std::vector<float>{0.0F, 10.0F}));
}

TEST_F(TrackingStart, TrainsForTheConfiguredIterations) {
  config.update_projection_matrix = false;
  for (const int iterations : {1, 7}) {
    config.startup_filter_iterations = iterations;
    state().config.startup_filter_iterations = iterations;
    ostrel::host_cuda::reset_counters();
    ASSERT_TRUE(start()) << error;
    EXPECT_EQ(ostrel::host_cuda::counters().launches_of("compute_weighted_jtj_response_kernel"), iterations);
  }
}

TEST_F(TrackingStart, TakesTheTimeOfEachStageOfTheHostPath) {
  config.update_projection_matrix = false;
  InitPipeline pipeline(&backend(), frame, kBox, &error);
  ::testing::internal::CaptureStderr();
  ASSERT_TRUE(pipeline.run()) << error;
  ::testing::internal::GetCapturedStderr();
  const InitTimings t = InitPipelineTestAccess(&pipeline).timings();
  const double passed[] = {
      t.wait_prev_train, t.runtime,     t.template_patch, t.template_host, t.projection_init, t.filter_init,
      t.shift,           t.flip,        t.blur,           t.rotate,        t.dropout_prep,    t.host_aug_feat,
      t.host_dropout,    t.host_labels, t.host_project,   t.memory_init,   t.memory_train};
  double sum = 0.0;
  for (const double stage_ms : passed) {
    EXPECT_GT(stage_ms, 0.0);
    sum += stage_ms;
  }
  EXPECT_GE(t.total, sum);
  const double left_out[] = {t.direct_labels,      t.direct_trt,    t.direct_preload,
                             t.direct_dropout,     t.joint_opt,     t.direct_filter_train,
                             t.projected_download, t.template_only, t.template_device};
  for (const double stage_ms : left_out) EXPECT_EQ(stage_ms, 0.0);
}

TEST_F(TrackingStart, TrainsAFilterThatFindsTheTemplate) {
  config.startup_filter_iterations = 40;
  ASSERT_TRUE(start()) << error;
  const cv::Mat response = Access::classify_feature(backend(), stored_feature(memory(), 0));
  EXPECT_EQ(highest(response), highest(stored_label(memory(), 0)));
}

TEST_F(TrackingStart, DerivesTheTargetFromTheBox) {
  config.enable_scale_predictor = true;
  ASSERT_TRUE(start()) << error;
  const TargetState& target = state();
  const float scale = std::sqrt(48.0F * 36.0F) / 32.0F;
  EXPECT_EQ(target.image_size, cv::Size(96, 64));
  EXPECT_EQ(target.target_pos, cv::Point_<float>(37.5F, 25.5F));
  EXPECT_EQ(target.target_size, cv::Size_<float>(16.0F, 12.0F));
  EXPECT_FLOAT_EQ(target.target_scale, scale);
  EXPECT_FLOAT_EQ(target.initial_target_scale, scale);
  EXPECT_FLOAT_EQ(target.base_target_size.width, 16.0F / scale);
  EXPECT_TRUE(target.scale_kalman_seeded);
  EXPECT_TRUE(target.initialized);
}

TEST_F(TrackingStart, TracesTheSuccess) {
  ASSERT_TRUE(start({90, -4, 16, 12})) << error;
  const float scale = std::sqrt(48.0F * 36.0F) / 32.0F;
  std::ostringstream expected;
  expected << "init_ok\t0\tcuda\tok_memory_ready\t80\t0\t16\t12\t1\t1\t0\t1\t" << scale;
  EXPECT_THAT(trace_lines(), ElementsAre(expected.str()));
}

TEST_F(TrackingStart, RunsWithoutAnErrorString) {
  EXPECT_TRUE(start(frame, kBox, nullptr));
  EXPECT_TRUE(state().initialized);
}

TEST_F(TrackingStart, CountsFewerThanOneIterationAsOne) {
  config.startup_filter_iterations = 0;
  ASSERT_TRUE(start()) << error;
  EXPECT_EQ(weights().filter_version, 3u) << "first values, the joint fit, the training";
}

TEST_F(TrackingStart, LoadsTheEngineOnce) {
  ASSERT_TRUE(start()) << error;
  EXPECT_THAT(printed, HasSubstr("TRT backbone ready"));
  ostrel::host_cuda::reset_counters();
  ASSERT_TRUE(start()) << error;
  EXPECT_THAT(printed, Not(HasSubstr("TRT backbone ready")));
  EXPECT_EQ(ostrel::host_cuda::counters().calls_of("createExecutionContext"), 0);
}

TEST_F(TrackingStart, StartsAnewWithoutLeakingDeviceMemory) {
  ASSERT_TRUE(start()) << error;
  const auto before = ostrel::host_cuda::counters();
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(start()) << error;
  const auto after = ostrel::host_cuda::counters();
  EXPECT_EQ(after.live_device_bytes, before.live_device_bytes);
  EXPECT_EQ(after.live_pinned_bytes, before.live_pinned_bytes);
  EXPECT_EQ(after.live_events, before.live_events);
  EXPECT_EQ(after.live_streams, before.live_streams);
}

TEST_F(TrackingStart, RestartsTheFrameCounterAndLeavesRecovery) {
  ASSERT_TRUE(start()) << error;
  state().frame_index = 7;
  state().recovery_active = true;
  state().recovery_confirm_count = 2;
  state().recovery_frame_count = 3;
  state().scale_kalman_seeded = true;
  Access::training_in_flight(backend()) = true;
  Access::active_training_job(backend()) = 4;
  ASSERT_TRUE(start()) << error;
  EXPECT_EQ(state().frame_index, 0);
  EXPECT_FALSE(state().recovery_active);
  EXPECT_EQ(state().recovery_confirm_count, 0);
  EXPECT_EQ(state().recovery_frame_count, 0);
  EXPECT_FALSE(state().scale_kalman_seeded) << "the predictor is off, so the filter is only reset";
  EXPECT_FALSE(Access::training_in_flight(backend()));
  EXPECT_EQ(Access::active_training_job(backend()), 0);
}

TEST_F(TrackingStart, WaitsForAPreviousTraining) {
  std::promise<void> gate;
  std::atomic<bool> ended{false};
  Access::training_future(backend()) = std::async(std::launch::async, [&] {
    gate.get_future().wait();
    ended = true;
  });
  const auto opener = std::async(std::launch::async, [&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    gate.set_value();
  });
  EXPECT_FALSE(start(cv::Mat(), kBox, &error));
  EXPECT_TRUE(ended) << "also when the start fails later";
  EXPECT_FALSE(Access::training_future(backend()).valid());
}

TEST_F(TrackingStart, TellsTheExceptionOfAPreviousTrainingAndGoesOn) {
  Access::training_future(backend()) =
      std::async(std::launch::async, [] { throw std::runtime_error("boom"); });
  EXPECT_TRUE(start()) << error;
  EXPECT_THAT(printed, StartsWith("[CudaRuntimeBackend][train] initialize previous_job_exception=boom\n"));
  Access::training_future(backend()) = std::async(std::launch::async, [] { throw 7; });
  EXPECT_TRUE(start()) << error;
  EXPECT_THAT(printed, StartsWith("[CudaRuntimeBackend][train] initialize previous_job_exception=unknown\n"));
}

TEST_F(TrackingStart, TracksRawChannelsWithoutAProjection) {
  config.use_projection_matrix = false;
  ASSERT_TRUE(start()) << error;
  EXPECT_THAT(init_lines(), Not(Contains(HasSubstr("direct GPU template"))));
  EXPECT_EQ(weights().filter_channels, kChannels);
  EXPECT_EQ(memory().memory_channels, kChannels);
  EXPECT_TRUE(weights().projection_matrix.empty());
}

TEST_F(TrackingStart, NeedsNoDeviceTemplateForAFixedRandomProjection) {
  config.update_projection_matrix = false;
  ASSERT_TRUE(start()) << error;
  EXPECT_THAT(init_lines(), Not(Contains(HasSubstr("direct GPU template"))));
  EXPECT_EQ(weights().filter_channels, 8);
}

TEST_F(TrackingStart, TakesAnyOtherProjectionFromTheTemplate) {
  config.proj_init_method = "pca";
  config.update_projection_matrix = false;
  ASSERT_TRUE(start()) << error;
  EXPECT_THAT(init_lines(), Not(Contains(HasSubstr("direct GPU template"))));
  const std::vector<float>& matrix = weights().projection_matrix;
  const cv::Mat rows = cv::Mat(matrix, true).reshape(1, 8);
  EXPECT_LT(cv::norm(rows * rows.t(), cv::Mat::eye(8, 8, CV_32F), cv::NORM_INF), 1e-3)
      << "rows of an orthogonal matrix";
}

TEST_F(TrackingStart, RaisesATinyTargetToTheSmallestScale) {
  ASSERT_TRUE(start({40, 30, 2, 2})) << error;
  const TargetState& target = state();
  EXPECT_FLOAT_EQ(target.min_target_scale, 10.0F / (2.0F * 32.0F / 6.0F));
  EXPECT_FLOAT_EQ(target.target_scale, target.min_target_scale);
  EXPECT_GT(target.target_scale, 6.0F / 32.0F);
  EXPECT_EQ(memory().num_stored_samples, 9);
}

TEST_F(TrackingStart, RefusesInASecondStartWithoutForgettingTheFirst) {
  ASSERT_TRUE(start()) << error;
  state().frame_index = 5;
  EXPECT_FALSE(start({10, 10, 0, 5}));
  EXPECT_TRUE(state().initialized);
  EXPECT_EQ(state().frame_index, 5);
  EXPECT_EQ(memory().num_stored_samples, 9);
  EXPECT_THAT(trace_lines(), ElementsAre(StartsWith("init_ok\t0"), StartsWith("init_fail\t5")));
}

}  // namespace
}  // namespace init_test
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
