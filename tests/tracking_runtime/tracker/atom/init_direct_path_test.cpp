// A start whose features stay on the device.

#include <chrono>
#include <future>
#include <mutex>
#include <thread>

#include "tracking_runtime/tracker/atom/direct_start_fixture.h"

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

// Two fits of the same set whose sums are in another order, then the same training.
constexpr double kPathTolerance = 1e-5;

using ostrel::host_cuda::counters;

TEST_F(DirectStart, TellsEachStage) {
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
          "[CudaRuntimeBackend] init stage=joint_opt start samples=9",
          "[CudaRuntimeBackend] init stage=joint_opt done samples=9",
          "[CudaRuntimeBackend] init ready: samples=9 feature=[1,8,8,8] label=[1,8,8]",
          AllOf(StartsWith("[CudaRuntimeBackend] init timing cpu: total="), EndsWith(" path=direct_gpu")),
          AllOf(StartsWith("[CudaRuntimeBackend] init timing path: direct_labels="),
                HasSubstr(" host_aug_feat=0.0 host_dropout=0.0 host_labels=0.0 host_project=0.0 "),
                EndsWith(" memory_train=0.0 template_only=0.0"))));
  EXPECT_THAT(printed, HasSubstr("[CudaJointOptimizer] timing summary: samples=9 gn=2 cg=2 total="));
  EXPECT_THAT(trace_lines(), ElementsAre(HasSubstr("ok_memory_ready")));
}

TEST_F(DirectStart, TakesTheTimeOfEachStageItPasses) {
  InitPipeline pipeline(&backend(), frame, kBox, &error);
  ::testing::internal::CaptureStderr();
  ASSERT_TRUE(pipeline.run()) << error;
  ::testing::internal::GetCapturedStderr();
  const InitTimings t = InitPipelineTestAccess(&pipeline).timings();
  const double passed[] = {t.wait_prev_train,
                           t.runtime,
                           t.template_patch,
                           t.template_device,
                           t.projection_init,
                           t.filter_init,
                           t.shift,
                           t.flip,
                           t.blur,
                           t.rotate,
                           t.dropout_prep,
                           t.direct_labels,
                           t.direct_trt,
                           t.direct_preload,
                           t.direct_dropout,
                           t.joint_opt,
                           t.memory_init,
                           t.projected_download,
                           t.direct_filter_train};
  double sum = 0.0;
  for (const double stage_ms : passed) {
    EXPECT_GT(stage_ms, 0.0);
    sum += stage_ms;
  }
  EXPECT_GE(t.total, sum);
  const double left_out[] = {t.template_host, t.host_aug_feat, t.host_dropout, t.host_labels,
                             t.host_project,  t.memory_train,  t.template_only};
  for (const double stage_ms : left_out) EXPECT_EQ(stage_ms, 0.0);
}

TEST_F(DirectStart, FitsProjectionAndFilterAndTrainsTheFilterOnceMore) {
  ASSERT_TRUE(start()) << error;
  EXPECT_EQ(weights().projection_version, 2u) << "first values, then the fit";
  EXPECT_EQ(weights().filter_version, 3u) << "first values, the fit, the training";
  EXPECT_EQ(memory().num_stored_samples, 9);
  EXPECT_EQ(memory().num_init_samples, 9);
  for (std::size_t i = 0; i < 9; ++i) EXPECT_FLOAT_EQ(memory().sample_weights[i], 1.0F / 9.0F);
}

TEST_F(DirectStart, RunsTheConfiguredIterationsAsATotalOfTheFitAndOnceMoreOnTheFilter) {
  const struct {
    int refinements, iterations, gauss_newton, conjugate_gradient, training;
  } rows[] = {{20, 60, 20, 3, 60}, {20, 1, 20, 1, 1}, {20, 10, 20, 1, 10},
              {20, 59, 20, 2, 59}, {0, 3, 1, 3, 3},   {-4, 0, 1, 1, 1}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.iterations);
    state().config.startup_box_refinement_iterations = row.refinements;
    state().config.startup_filter_iterations = row.iterations;
    ostrel::host_cuda::reset_counters();
    ASSERT_TRUE(start()) << error;
    const int operators = row.gauss_newton * row.conjugate_gradient;
    EXPECT_EQ(counters().launches_of("reduce_batched_projection_gradient_kernel"),
              operators + row.gauss_newton);
    EXPECT_EQ(counters().launches_of("compute_weighted_jtj_response_kernel"), operators + row.training);
  }
}

TEST_F(DirectStart, TellsTheSolverItsSettings) {
  state().config.filter_regularization = 3.0F;
  state().config.projection_regularization = 0.25F;
  const JointFitSettings settings = Access::joint_fit_settings(backend(), 9);
  EXPECT_EQ(settings.filter_regularization, 3.0F);
  EXPECT_EQ(settings.projection_regularization, 0.25F);
  EXPECT_EQ(settings.sample_weight, 1.0F / 9.0F);
  EXPECT_EQ(Access::joint_fit_settings(backend(), 0).sample_weight, 1.0F);
  state().config.filter_regularization = 0.0F;
  EXPECT_EQ(Access::joint_fit_settings(backend(), 9).filter_regularization,
            state().config.filter_regularization_floor);
}

