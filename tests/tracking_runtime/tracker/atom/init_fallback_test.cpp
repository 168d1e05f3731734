#include "tracking_runtime/tracker/atom/init_fixture.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace init_test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr const char* kSequentialLine =
    "[CudaRuntimeBackend] init: batched augmented feature extraction unavailable, falling back to sequential";

/// Network runs of a start: the template, the batch of six patches, then one by one.
class TrackingStartFallback : public TrackingStart {
 protected:
  TrackingStartFallback() { config.update_projection_matrix = false; }

  static void fail_run(int number) { ostrel::host_cuda::fail_call("enqueueV3", number, 1); }
};

TEST_F(TrackingStartFallback, ExtractsOneByOneWhenTheBatchFails) {
  fail_run(2);  // the batch
  fail_run(4);  // the second patch of the batch's own sequential tier
  ASSERT_TRUE(start()) << error;
  EXPECT_THAT(init_lines(), Contains(kSequentialLine));
  EXPECT_THAT(init_lines(), Contains("[CudaRuntimeBackend] init stage=aug_raw count=9"));
  EXPECT_THAT(init_lines(), Contains(EndsWith("path=host_path")));
}

TEST_F(TrackingStartFallback, StaysSilentWhileTheBatchFindsItsOwnWay) {
  fail_run(2);
  ASSERT_TRUE(start()) << error;
  EXPECT_THAT(init_lines(), Not(Contains(kSequentialLine)));
  EXPECT_EQ(memory().num_stored_samples, 9);
}

TEST_F(TrackingStartFallback, LeavesOutThePatchesThatFail) {
  fail_run(2);
  fail_run(3);
  fail_run(3 + 2);  // one by one from run 4 on: second shift, mirror and last rotation are patches 2, 3 and 6
  fail_run(3 + 3);
  fail_run(3 + 6);
  ASSERT_TRUE(start()) << error;
  EXPECT_THAT(init_lines(), Contains(HasSubstr("init skip augmented sample 2: TensorRT")));
  EXPECT_THAT(init_lines(), Contains(HasSubstr("init skip augmented sample 3: TensorRT")));
  EXPECT_THAT(init_lines(), Contains(HasSubstr("init skip augmented sample 6: TensorRT")));
  EXPECT_THAT(init_lines(), Contains("[CudaRuntimeBackend] init stage=aug_raw count=6"));
  EXPECT_EQ(memory().num_stored_samples, 6);
}

TEST_F(TrackingStartFallback, KeepsTemplateAndDropoutsWhenAllAugmentationsFail) {
  for (int run = 2; run <= 9; ++run) fail_run(run);
  ASSERT_TRUE(start()) << error;
  EXPECT_THAT(init_lines(), Contains("[CudaRuntimeBackend] init stage=aug_raw count=3"));
  EXPECT_EQ(memory().num_stored_samples, 3);
  for (std::size_t i = 0; i < 3; ++i) EXPECT_FLOAT_EQ(memory().sample_weights[i], 1.0F / 3.0F);
}

TEST_F(TrackingStartFallback, TrainsOnTheTemplateAloneWhenTheSolverFails) {
  ostrel::host_cuda::fail_call("compute_weighted_residual_grad_kernel", 1, cudaErrorLaunchFailure);
  ASSERT_TRUE(start()) << error;
  EXPECT_EQ(error, "");
  EXPECT_THAT(init_lines(), Contains(EndsWith("path=template_only")));
  EXPECT_THAT(init_lines(),
              Contains("[CudaRuntimeBackend] init ready: samples=1 feature=[1,8,8,8] label=[1,8,8]"));
  EXPECT_EQ(memory().num_stored_samples, 1);
  EXPECT_FLOAT_EQ(memory().sample_weights[0], 1.0F);
  EXPECT_THAT(trace_lines(), ElementsAre(HasSubstr("ok_memory_ready")));
}

TEST_F(TrackingStartFallback, TakesTheTimeOfTheFallback) {
  ostrel::host_cuda::fail_call("compute_weighted_residual_grad_kernel", 1, cudaErrorLaunchFailure);
  InitPipeline pipeline(&backend(), frame, kBox, &error);
  ::testing::internal::CaptureStderr();
  ASSERT_TRUE(pipeline.run()) << error;
  ::testing::internal::GetCapturedStderr();
  const InitTimings t = InitPipelineTestAccess(&pipeline).timings();
  EXPECT_GT(t.template_only, 0.0);
}

TEST_F(TrackingStartFallback, KeepsTheTemplateAloneWhenNoLabelCanBeBuilt) {
  ASSERT_TRUE(start()) << error;
  InitPipeline pipeline(&backend(), frame, kBox, &error);
  InitPipelineTestAccess access(&pipeline);
  const FeatureMap feature{1, 2, 2, 3, std::vector<float>(12, 1.0F)};
  access.set_template(feature);
  access.add_item(feature);
  access.add_item(feature);
  access.add_item(feature);
  access.set_raw_sizes(2, 0, 3);  // no label can be built for features without rows
  ::testing::internal::CaptureStderr();
  EXPECT_TRUE(access.make_labels());
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "[CudaRuntimeBackend] init fallback: augmented labels unavailable, using template-only "
            "initialization\n");
  EXPECT_EQ(access.item_count(), 1u);
  ASSERT_EQ(access.item_labels().size(), 1u);
  EXPECT_EQ(access.item_labels()[0].height, 2);
  EXPECT_EQ(access.item_labels()[0].width, 3);
}

TEST_F(TrackingStartFallback, SkipsSamplesThatDoNotProjectWithTheirLabels) {
  weights().projection_matrix = {1.0F, 2.0F};
  weights().proj_in_channels = 2;
  weights().proj_out_channels = 1;
  InitPipeline pipeline(&backend(), frame, kBox, &error);
  InitPipelineTestAccess access(&pipeline);
  access.set_raw_sizes(2, 1, 1);
  access.add_item({1, 2, 1, 1, {1.0F, 1.0F}});
  access.add_item({1, 3, 1, 1, {1.0F, 1.0F, 1.0F}});
  access.add_item({1, 2, 1, 1, {1.0F, 2.0F}});
  ASSERT_TRUE(access.make_labels());
  access.project_items();
  ASSERT_EQ(access.features().size(), 2u);
  EXPECT_EQ(access.labels().size(), 2u);
  EXPECT_EQ(access.features()[0].data, std::vector<float>{3.0F});
  EXPECT_EQ(access.features()[1].data, std::vector<float>{5.0F});
}

}  // namespace
}  // namespace init_test
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
