#include "tracking_runtime/tracker/atom/init_fixture.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace init_test {
namespace {

class TrackingStartFinalisation : public TrackingStart {
 protected:
  TrackingStartFinalisation() {
    config.use_projection_matrix = false;
    config.filter_init_method = "zeros";
    config.filter_size = 2;
  }
  const FeatureMap feature{1, 1, 2, 2, {1.0F, 2.0F, 3.0F, 4.0F}};
  const LabelMap label{1, 2, 2, {0.0F, 0.0F, 0.0F, 1.0F}};
  InitTimings timings;
};

TEST_F(TrackingStartFinalisation, NeedsTheTimings) {
  EXPECT_FALSE(Access::finalize_init_training(backend(), {feature}, {label}, 2, true, nullptr, &error));
  EXPECT_EQ(error, "missing init timings state");
  EXPECT_FALSE(Access::finalize_init_training(backend(), {feature}, {label}, 2, true, nullptr, nullptr));
}

TEST_F(TrackingStartFinalisation, FillsTheMemoryAndLeavesATrainedFilter) {
  ASSERT_TRUE(Access::init_filter_weights(backend(), feature));
  EXPECT_TRUE(Access::finalize_init_training(backend(), {feature}, {label}, 2, true, &timings, &error));
  EXPECT_EQ(error, "");
  EXPECT_EQ(memory().num_stored_samples, 1);
  EXPECT_EQ(weights().filter_version, 1u);
  EXPECT_GT(timings.memory_init, 0.0);
  EXPECT_EQ(timings.memory_train, 0.0);
}

TEST_F(TrackingStartFinalisation, TrainsTheFilter) {
  ASSERT_TRUE(Access::init_filter_weights(backend(), feature));
  EXPECT_TRUE(Access::finalize_init_training(backend(), {feature}, {label}, 2, false, &timings, &error));
  EXPECT_EQ(error, "");
  EXPECT_EQ(weights().filter_version, 2u);
  EXPECT_NE(weights().filter_weights, std::vector<float>(4, 0.0F));
  EXPECT_GT(timings.memory_train, 0.0);
}

TEST_F(TrackingStartFinalisation, TellsOfAMemoryThatCannotBeFilled) {
  EXPECT_FALSE(Access::finalize_init_training(backend(), {}, {}, 2, true, &timings, &error));
  EXPECT_EQ(error, "failed to initialize non-Torch training memory");
}

TEST_F(TrackingStartFinalisation, TellsOfAFilterThatCannotBeTrained) {
  EXPECT_FALSE(Access::finalize_init_training(backend(), {feature}, {label}, 2, false, &timings, &error))
      << "there is no filter";
  EXPECT_EQ(error, "failed to optimize initial classifier");
}

TEST_F(TrackingStartFinalisation, ReportsEveryStageOfAStart) {
  SampleMemory& stored = memory();
  stored.num_stored_samples = 9;
  stored.memory_channels = 3;
  stored.memory_height = 4;
  stored.memory_width = 5;
  stored.memory_label_height = 6;
  stored.memory_label_width = 7;
  double* const stages[] = {&timings.total,
                            &timings.wait_prev_train,
                            &timings.runtime,
                            &timings.template_patch,
                            &timings.template_host,
                            &timings.template_device,
                            &timings.projection_init,
                            &timings.filter_init,
                            &timings.shift,
                            &timings.flip,
                            &timings.blur,
                            &timings.rotate,
                            &timings.dropout_prep,
                            &timings.direct_labels,
                            &timings.direct_trt,
                            &timings.direct_preload,
                            &timings.direct_dropout,
                            &timings.joint_opt,
                            &timings.direct_filter_train,
                            &timings.projected_download,
                            &timings.host_aug_feat,
                            &timings.host_dropout,
                            &timings.host_labels,
                            &timings.host_project,
                            &timings.memory_init,
                            &timings.memory_train,
                            &timings.template_only};
  double value = 0.0;
  for (double* stage : stages) *stage = ++value;
  timings.path = "direct_gpu";

  ::testing::internal::CaptureStderr();
  Access::log_init_ready(backend(), kBox, timings);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "[CudaRuntimeBackend] init ready: samples=9 feature=[1,3,4,5] label=[1,6,7]\n"
            "[CudaRuntimeBackend] init timing cpu: total=1.0ms wait_prev_train=2.0 runtime=3.0 "
            "template_patch=4.0 template_host=5.0 template_device=6.0 projection_init=7.0 filter_init=8.0 "
            "aug_cpu=55.0 shift=9.0 flip=10.0 blur=11.0 rotate=12.0 dropout_prep=13.0 path=direct_gpu\n"
            "[CudaRuntimeBackend] init timing path: direct_labels=14.0 direct_trt=15.0 direct_preload=16.0 "
            "direct_dropout=17.0 joint_opt=18.0 direct_filter_train=19.0 projected_download=20.0 "
            "host_aug_feat=21.0 host_dropout=22.0 host_labels=23.0 host_project=24.0 memory_init=25.0 "
            "memory_train=26.0 template_only=27.0\n");
  EXPECT_EQ(trace_lines(),
            std::vector<std::string>{"init_ok\t0\tcuda\tok_memory_ready\t0\t0\t1\t1\t1\t1\t0\t1\t1"})
      << "the box in a frame that has no size yet";
}

TEST_F(TrackingStartFinalisation, StartsWithTimingsAtZero) {
  const InitTimings fresh;
  EXPECT_EQ(fresh.total, 0.0);
  EXPECT_EQ(fresh.template_only, 0.0);
  EXPECT_EQ(fresh.path, "unresolved");
}

}  // namespace
}  // namespace init_test
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
