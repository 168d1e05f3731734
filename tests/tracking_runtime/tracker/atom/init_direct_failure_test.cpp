// Where a start on the device leaves for the host, and where it ends.

#include <functional>

#include "support/heap_counter.h"
#include "tracking_runtime/tracker/atom/direct_start_fixture.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_joint_optimizer_impl.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace init_test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

constexpr const char* kTemplateLine =
    "[CudaRuntimeBackend] init: direct GPU template unavailable, falling back to host extraction: ";

void fail(const char* call, int n = 1) {
  ostrel::host_cuda::fail_call(call, n, cudaErrorUnknown);
}

/// `label` failed with the status of `fail`.
std::string told(const std::string& label) {
  return label + ": " + cudaGetErrorString(cudaErrorUnknown);
}

class DirectTemplate : public DirectStart {
 protected:
  /// A start without a template on the device still fits on the device, from the host's template.
  void expect_host_template(const std::string& reason) {
    ASSERT_TRUE(start()) << error;
    EXPECT_THAT(init_lines(), Contains(kTemplateLine + reason));
    EXPECT_THAT(init_lines(),
                Contains("[CudaRuntimeBackend] init stage=template_feature raw=[1,16,8,8]").Times(1));
    EXPECT_EQ(path(), "direct_gpu");
    EXPECT_EQ(memory().num_stored_samples, 9);
    for (const float weight : weights().filter_weights) EXPECT_TRUE(std::isfinite(weight));
  }
};

TEST_F(DirectTemplate, ComesFromTheHostWhenTheForwardFails) {
  fail("enqueueV3");
  expect_host_template("TensorRT enqueue failed for init device batch");
}

TEST_F(DirectTemplate, ComesFromTheHostWhenNoMemoryIsLeft) {
  ASSERT_TRUE(start()) << error;
  ostrel::host_cuda::fail_call("cudaMalloc", 1, cudaErrorMemoryAllocation);
  expect_host_template(cudaGetErrorString(cudaErrorMemoryAllocation));
}

TEST_F(DirectTemplate, ComesFromTheHostWhenTheCopyFails) {
  ASSERT_TRUE(start()) << error;
  const auto live = ostrel::host_cuda::counters().live_device_allocations;
  fail("cudaMemcpyAsync", 2);  // after the upload of the patch
  expect_host_template(cudaGetErrorString(cudaErrorUnknown));
  EXPECT_EQ(ostrel::host_cuda::counters().live_device_allocations, live);
}

TEST_F(DirectTemplate, TakesItsTime) {
  fail("enqueueV3");
  InitPipeline pipeline(&backend(), frame, kBox, &error);
  ::testing::internal::CaptureStderr();
  ASSERT_TRUE(pipeline.run()) << error;
  ::testing::internal::GetCapturedStderr();
  const InitTimings t = InitPipelineTestAccess(&pipeline).timings();
  EXPECT_GT(t.template_device, 0.0);
  EXPECT_GT(t.template_host, 0.0);
}

/// Three places at which the direct path gives up its set and the host gathers a new one.
class LeavesForHost : public PreparedStart {
 protected:
  /// The path is left with `line`, and nothing has touched the weights.
  void expect_left(const std::string& line) {
    EXPECT_EQ(take_direct_path(), 'h');
    EXPECT_THAT(init_lines(), Contains(line));
    EXPECT_THAT(init_lines(), Not(Contains(HasSubstr("joint_opt done"))));
    expect_kept_weights();
    EXPECT_TRUE(steps().features().empty());
    EXPECT_EQ(steps().timings().path, "unresolved");
    EXPECT_EQ(error, "stale") << "a fall-back is no failure";
    EXPECT_THAT(trace_lines(), IsEmpty());
    ostrel::host_cuda::clear_faults();
  }
};

TEST_F(LeavesForHost, WhenTheForwardOfAnyChunkFails) {
  ASSERT_NO_FATAL_FAILURE(prepare());
  for (const int chunk : {1, 2}) {
    fail("enqueueV3", chunk);
    expect_left(std::string(kChunkLine) + "TensorRT enqueue failed for init device batch");
  }
}

TEST_F(LeavesForHost, WhenAChunkYieldsFewerSamples) {
  ASSERT_NO_FATAL_FAILURE(prepare());
  // One query of the input's shape and one of the output's in each forward.
  ostrel::host_cuda::answer_call("getTensorShape", 2, {2, kChannels, kCells, kCells});
  expect_left(std::string(kChunkLine) + "TensorRT init device batch output shape is invalid");
}

TEST_F(LeavesForHost, WhenAChunkHasAnotherShape) {
  ASSERT_NO_FATAL_FAILURE(prepare());
  const std::vector<std::int64_t> shapes[] = {{3, kChannels - 1, kCells, kCells},
                                              {3, kChannels, kCells - 1, kCells},
                                              {3, kChannels, kCells, kCells + 1}};
  for (const auto& shape : shapes) {
    for (const int query : {2, 4}) {
      ostrel::host_cuda::answer_call("getTensorShape", query, shape);
      expect_left(
          "[CudaRuntimeBackend] init: direct GPU augmented batch chunk shape mismatch, falling back to host "
          "extraction");
    }
  }
}

