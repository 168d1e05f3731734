#include <functional>

#include "tracking_runtime/tracker/atom/init_fixture.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace init_test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr const char* kNoBox = "0\t0\t0\t0";

class TrackingStartFailure : public TrackingStart {
 protected:
  /// The last line of the trace is a failure that reads `status` and carries `rect`.
  void expect_traced(const std::string& status, const std::string& rect) {
    const std::vector<std::string> lines = trace_lines();
    ASSERT_FALSE(lines.empty());
    std::ostringstream expected;
    expected << "init_fail\t0\tcuda\t" << status << "\t" << rect << "\t0\t0\t0\t1\t" << state().target_scale;
    EXPECT_EQ(lines.back(), expected.str());
  }

  /// A start that fails with `text`: the trace speaks it to a caller that takes texts, and `word` to others.
  void expect_failure(const cv::Mat& image, const cv::Rect_<int>& box, const std::string& text,
                      const std::string& word, const std::string& rect) {
    EXPECT_FALSE(start(image, box, &error));
    EXPECT_EQ(error, text);
    expect_traced(text, rect);
    EXPECT_FALSE(start(image, box, nullptr));
    expect_traced(word, rect);
    EXPECT_FALSE(state().initialized);
    EXPECT_EQ(trace_lines().size(), 2u);
  }

  /// The same for one step of a pipeline that `prepare` has brought into the state before it.
  void expect_step_failure(const std::function<bool(InitPipelineTestAccess&)>& step, const std::string& text,
                           const std::string& word, const std::string& rect) {
    state().image_size = frame.size();
    for (std::string* const target : {&error, static_cast<std::string*>(nullptr)}) {
      InitPipeline pipeline(&backend(), frame, kBox, target);
      InitPipelineTestAccess access(&pipeline);
      ::testing::internal::CaptureStderr();
      EXPECT_FALSE(step(access));
      printed = ::testing::internal::GetCapturedStderr();
      expect_traced(target != nullptr ? text : word, rect);
    }
    EXPECT_EQ(error, text);
  }
};

TEST_F(TrackingStartFailure, RefusesAnEmptyImage) {
  expect_failure(cv::Mat(), kBox, "initialize image is empty", "initialize image is empty", kNoBox);
  EXPECT_FALSE(state().runtime_initialized);
}

TEST_F(TrackingStartFailure, RefusesABoxWithoutASideBeforeTouchingTheRuntime) {
  expect_failure(frame, {10, 10, 0, 5}, "initialize bbox is invalid", "initialize bbox is invalid", kNoBox);
  EXPECT_FALSE(state().runtime_initialized);
  EXPECT_THAT(printed, IsEmpty());
}

TEST_F(TrackingStartFailure, RefusesANegativeHeight) {
  expect_failure(frame, {10, 10, 5, -1}, "initialize bbox is invalid", "initialize bbox is invalid", kNoBox);
}

TEST_F(TrackingStartFailure, KeepsTheTextOfTheRuntime) {
  config.trt_engine_path = folder.path("missing.onnx");
  expect_failure(frame, kBox, "TensorRT backbone engine not found: " + config.trt_engine_path,
                 "initialize_runtime_failed", kNoBox);
}

TEST_F(TrackingStartFailure, NeedsASearchPatch) {
  config.search_size = 0;
  expect_failure(frame, kBox, "failed to sample initialization search patch",
                 "failed_to_sample_initialization_search_patch", kNoBox);
}

TEST_F(TrackingStartFailure, NeedsTheFeatureOfTheTemplate) {
  ostrel::host_cuda::fail_every_call("enqueueV3", 1);
  expect_failure(frame, kBox, "failed to extract template feature", "failed_to_extract_template_feature",
                 kNoBox);
  EXPECT_THAT(printed, Not(HasSubstr("stage=template_feature")));
}

TEST_F(TrackingStartFailure, NeedsAProjection) {
  expect_step_failure(
      [](InitPipelineTestAccess& access) {
        access.set_raw_sizes(kChannels, 0, kCells);
        return access.set_up_projection();
      },
      "failed to initialize projection matrix", "failed_to_initialize_projection_matrix", "30\t20\t16\t12");
}

TEST_F(TrackingStartFailure, NeedsAFilter) {
  expect_step_failure(
      [](InitPipelineTestAccess& access) {
        access.set_raw_sizes(kChannels, kCells, 0);
        return access.set_up_filter();
      },
      "failed to initialize classifier filter weights", "failed_to_initialize_classifier_filter_weights",
      "30\t20\t16\t12");
}