TEST_F(DirectStart, KeepsRawFeaturesOffTheHost) {
  ASSERT_TRUE(start()) << error;
  ostrel::host_cuda::reset_counters();
  ASSERT_TRUE(start()) << error;
  EXPECT_EQ(counters().calls_of("enqueueV3"), 3) << "the template, two chunks of three";
  // The host waits for the fit, the training and the projected samples.
  EXPECT_EQ(counters().synchronisations, 3);
}

TEST_F(DirectStart, StoresEachSampleProjectedInItsPlace) {
  for (const std::size_t scales : {1u, 3u, 4u, 9u}) {
    SCOPED_TRACE(scales);  // as many patches go through the backbone at once
    config.search_scales.assign(scales, 1.0F);
    CudaRuntimeBackend tracker(config);
    InitPipeline pipeline(&tracker, frame, kBox, &error);
    InitPipelineTestAccess steps(&pipeline);
    ::testing::internal::CaptureStderr();
    const bool gathered = steps.prepare() && steps.gather_training_set();
    ::testing::internal::GetCapturedStderr();
    ASSERT_TRUE(gathered) << error;
    ASSERT_EQ(steps.features().size(), 9u);
    for (std::size_t i = 0; i < 9; ++i) {
      FeatureMap raw;
      const std::size_t patch = i < 7 ? i : 0;
      ASSERT_TRUE(Access::extract_feature_map(tracker, steps.augmented().patches[patch].image, &raw, &error));
      if (i >= 7) raw = dropout_feature(raw, steps.augmented().dropout_masks, static_cast<int>(i) - 7);
      const FeatureMap expected = Access::project_feature(tracker, raw);
      EXPECT_LT(largest_difference(expected.data, steps.features()[i].data), kProjectionTolerance) << i;
    }
  }
}