TEST_F(LeavesForHost, WhenThePreloadOfAChunkFails) {
  ASSERT_NO_FATAL_FAILURE(prepare());
  const std::string line =
      "[CudaRuntimeBackend] init: direct GPU augmented batch chunk preload failed, falling back to host "
      "extraction: ";
  // The first wait is for the template; then two for each chunk, there and back.
  fail("cudaStreamWaitEvent", 2);
  expect_left(line + told("cudaStreamWaitEvent preload_raw_features"));
  fail("cudaStreamWaitEvent", 3);
  expect_left(line + told("cudaStreamWaitEvent hold_back_producer"));
  fail("cudaStreamWaitEvent", 4);
  expect_left(line + told("cudaStreamWaitEvent preload_raw_features"));
}

TEST_F(LeavesForHost, WithABackboneThatIsNotReady) {
  ASSERT_NO_FATAL_FAILURE(prepare());
  Access::trt(backend())->ready = false;
  expect_left(std::string(kChunkLine) + "TensorRT backbone is not ready for device init batch");
}

TEST_F(DirectStart, FitsOnTheHostPathAfterAFailedChunk) {
  ostrel::host_cuda::fail_call("enqueueV3", 3, 1);  // the template, the first chunk, the second
  ASSERT_TRUE(start()) << error;
  EXPECT_EQ(error, "");
  EXPECT_EQ(path(), "host_path");
  const std::vector<std::string> lines = init_lines();
  EXPECT_THAT(lines, Contains(StartsWith(kChunkLine)).Times(1));
  EXPECT_THAT(lines, Contains("[CudaRuntimeBackend] init stage=template_feature raw=[1,16,8,8]").Times(1));
  EXPECT_THAT(lines, Contains("[CudaRuntimeBackend] init stage=aug_raw count=9").Times(2));
  EXPECT_THAT(lines, Contains("[CudaRuntimeBackend] init stage=joint_opt start samples=9").Times(2));
  EXPECT_THAT(lines, Contains("[CudaRuntimeBackend] init stage=joint_opt done samples=9").Times(1));
  EXPECT_THAT(trace_lines(), ElementsAre(HasSubstr("ok_memory_ready")));
  EXPECT_EQ(weights().projection_version, 2u);
  EXPECT_EQ(weights().filter_version, 3u);
  EXPECT_EQ(memory().num_stored_samples, 9);
}

/// Failures that end the start: false, the text, no line in the trace.
class DirectFailure : public DirectStart {
 protected:
  void expect_end(const std::string& text) {
    EXPECT_FALSE(start());
    EXPECT_EQ(error, text);
    EXPECT_THAT(trace_lines(), IsEmpty());
    EXPECT_FALSE(state().initialized);
    EXPECT_THAT(init_lines(), Not(Contains(HasSubstr("joint_opt done"))));
    EXPECT_THAT(init_lines(), Not(Contains(HasSubstr("falling back"))));
    EXPECT_THAT(init_lines(), Not(Contains(HasSubstr("init ready"))));
  }
};

TEST_F(DirectFailure, OfTheBuffers) {
  fail("cublasCreate");
  expect_end("cublasCreate joint optimizer: CUBLAS_STATUS_UNKNOWN");
  EXPECT_EQ(weights().projection_version, 1u);
  EXPECT_TRUE(start()) << "the next start has what it needs: " << error;
}

TEST_F(DirectFailure, OfTheTemplatesPreload) {
  fail("cudaStreamWaitEvent");
  expect_end(told("cudaStreamWaitEvent preload_raw_features"));
}

TEST_F(DirectFailure, OfTheDropouts) {
  fail("materialize_scaled_sample_copies_kernel");
  expect_end(told("materialize_scaled_sample_copies_kernel"));
}

TEST_F(DirectFailure, OfTheFit) {
  fail("set_scaled_vector_kernel");
  expect_end(told("set_scaled_vector_kernel"));
}

TEST_F(PreparedStart, LeavesTheWeightsAloneWhenTheFitFails) {
  ASSERT_NO_FATAL_FAILURE(prepare());
  fail("set_scaled_vector_kernel");
  EXPECT_EQ(take_direct_path(), 'f');
  expect_kept_weights();
  EXPECT_EQ(steps().timings().path, "direct_gpu");
  EXPECT_GT(steps().timings().joint_opt, 0.0);
}

TEST_F(PreparedStart, KeepsTheFittedWeightsWhenTheViewFails) {
  ASSERT_NO_FATAL_FAILURE(prepare());
  ostrel::host_cuda::fail_call("cublasSgemmStridedBatched", kProductsOfAFit + 1, 13);
  EXPECT_EQ(take_direct_path(), 'f');
  EXPECT_EQ(error, "cublasSgemmStridedBatched project_features: CUBLAS_STATUS_EXECUTION_FAILED");
  EXPECT_EQ(weights().projection_version, kept().projection_version + 1);
  EXPECT_EQ(weights().filter_version, kept().filter_version + 1);
  EXPECT_EQ(steps().timings().direct_filter_train, 0.0);
}