TEST_F(TrackingStartFailure, NeedsALabel) {
  expect_step_failure([](InitPipelineTestAccess& access) { return access.make_labels(); },
                      "failed to build initialization labels", "failed_to_build_initialization_labels",
                      "30\t20\t16\t12");
}

TEST_F(TrackingStartFailure, NeedsTheTemplateOnTheHostPathToo) {
  expect_step_failure(
      [](InitPipelineTestAccess& access) {
        access.set_raw_sizes(kChannels, kCells, kCells);
        return access.gather_raw_items();
      },
      "failed to extract template feature", "failed_to_extract_template_feature", kNoBox);
}

TEST_F(TrackingStartFailure, NeedsTheTemplateForDropoutsAndTracesNothing) {
  InitPipeline pipeline(&backend(), frame, kBox, &error);
  InitPipelineTestAccess access(&pipeline);
  EXPECT_FALSE(access.add_dropout_items());
  EXPECT_EQ(error, "TensorRT backbone is not ready");
  EXPECT_THAT(trace_lines(), IsEmpty());
}

TEST_F(TrackingStartFailure, TracesTheFinalisationWhenTheTemplateAloneFailsToo) {
  expect_step_failure([](InitPipelineTestAccess& access) { return access.train_first_filter(); },
                      "TensorRT backbone is not ready", "failed to initialize non-Torch training memory",
                      "30\t20\t16\t12");
}

TEST_F(TrackingStartFailure, CannotFallBackToATemplateThatDoesNotProject) {
  weights().projection_matrix = {1.0F, 0.0F};
  weights().proj_in_channels = 2;
  weights().proj_out_channels = 1;
  expect_step_failure(
      [](InitPipelineTestAccess& access) {
        access.set_template({1, 3, 1, 1, {1.0F, 2.0F, 3.0F}});
        return access.train_first_filter();
      },
      "failed to project template feature", "failed to initialize non-Torch training memory",
      "30\t20\t16\t12");
}

TEST_F(TrackingStartFailure, CannotFallBackWithoutAMemory) {
  config.use_projection_matrix = false;
  expect_step_failure(
      [](InitPipelineTestAccess& access) {
        access.set_template({2, 1, 1, 1, {1.0F, 2.0F}});
        return access.train_first_filter();
      },
      "failed to initialize template-only training memory", "failed to initialize non-Torch training memory",
      "30\t20\t16\t12");
}

TEST_F(TrackingStartFailure, CannotFallBackWithoutATrainer) {
  config.update_projection_matrix = false;
  ostrel::host_cuda::fail_every_call("compute_weighted_residual_grad_kernel", cudaErrorLaunchFailure);
  expect_failure(frame, {90, -4, 16, 12}, "failed to optimize template-only classifier",
                 "failed to optimize initial classifier", "80\t0\t16\t12");
  EXPECT_EQ(memory().num_stored_samples, 1);
  EXPECT_EQ(state().target_pos, cv::Point_<float>(97.5F, 1.5F)) << "the attempt stays behind";
  EXPECT_EQ(state().target_size, cv::Size_<float>(16.0F, 12.0F));
  EXPECT_FALSE(weights().projection_matrix.empty());
  EXPECT_FALSE(weights().filter_weights.empty());
}

TEST_F(TrackingStartFailure, ResetsTheRunBeforeItChecksTheImage) {
  Access::training_in_flight(backend()) = true;
  Access::active_training_job(backend()) = 4;
  state().recovery_active = true;
  state().recovery_confirm_count = 2;
  state().recovery_frame_count = 3;
  state().scale_kalman_seeded = true;
  EXPECT_FALSE(start(cv::Mat(), kBox, &error));
  EXPECT_FALSE(Access::training_in_flight(backend()));
  EXPECT_EQ(Access::active_training_job(backend()), 0);
  EXPECT_FALSE(state().recovery_active);
  EXPECT_EQ(state().recovery_confirm_count, 0);
  EXPECT_EQ(state().recovery_frame_count, 0);
  EXPECT_FALSE(state().scale_kalman_seeded);
}

TEST_F(TrackingStartFailure, StartsAfterAFailureHasGone) {
  ostrel::host_cuda::fail_every_call("enqueueV3", 1);
  EXPECT_FALSE(start());
  ostrel::host_cuda::clear_faults();
  EXPECT_TRUE(start()) << error;
  EXPECT_EQ(error, "");
}

}  // namespace
}  // namespace init_test
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
