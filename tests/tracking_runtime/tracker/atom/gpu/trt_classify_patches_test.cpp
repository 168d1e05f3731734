#include "classify_fixture.h"
#include "tracking_runtime/tracker/atom/gpu/trt_forward.h"
#include "tracking_runtime/tracker/atom/response_analysis.h"

namespace ostrel_test {
namespace {

class ClassifyPatches : public ClassifyTest {
 protected:
  void expect_failure(const std::vector<cv::Mat>& patches, const std::string& text) {
    responses.assign(2, cv::Mat(1, 1, CV_32F));
    features.assign(2, FeatureMap{1, 1, 1, 1, {1.0F}});
    EXPECT_FALSE(classify_patches(patches));
    EXPECT_EQ(error, text);
    EXPECT_EQ(cudaGetLastError(), cudaSuccess);
    host_cuda::clear_faults();
    EXPECT_FALSE(
        atom::classify_patches(nullptr, trt_workers, patches, guarded(), &scratch, outputs(), nullptr));
  }
};

TEST_F(ClassifyPatches, AgreesWithPlainLoopsOnOneWorkerAndOnThree) {
  const StridedEngine engine = engine_of_batch(1);
  for (const std::size_t scales : {1, 2, 3}) {
    ASSERT_TRUE(start(engine, scales));
    for (const std::size_t count : {1, 3, 5}) {
      SCOPED_TRACE(::testing::Message() << count << " patches, " << 1 + trt_workers.size() << " workers");
      const std::vector<cv::Mat> patches = random_patches(count);
      ASSERT_TRUE(classify_patches(patches)) << error;
      expect_results(engine, patches);
    }
  }
}

TEST_F(ClassifyPatches, AgreesWithTheHostRoute) {
  ASSERT_TRUE(start(engine_of_batch(1), 3));
  ASSERT_TRUE(classify_patches(random_patches(3))) << error;
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_LT(cv::norm(atom::classify_feature(features[i], weights), responses[i], cv::NORM_INF),
              kResponseTolerance);
  }
}

TEST_F(ClassifyPatches, AgreesWithTheTensorBatch) {
  ASSERT_TRUE(start(StridedEngine{}, 3));
  const std::vector<cv::Mat> patches = random_patches(3);
  ASSERT_TRUE(classify_patches(patches)) << error;
  const std::vector<cv::Mat> by_patches = responses;
  ASSERT_TRUE(classify_batch(patches)) << error;
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_LT(cv::norm(by_patches[i], responses[i], cv::NORM_INF), kResponseTolerance);
  }
}

TEST_F(ClassifyPatches, RunsAContextThatStandsAtALargerBatchAndReadsItsFirstSample) {
  const StridedEngine engine;  // three scales: the context stands at batch 3
  ASSERT_TRUE(start(engine, 3));
  const std::vector<cv::Mat> patches = random_patches(4);
  ASSERT_TRUE(classify_patches(patches)) << error;
  expect_results(engine, patches);
  EXPECT_EQ(trt->context->getTensorShape("input").d[0], 3) << "the shape is not set";
}

TEST_F(ClassifyPatches, BindsItsOwnInputAfterATensorBatchIsGone) {
  const StridedEngine engine;
  ASSERT_TRUE(start(engine, 3));
  const std::vector<cv::Mat> patches = random_patches(3);
  ASSERT_TRUE(classify_batch(patches)) << error;  // its memory is freed here
  ASSERT_TRUE(classify_patches(patches)) << error;
  expect_results(engine, patches);
}

TEST_F(ClassifyPatches, RunsWithoutProjection) {
  const StridedEngine engine = engine_of_batch(1);
  ASSERT_TRUE(start(engine, 2));
  weights = random_weights(6, 0, 3, 3);
  use_projection = false;
  const std::vector<cv::Mat> patches = random_patches(2);
  ASSERT_TRUE(classify_patches(patches)) << error;
  expect_results(engine, patches);
}

TEST_F(ClassifyPatches, RunsSideBySideWithOneWorkerPerPatch) {
  ASSERT_TRUE(start(engine_of_batch(1), 3));
  ASSERT_TRUE(classify_patches(random_patches(3))) << error;
  for (const auto& worker : trt_workers) EXPECT_NE(worker->classifier, nullptr);
  trt_workers[0]->ready = false;
  host_cuda::reset_counters();
  ASSERT_TRUE(classify_patches(random_patches(2))) << error;
  EXPECT_EQ(host_cuda::counters().enqueued["enqueueV3"], 2) << "a worker that is not ready is passed over";
}