TEST_F(PreparedStart, KeepsTheFittedWeightsWhenTheLastTrainingFails) {
  ASSERT_NO_FATAL_FAILURE(prepare());
  fail("compute_weighted_residual_grad_kernel", kGaussNewton + 1);  // one for each iteration of the fit
  EXPECT_EQ(take_direct_path(), 'f');
  EXPECT_THAT(error, HasSubstr(cudaGetErrorString(cudaErrorUnknown)));
  EXPECT_EQ(weights().projection_version, kept().projection_version + 1);
  EXPECT_EQ(weights().filter_version, kept().filter_version + 1);
  EXPECT_NE(weights().projection_matrix, kept().projection_matrix);
  EXPECT_NE(weights().filter_weights, kept().filter_weights);
  EXPECT_GT(steps().timings().direct_filter_train, 0.0);
  EXPECT_EQ(steps().timings().projected_download, 0.0);
}

TEST_F(DirectFailure, OfTheLastTraining) {
  fail("compute_weighted_residual_grad_kernel", kGaussNewton + 1);
  EXPECT_FALSE(start());
  EXPECT_THAT(error, HasSubstr(cudaGetErrorString(cudaErrorUnknown)));
  EXPECT_THAT(trace_lines(), IsEmpty());
  EXPECT_FALSE(state().initialized);
  EXPECT_THAT(init_lines(), Not(Contains(HasSubstr("falling back"))));
  EXPECT_EQ(memory().num_stored_samples, 0);
}

TEST_F(DirectFailure, OfTheExport) {
  ostrel::host_cuda::fail_call("cublasSgemmStridedBatched", kProductsOfAFit + 2, 13);
  expect_end("cublasSgemmStridedBatched project_features: CUBLAS_STATUS_EXECUTION_FAILED");
}

TEST_F(PreparedStart, KeepsTheTrainedFilterWhenTheExportFails) {
  ASSERT_NO_FATAL_FAILURE(prepare());
  ostrel::host_cuda::fail_call("cublasSgemmStridedBatched", kProductsOfAFit + 2, 13);
  EXPECT_EQ(take_direct_path(), 'f');
  EXPECT_EQ(weights().filter_version, kept().filter_version + 2);
  EXPECT_TRUE(steps().features().empty());
}

TEST_F(PreparedStart, NeedsALabelOfTheTemplateAndTracesThat) {
  ASSERT_NO_FATAL_FAILURE(prepare());
  steps().set_raw_sizes(kChannels, 0, kCells);
  EXPECT_EQ(take_direct_path(), 'f');
  EXPECT_EQ(error, "failed to build initialization labels");
  EXPECT_THAT(
      trace_lines(),
      ElementsAre(StartsWith("init_fail\t0\tcuda\tfailed to build initialization labels\t30\t20\t16\t12")));
  EXPECT_THAT(printed, IsEmpty());
}

TEST_F(DirectStart, NeedsSomeTemplateForThePreload) {
  InitPipeline pipeline(&backend(), frame, kBox, &error);
  InitPipelineTestAccess steps(&pipeline);
  steps.set_raw_sizes(kChannels, kCells, kCells);
  ASSERT_TRUE(steps.set_up_projection() && steps.set_up_filter());
  state().target_scale = 1.0F;
  state().base_target_size = {8.0F, 8.0F};
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(steps.take_direct_path(), 'f');
  ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(error, "TensorRT backbone is not ready");
  EXPECT_THAT(trace_lines(), IsEmpty());
}

TEST_F(DirectStart, EndsWithoutAnOptimiser) {
  ostrel_test::fail_heap_allocations_of(sizeof(CudaJointOptimizer::Impl));
  const bool started = start();
  ostrel_test::fail_heap_allocations_of(0);
  EXPECT_FALSE(started);
  EXPECT_EQ(error, "CUDA joint optimizer is unavailable");
  EXPECT_THAT(trace_lines(), IsEmpty());
  EXPECT_THAT(init_lines(), Contains("[CudaRuntimeBackend] init stage=joint_opt start samples=9"));
  EXPECT_EQ(Access::joint_optimizer(backend()), nullptr);
}

TEST_F(DirectStart, FallsBackToTheTemplateAloneWhenTheMemoryRefusesTheSet) {
  ASSERT_TRUE(start()) << error;
  InitPipeline pipeline(&backend(), frame, kBox, &error);
  InitPipelineTestAccess steps(&pipeline);
  ::testing::internal::CaptureStderr();
  ASSERT_TRUE(steps.prepare() && steps.gather_training_set()) << error;
  steps.drop_last_label();
  EXPECT_TRUE(steps.train_first_filter()) << error;
  ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(steps.timings().path, "template_only");
  EXPECT_EQ(memory().num_stored_samples, 1);
}

}  // namespace
}  // namespace init_test
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