TEST_F(DirectStart, WaitsForAnotherUseOfTheOptimiser) {
  ASSERT_TRUE(start()) << error;
  std::unique_lock<std::mutex> busy(Access::joint_optimizer_mutex(backend()));
  auto started = std::async(std::launch::async, [this] { return start(); });
  EXPECT_EQ(started.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
  busy.unlock();
  EXPECT_TRUE(started.get()) << error;
}

TEST_F(PreparedStart, KeepsTheOptimiserDuringTheLastTraining) {
  ASSERT_NO_FATAL_FAILURE(prepare());
  const auto fitted_version = [this] {
    const std::lock_guard<std::mutex> lock(Access::state_mutex(backend()));
    return weights().projection_version;
  };
  std::unique_lock<std::mutex> trainer(Access::filter_trainer_mutex(backend()));
  auto taken = std::async(std::launch::async, [this] { return take_direct_path(); });
  while (fitted_version() == kept().projection_version &&
         taken.wait_for(std::chrono::milliseconds(1)) == std::future_status::timeout) {
  }
  EXPECT_EQ(taken.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
  EXPECT_FALSE(Access::joint_optimizer_mutex(backend()).try_lock());
  trainer.unlock();
  EXPECT_EQ(taken.get(), 'd') << error;
  EXPECT_EQ(weights().filter_version, kept().filter_version + 2);
}

TEST_F(DirectStart, LeavesTheOptimiserFree) {
  ASSERT_TRUE(start()) << error;
  EXPECT_TRUE(Access::joint_optimizer_mutex(backend()).try_lock());
  Access::joint_optimizer_mutex(backend()).unlock();
}

TEST_F(DirectStart, PreloadsTheHostsTemplateWhereTheProjectionCameFromIt) {
  config.proj_init_method = "pca";
  ASSERT_TRUE(start()) << error;
  EXPECT_EQ(path(), "direct_gpu");
  EXPECT_EQ(weights().projection_version, 2u);
}

TEST_F(DirectStart, LeavesNothingOnTheDeviceHoweverItEnds) {
  ASSERT_TRUE(start()) << error;
  const auto before = counters();
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(start()) << error;
    ostrel::host_cuda::fail_call("enqueueV3", 2, 1);  // leaves for the host
    ASSERT_TRUE(start()) << error;
    ostrel::host_cuda::fail_call("materialize_scaled_sample_copies_kernel", 1, cudaErrorUnknown);
    ASSERT_FALSE(start());
  }
  const auto after = counters();
  EXPECT_EQ(after.live_device_bytes, before.live_device_bytes);
  EXPECT_EQ(after.live_device_allocations, before.live_device_allocations);
  EXPECT_EQ(after.live_pinned_bytes, before.live_pinned_bytes);
  EXPECT_EQ(after.live_events, before.live_events);
  EXPECT_EQ(after.live_streams, before.live_streams);
}

TEST_F(PreparedStart, GivesTheSameAsTheHostPathFromTheSameDraws) {
  ASSERT_NO_FATAL_FAILURE(prepare());
  ASSERT_TRUE(steps().has_device_template());
  ::testing::internal::CaptureStderr();
  const bool direct_done = steps().take_direct_path() == 'd' && steps().train_first_filter();
  ::testing::internal::GetCapturedStderr();
  ASSERT_TRUE(direct_done) << error;
  const ClassifierState direct = weights();
  const std::vector<float> direct_samples = memory().training_features;
  const std::vector<float> direct_labels = memory().training_labels;

  weights() = kept();
  InitPipeline second(&backend(), frame, kBox, &error);
  InitPipelineTestAccess host(&second);
  ::testing::internal::CaptureStderr();
  const bool prepared = host.prepare();
  weights() = kept();
  host.augmented() = steps().augmented();
  const bool host_done = prepared && host.take_host_path() && host.train_first_filter();
  ::testing::internal::GetCapturedStderr();
  ASSERT_TRUE(host_done) << error;

  EXPECT_LT(largest_difference(direct.projection_matrix, weights().projection_matrix), kPathTolerance);
  EXPECT_LT(largest_difference(direct.filter_weights, weights().filter_weights), kPathTolerance);
  EXPECT_LT(largest_difference(direct_samples, memory().training_features), kPathTolerance);
  EXPECT_EQ(direct_labels, memory().training_labels);
  EXPECT_EQ(direct.projection_version, weights().projection_version);
  EXPECT_EQ(direct.filter_version, weights().filter_version);
  EXPECT_GT(largest_difference(direct.projection_matrix, kept().projection_matrix), 100 * kPathTolerance)
      << "the fit moves the matrix";
}

TEST_F(PreparedStart, ReplacesTheWeightsUnderTheLockOfTheState) {
  ASSERT_NO_FATAL_FAILURE(prepare());
  ostrel::host_cuda::reset_counters();
  std::unique_lock<std::mutex> reader(Access::state_mutex(backend()));
  auto fit = std::async(std::launch::async, [this] { return take_direct_path(); });
  // A step of the fit for each of its iterations and for each half of the weights, then the lock.
  while (counters().launches_of("add_in_place_kernel") < 2 * kGaussNewton) std::this_thread::yield();
  EXPECT_EQ(fit.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
  expect_kept_weights();
  reader.unlock();
  EXPECT_EQ(fit.get(), 'd') << error;
  EXPECT_EQ(weights().projection_version, kept().projection_version + 1);
}

TEST_F(PreparedStart, MakesNoDropoutsWithoutMasks) {
  ASSERT_NO_FATAL_FAILURE(prepare());
  steps().set_dropout_masks({});
  ostrel::host_cuda::reset_counters();
  take_direct_path();
  EXPECT_EQ(counters().launches_of("materialize_scaled_sample_copies_kernel"), 0);
}

TEST_F(PreparedStart, MakesBothDropoutsInOneLaunch) {
  ASSERT_NO_FATAL_FAILURE(prepare());
  ostrel::host_cuda::reset_counters();
  EXPECT_EQ(take_direct_path(), 'd') << error;
  EXPECT_EQ(counters().launches_of("materialize_scaled_sample_copies_kernel"), 1);
}

TEST_F(PreparedStart, TakesAShorterSetWhenPatchesAreMissing) {
  ASSERT_NO_FATAL_FAILURE(prepare());
  steps().augmented().patches.resize(1);
  EXPECT_EQ(take_direct_path(), 'd') << error;
  EXPECT_THAT(init_lines(), ElementsAre("[CudaRuntimeBackend] init stage=aug_raw count=3",
                                        "[CudaRuntimeBackend] init stage=joint_opt start samples=3",
                                        "[CudaRuntimeBackend] init stage=joint_opt done samples=3"));
  EXPECT_EQ(steps().features().size(), 3u);
  EXPECT_EQ(steps().labels().size(), 3u);
}

TEST_F(DirectStart, IsNotTakenForAProjectionThatStaysAsItIs) {
  config.update_projection_matrix = false;
  ASSERT_TRUE(start()) << error;
  EXPECT_EQ(path(), "host_path");
  EXPECT_THAT(init_lines(), Not(Contains(HasSubstr("joint_opt start"))));
  EXPECT_EQ(weights().projection_version, 1u);
  EXPECT_EQ(weights().filter_version, 2u);
}

TEST_F(DirectStart, IsNotTakenWithoutAProjection) {
  config.use_projection_matrix = false;
  ASSERT_TRUE(start()) << error;
  EXPECT_EQ(path(), "host_path");
  EXPECT_THAT(init_lines(), Not(Contains(HasSubstr("joint_opt start"))));
}

}  // namespace
}  // namespace init_test
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