TEST_F(ClassifyPatches, QueuesAWholeGroupBeforeItWaits) {
  ASSERT_TRUE(start(engine_of_batch(1), 3));
  ASSERT_TRUE(classify_patches(random_patches(3))) << error;
  // The first wait of the group fails; by then all three networks are queued.
  host_cuda::reset_counters();
  host_cuda::fail_call("cudaStreamSynchronize", 1, cudaErrorInvalidValue);
  EXPECT_FALSE(classify_patches(random_patches(3)));
  EXPECT_EQ(host_cuda::counters().enqueued["enqueueV3"], 3);

  ASSERT_TRUE(start(engine_of_batch(1), 1));
  ASSERT_TRUE(classify_patches(random_patches(3))) << error;
  host_cuda::reset_counters();
  host_cuda::fail_call("cudaStreamSynchronize", 1, cudaErrorInvalidValue);
  EXPECT_FALSE(classify_patches(random_patches(3)));
  EXPECT_EQ(host_cuda::counters().enqueued["enqueueV3"], 1) << "one worker makes groups of one";
}

TEST_F(ClassifyPatches, QueuesTheNetworkBeforeItRefreshesTheWeights) {
  ASSERT_TRUE(start(engine_of_batch(1), 1));
  ASSERT_TRUE(classify_patches(random_patches(1))) << error;
  weights.filter_version = 2;
  // The trace notes a network twice: the call and its work.
  const char* const expected =
      "setTensorAddress cudaEventRecord cudaMemcpyAsync cudaEventRecord "
      "cudaEventRecord bgr8_to_rgb_planar_float_kernel cudaEventRecord "
      "cudaEventRecord enqueueV3 enqueueV3 cudaMemcpy cudaMemcpy cudaStreamSynchronize "
      "project_features_kernel classify_kernel cudaEventRecord "
      "cudaEventRecord cudaMemcpyAsync cudaEventRecord cudaStreamSynchronize "
      "cudaEventRecord cudaMemcpyAsync cudaEventRecord cudaStreamSynchronize "
      "cudaEventElapsedTime cudaEventElapsedTime cudaEventElapsedTime cudaEventElapsedTime "
      "cudaEventElapsedTime";
  host_cuda::start_trace();
  EXPECT_TRUE(classify_patches(random_patches(1))) << error;
  EXPECT_EQ(joined(host_cuda::stop_trace()), expected);
}

TEST_F(ClassifyPatches, AddsTheSlowestWorkerOfEachGroup) {
  ASSERT_TRUE(start(engine_of_batch(1), 3));
  ASSERT_TRUE(classify_patches(random_patches(3))) << error;
  const auto slowest = [this](atom::CudaEventPair TrtBackbone::*events) {
    return std::max({atom::elapsed_cuda_event_pair_ms((*trt).*events),
                     atom::elapsed_cuda_event_pair_ms((*trt_workers[0]).*events),
                     atom::elapsed_cuda_event_pair_ms((*trt_workers[1]).*events)});
  };
  EXPECT_EQ(timings.upload_u8_ms, slowest(&TrtBackbone::upload_u8_events));
  EXPECT_EQ(timings.preprocess_cuda_ms, slowest(&TrtBackbone::preprocess_events));
  EXPECT_EQ(timings.trt_wait_ms, slowest(&TrtBackbone::trt_wait_events));
  EXPECT_EQ(timings.d2h_response_ms, slowest(&TrtBackbone::d2h_response_events));
  EXPECT_EQ(timings.d2h_projected_ms, slowest(&TrtBackbone::d2h_projected_events));
  EXPECT_GT(timings.trt_wait_ms, 0.0F);

  ASSERT_TRUE(start(engine_of_batch(1), 1));
  ASSERT_TRUE(classify_patches(random_patches(2))) << error;
  EXPECT_GT(timings.trt_wait_ms, atom::elapsed_cuda_event_pair_ms(trt->trt_wait_events))
      << "two groups cost more than the last of them";
}

TEST_F(ClassifyPatches, CopiesNoSampleWhereNoneIsWanted) {
  ASSERT_TRUE(start(engine_of_batch(1), 2));
  const std::vector<cv::Mat> patches = random_patches(2);
  host_cuda::reset_counters();
  ASSERT_TRUE(atom::classify_patches(trt, trt_workers, patches, guarded(), &scratch, {&responses}, nullptr));
  EXPECT_EQ(host_cuda::counters().calls_of("cudaMemcpyAsync"), 4) << "two patches up, two responses down";
  EXPECT_EQ(host_cuda::counters().synchronisations, 4) << "each worker's weights, each response";
}

TEST_F(ClassifyPatches, AllocatesNothingOnTheDeviceOnceItIsWarm) {
  ASSERT_TRUE(start(engine_of_batch(1), 3));
  ASSERT_TRUE(classify_patches(random_patches(3))) << error;
  host_cuda::reset_counters();
  ASSERT_TRUE(classify_patches(random_patches(3))) << error;
  EXPECT_EQ(host_cuda::counters().calls_of("cudaMalloc"), 0);
  EXPECT_EQ(host_cuda::counters().calls_of("cudaMallocHost"), 0);
  EXPECT_EQ(host_cuda::counters().calls_of("cudaMemcpy"), 0);
}

TEST_F(ClassifyPatches, RefusesToAnswerNowhere) {
  ASSERT_TRUE(start(engine_of_batch(1), 1));
  EXPECT_FALSE(
      atom::classify_patches(trt, trt_workers, random_patches(1), guarded(), &scratch, {nullptr}, &error));
  EXPECT_EQ(error, "null GPU response output");
}

TEST_F(ClassifyPatches, RefusesToRunWithoutReadyWorkerOrPatches) {
  const std::string text = "TensorRT backbone is not ready for GPU classify path";
  expect_failure(random_patches(1), text);
  ASSERT_TRUE(start(engine_of_batch(1), 3));
  expect_failure({}, text);
  trt->ready = false;
  expect_failure(random_patches(1), text);
}

TEST_F(ClassifyPatches, RefusesWeightsThatAreNotReadyOrDoNotFit) {
  ASSERT_TRUE(start(engine_of_batch(1), 1));
  const std::vector<cv::Mat> patches = random_patches(1);
  weights.filter_weights.clear();
  expect_failure(patches, "classifier filter state is not ready for GPU classify path");
  weights = random_weights(5, 4, 4, 4);
  expect_failure(patches, "projection matrix input channels do not match TensorRT feature channels");
  weights = random_weights(6, 32, 4, 4);
  weights.filter_channels = 64;
  weights.filter_weights = random_values(64 * 16, 1);
  expect_failure(patches, "classifier filter shape does not match GPU classify path");
}

TEST_F(ClassifyPatches, NamesTheCallThatFailed) {
  ASSERT_TRUE(start(engine_of_batch(1), 2));
  const struct {
    const char* call;
    int n;
    const char* text;
  } rows[] = {
      {"setTensorAddress", 1, "failed to bind TensorRT worker input tensor"},
      {"cudaEventRecord", 1, "failed to record CUDA event for upload_u8 start"},
      {"cudaMemcpyAsync", 2, "failed to copy TensorRT uint8 input to device"},
      {"cudaEventRecord", 5, "failed to record CUDA event for trt_wait start"},
      {"enqueueV3", 1, "TensorRT enqueue failed for GPU classify path"},
      {"enqueueV3", 2, "TensorRT enqueue failed for GPU classify path"},
      {"cudaMalloc", 1, "cudaMalloc projection: invalid argument"},
      {"cudaMemcpy", 2, "cudaMemcpy filter: invalid argument"},
      {"project_features_kernel", 1, "project_features_kernel: invalid argument"},
      {"classify_kernel", 1, "classify_kernel: invalid argument"},
      {"cudaEventRecord", 6, "failed to record CUDA event for trt_wait stop"},
      {"cudaStreamSynchronize", 2, "cudaMemcpy filter: invalid argument"},  // one for each worker's weights
      {"cudaStreamSynchronize", 3, "cudaStreamSynchronize response: invalid argument"},
      {"cudaStreamSynchronize", 4, "cudaStreamSynchronize projected sample: invalid argument"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(::testing::Message() << row.text << ", " << row.call << " " << row.n);
    ASSERT_TRUE(start(engine_of_batch(1), 2));  // with classifiers to be made
    host_cuda::fail_call(row.call, row.n, cudaErrorInvalidValue);
    expect_failure(random_patches(2), row.text);
    EXPECT_TRUE(classify_patches(random_patches(2))) << "the workers stay usable: " << error;
  }
}

TEST_F(ClassifyPatches, RefusesPatchesOfAnotherSize) {
  ASSERT_TRUE(start(engine_of_batch(1), 2));
  std::vector<cv::Mat> patches = random_patches(2);
  patches[1] = random_patch(31, 32, 1);
  expect_failure(patches, "TensorRT input patch has invalid size or type");
}

TEST_F(ClassifyPatches, DoesNotPassOldSamplesForNewOnes) {
  ASSERT_TRUE(start(engine_of_batch(1), 1));
  ASSERT_TRUE(classify_patches(random_patches(2))) << error;
  host_cuda::fail_call("cudaStreamSynchronize", 3, cudaErrorInvalidValue);
  EXPECT_FALSE(classify_patches(random_patches(2)));
  ASSERT_EQ(features.size(), 2U);
  EXPECT_TRUE(features[0].defined());
  EXPECT_FALSE(features[1].defined());
}

TEST(TrtWorkerCheck, RefusesAWorkerThatIsMissingOrNotReady) {
  std::string error;
  TrtBackbone worker;
  EXPECT_FALSE(atom::check_trt_worker(nullptr, &error));
  EXPECT_EQ(error, "invalid TensorRT worker");
  error.clear();
  EXPECT_FALSE(atom::check_trt_worker(&worker, &error));
  EXPECT_EQ(error, "invalid TensorRT worker");
  worker.ready = true;
  EXPECT_TRUE(atom::check_trt_worker(&worker, &error));
}

}  // namespace
}  // namespace ostrel_test
