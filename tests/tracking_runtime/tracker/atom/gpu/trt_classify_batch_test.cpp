#include "classify_fixture.h"
#include "tracking_runtime/tracker/atom/response_analysis.h"

namespace ostrel_test {
namespace {

class ClassifyTensorBatch : public ClassifyTest {
 protected:
  void expect_failure(const atom::TrtInputBatch& batch, const std::string& text) {
    responses.assign(2, cv::Mat(1, 1, CV_32F));
    features.assign(2, FeatureMap{1, 1, 1, 1, {1.0F}});
    EXPECT_FALSE(classify_batch(batch));
    EXPECT_EQ(error, text);
    EXPECT_EQ(cudaGetLastError(), cudaSuccess);
    for (const FeatureMap& feature : features) {
      EXPECT_FALSE(feature.defined() && feature.height == 1) << "left from an earlier call";
    }
    host_cuda::clear_faults();
    EXPECT_FALSE(atom::classify_tensor_batch(nullptr, batch, guarded(), &scratch, outputs(), nullptr));
  }
};

TEST_F(ClassifyTensorBatch, AgreesWithPlainLoops) {
  const StridedEngine engine;
  ASSERT_TRUE(start(engine, 3));
  const std::vector<cv::Mat> patches = random_patches(3);
  ASSERT_TRUE(classify_batch(patches)) << error;
  expect_results(engine, patches);
}

TEST_F(ClassifyTensorBatch, AgreesWithTheHostRoute) {
  const StridedEngine engine;
  ASSERT_TRUE(start(engine, 2));
  ASSERT_TRUE(classify_batch(random_patches(2))) << error;
  for (std::size_t i = 0; i < 2; ++i) {
    const cv::Mat host = atom::classify_feature(features[i], weights);
    ASSERT_EQ(host.size(), responses[i].size());
    EXPECT_LT(cv::norm(host, responses[i], cv::NORM_INF), kResponseTolerance);
  }
}

TEST_F(ClassifyTensorBatch, AgreesWithPlainLoopsForOtherShapes) {
  const struct {
    int projected, filter_height, filter_width, outputs;
    bool use_projection;
  } rows[] = {{0, 4, 4, 2, true},  {4, 4, 4, 2, true}, {1, 1, 1, 2, true}, {4, 5, 2, 2, true},
              {6, 3, 3, 2, false}, {2, 4, 4, 1, true}, {0, 3, 5, 1, false}};
  for (const auto& row : rows) {
    SCOPED_TRACE(::testing::Message()
                 << row.projected << " " << row.filter_height << "x" << row.filter_width);
    StridedEngine engine;
    engine.outputs = row.outputs;
    ASSERT_TRUE(start(engine, 2));
    weights = random_weights(StridedEngine::kOutputChannels[row.outputs - 1], row.projected,
                             row.filter_height, row.filter_width);
    use_projection = row.use_projection;
    const std::vector<cv::Mat> patches = random_patches(2);
    ASSERT_TRUE(classify_batch(patches)) << error;
    expect_results(engine, patches);
  }
}

TEST_F(ClassifyTensorBatch, RunsBatchesBelowItsCapacity) {
  const StridedEngine engine;
  ASSERT_TRUE(start(engine, 3));
  for (const std::size_t count : {3, 1, 2, 3}) {
    const std::vector<cv::Mat> patches = random_patches(count, 9);
    ASSERT_TRUE(classify_batch(patches)) << error;
    expect_results(engine, patches);
  }
}

TEST_F(ClassifyTensorBatch, ReadsTheBatchInPlaceAndWaitsOnceForTheResponsesAndOncePerSample) {
  ASSERT_TRUE(start(StridedEngine{}, 3));
  const DeviceBatch device(random_patches(3));
  ASSERT_TRUE(classify_batch(device.batch)) << error;
  host_cuda::reset_counters();
  ASSERT_TRUE(classify_batch(device.batch)) << error;
  const host_cuda::Counters counters = host_cuda::counters();
  EXPECT_EQ(counters.calls_of("cudaMemcpyAsync"), 4) << "the responses and three samples";
  EXPECT_EQ(counters.calls_of("cudaMemcpy"), 0);
  EXPECT_EQ(counters.synchronisations, 4);
  EXPECT_EQ(counters.calls_of("cudaMalloc"), 0);
  EXPECT_EQ(counters.calls_of("cudaMallocHost"), 0);
  EXPECT_EQ(counters.calls_of("cudaStreamWaitEvent"), 0) << "no ready event, nothing to wait for";
}

TEST_F(ClassifyTensorBatch, RefreshesTheWeightsBeforeItQueuesTheNetwork) {
  ASSERT_TRUE(start(StridedEngine{}, 1));
  DeviceBatch device(random_patches(1));
  ASSERT_TRUE(classify_batch(device.batch)) << error;
  atom::CudaEvent ready;
  ASSERT_EQ(ready.create_with_flags(cudaEventDisableTiming), cudaSuccess);
  device.batch.ready_event = ready.get();
  weights.filter_version = 2;
  // The trace notes a network as the call and as its work, a shape by call and by tensor.
  const char* const expected =
      "setInputShape getTensorShape getTensorShape(input) setTensorAddress cudaStreamWaitEvent "
      "getTensorShape getTensorShape(coarse) cudaMemcpy cudaMemcpy cudaStreamSynchronize "
      "cudaEventRecord enqueueV3 enqueueV3 project_features_kernel classify_kernel cudaEventRecord "
      "cudaEventRecord cudaMemcpyAsync cudaEventRecord cudaStreamSynchronize "
      "cudaEventRecord cudaMemcpyAsync cudaEventRecord cudaStreamSynchronize "
      "cudaEventElapsedTime cudaEventElapsedTime cudaEventElapsedTime";
  host_cuda::start_trace();
  EXPECT_TRUE(classify_batch(device.batch)) << error;
  EXPECT_EQ(joined(host_cuda::stop_trace()), expected);
}

TEST_F(ClassifyTensorBatch, SizesTheClassifierForItsLargestBatchAtOnce) {
  ASSERT_TRUE(start(StridedEngine{}, 3));
  ASSERT_TRUE(classify_batch(random_patches(1))) << error;
  const DeviceBatch device(random_patches(3));
  host_cuda::reset_counters();
  ASSERT_TRUE(classify_batch(device.batch)) << error;
  EXPECT_EQ(host_cuda::counters().calls_of("cudaMalloc"), 0);
  EXPECT_EQ(host_cuda::counters().calls_of("cudaMallocHost"), 0);
}

TEST_F(ClassifyTensorBatch, CopiesNoSampleWhereNoneIsWanted) {
  ASSERT_TRUE(start(StridedEngine{}, 2));
  const DeviceBatch device(random_patches(2));
  host_cuda::reset_counters();
  ASSERT_TRUE(atom::classify_tensor_batch(trt.get(), device.batch, guarded(), &scratch,
                                          {&responses, nullptr, &timings}, &error))
      << error;
  EXPECT_EQ(host_cuda::counters().calls_of("cudaMemcpyAsync"), 1);
  EXPECT_EQ(responses.size(), 2U);
  EXPECT_EQ(timings.d2h_projected_ms, 0.0F) << "never recorded";
  ASSERT_TRUE(classify_batch(device.batch));
  const float last = timings.d2h_projected_ms;
  ASSERT_TRUE(atom::classify_tensor_batch(trt.get(), device.batch, guarded(), &scratch,
                                          {&responses, nullptr, &timings}, &error));
  EXPECT_EQ(timings.d2h_projected_ms, last) << "what the events last held";
}

TEST_F(ClassifyTensorBatch, WaitsForTheReadyEvent) {
  const StridedEngine engine;
  ASSERT_TRUE(start(engine, 2));
  const std::vector<cv::Mat> patches = random_patches(2);
  DeviceBatch device(patches);
  atom::CudaStream library_stream;
  atom::CudaEvent ready;
  ASSERT_EQ(library_stream.create_with_flags(cudaStreamNonBlocking), cudaSuccess);
  ASSERT_EQ(ready.create_with_flags(cudaEventDisableTiming), cudaSuccess);
  // The data arrive late on the other stream: first garbage, then the batch.
  const std::size_t bytes = 2 * 3 * 32 * 32 * sizeof(float);
  DeviceBatch source(patches);
  ASSERT_EQ(cudaMemsetAsync(device.batch.data, 0xFF, bytes, library_stream.get()), cudaSuccess);
  ASSERT_EQ(cudaMemcpyAsync(device.batch.data, source.batch.data, bytes, cudaMemcpyDeviceToDevice,
                            library_stream.get()),
            cudaSuccess);
  ASSERT_EQ(cudaEventRecord(ready.get(), library_stream.get()), cudaSuccess);
  device.batch.ready_event = ready.get();
  host_cuda::reset_counters();
  ASSERT_TRUE(classify_batch(device.batch)) << error;
  EXPECT_EQ(host_cuda::counters().calls_of("cudaStreamWaitEvent"), 1);
  expect_results(engine, patches);
  ASSERT_EQ(cudaStreamSynchronize(library_stream.get()), cudaSuccess);
}

TEST_F(ClassifyTensorBatch, MeasuresItsStages) {
  ASSERT_TRUE(start(StridedEngine{}, 2));
  timings = {9.0F, 9.0F, 9.0F, 9.0F, 9.0F, 9.0F};
  ASSERT_TRUE(classify_batch(random_patches(2))) << error;
  EXPECT_EQ(timings.upload_u8_ms, 0.0F) << "there is no upload";
  EXPECT_EQ(timings.preprocess_cuda_ms, 0.0F);
  EXPECT_GT(timings.upload_weights_gpu_ms, 0.0F);
  EXPECT_EQ(timings.trt_wait_ms, atom::elapsed_cuda_event_pair_ms(trt->trt_wait_events));
  EXPECT_EQ(timings.d2h_response_ms, atom::elapsed_cuda_event_pair_ms(trt->d2h_response_events));
  EXPECT_EQ(timings.d2h_projected_ms, atom::elapsed_cuda_event_pair_ms(trt->d2h_projected_events));
  EXPECT_GT(timings.trt_wait_ms, 0.0F);
}

TEST_F(ClassifyTensorBatch, NeedsNoPlaceForTimings) {
  ASSERT_TRUE(start(StridedEngine{}, 1));
  const DeviceBatch device(random_patches(1));
  EXPECT_TRUE(
      atom::classify_tensor_batch(trt.get(), device.batch, guarded(), &scratch, {&responses}, nullptr));
}

TEST_F(ClassifyTensorBatch, ZeroesTimingsAndEmptiesResultsBeforeAnyCheck) {
  timings = {9.0F, 9.0F, 9.0F, 9.0F, 9.0F, 9.0F};
  responses.resize(2);
  features.resize(2);
  EXPECT_FALSE(classify_batch(atom::TrtInputBatch{}));
  EXPECT_TRUE(responses.empty());
  EXPECT_TRUE(features.empty());
  EXPECT_EQ(timings.upload_u8_ms + timings.preprocess_cuda_ms + timings.upload_weights_gpu_ms +
                timings.trt_wait_ms + timings.d2h_response_ms + timings.d2h_projected_ms,
            0.0F);
}

TEST_F(ClassifyTensorBatch, RefusesToAnswerNowhere) {
  ASSERT_TRUE(start(StridedEngine{}, 1));
  const DeviceBatch device(random_patches(1));
  EXPECT_FALSE(atom::classify_tensor_batch(trt.get(), device.batch, guarded(), &scratch, {nullptr}, &error));
  EXPECT_EQ(error, "null GPU response output");
}

TEST_F(ClassifyTensorBatch, RefusesToRunWithoutAReadyWorker) {
  const std::string text = "TensorRT backbone is not ready for TensorBatch classify path";
  const DeviceBatch device(random_patches(1));
  expect_failure(device.batch, text);
  ASSERT_TRUE(start(StridedEngine{}, 1));
  trt->ready = false;
  expect_failure(device.batch, text);
}

TEST_F(ClassifyTensorBatch, RefusesBatchesThatAreNotNetworkInputs) {
  ASSERT_TRUE(start(StridedEngine{}, 2));
  const DeviceBatch device(random_patches(2));
  using Batch = atom::TrtInputBatch;
  const struct {
    const char* reason;
    void (*spoil)(Batch*);
  } rows[] = {
      {"no data", [](Batch* batch) { batch->data = nullptr; }},
      {"no samples", [](Batch* batch) { batch->count = 0; }},
      {"one channel", [](Batch* batch) { batch->channels = 1; }},
      {"another height", [](Batch* batch) { batch->height = 31; }},
      {"another width", [](Batch* batch) { batch->width = 33; }},
      {"another type of data", [](Batch* batch) { batch->dtype = 1; }},
      {"another layout", [](Batch* batch) { batch->layout = 1; }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.reason);
    Batch batch = device.batch;
    row.spoil(&batch);
    expect_failure(batch, "invalid TensorBatch shape or dtype for TensorRT classify path");
  }
  Batch large = device.batch;
  large.count = 3;
  expect_failure(large, "TensorBatch exceeds TensorRT batch capacity");
}

TEST_F(ClassifyTensorBatch, RefusesAFilterThatIsNotReady) {
  ASSERT_TRUE(start(StridedEngine{}, 1));
  const DeviceBatch device(random_patches(1));
  const struct {
    const char* reason;
    void (*spoil)(ClassifierState*);
  } rows[] = {
      {"no values", [](ClassifierState* state) { state->filter_weights.clear(); }},
      {"no channels", [](ClassifierState* state) { state->filter_channels = 0; }},
      {"no height", [](ClassifierState* state) { state->filter_height = 0; }},
      {"no width", [](ClassifierState* state) { state->filter_width = -1; }},
  };
  const ClassifierState good = weights;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.reason);
    row.spoil(&weights);
    expect_failure(device.batch, "classifier filter state is not ready for TensorBatch classify path");
    weights = good;
  }
}

TEST_F(ClassifyTensorBatch, RefusesWeightsThatDoNotFitTheFeatures) {
  ASSERT_TRUE(start(StridedEngine{}, 1));
  const DeviceBatch device(random_patches(1));
  weights = random_weights(5, 4, 4, 4);
  expect_failure(device.batch, "projection matrix input channels do not match TensorRT TensorBatch features");
  const char* const filter_text = "classifier filter shape does not match TensorBatch classify path";
  weights = random_weights(6, 32, 4, 4);
  weights.filter_channels = 64;
  weights.filter_weights = random_values(64 * 16, 1);
  expect_failure(device.batch, filter_text);
  weights = random_weights(6, 4, 4, 4);
  weights.filter_weights.push_back(0.0F);
  expect_failure(device.batch, filter_text);
  weights = random_weights(6, 4, 4, 4);
  use_projection = false;
  expect_failure(device.batch, filter_text);
}

TEST_F(ClassifyTensorBatch, UsesNoProjectionThatHasNoOutputs) {
  const StridedEngine engine;
  ASSERT_TRUE(start(engine, 1));
  weights = random_weights(6, 0, 4, 4);
  weights.projection_matrix = {1.0F};
  weights.proj_in_channels = 1;
  const std::vector<cv::Mat> patches = random_patches(1);
  ASSERT_TRUE(classify_batch(patches)) << error;
  weights.projection_matrix.clear();
  expect_results(engine, patches);
}

TEST_F(ClassifyTensorBatch, NamesTheCallThatFailed) {
  ASSERT_TRUE(start(StridedEngine{}, 2));
  DeviceBatch device(random_patches(2));
  atom::CudaEvent ready;
  ASSERT_EQ(ready.create_with_flags(cudaEventDisableTiming), cudaSuccess);
  device.batch.ready_event = ready.get();
  const struct {
    const char* call;
    int n;
    const char* text;
  } rows[] = {
      {"setInputShape", 1, "failed to set TensorRT TensorBatch input shape"},
      {"getTensorShape(input)", 1, "TensorRT resolved TensorBatch input shape does not match request"},
      {"setTensorAddress", 1, "failed to bind external TensorBatch input tensor"},
      {"cudaStreamWaitEvent", 1, "failed to wait for TensorBatch ready event"},
      {"getTensorShape(coarse)", 1, "TensorRT resolved TensorBatch output shape does not match request"},
      {"cudaMalloc", 1, "cudaMalloc projection: invalid argument"},
      {"cudaMemcpy", 1, "cudaMemcpy projection: invalid argument"},
      {"cudaMemcpy", 2, "cudaMemcpy filter: invalid argument"},
      {"cudaStreamSynchronize", 1, "cudaMemcpy filter: invalid argument"},
      {"cudaEventRecord", 1, "failed to record CUDA event for trt_wait start"},
      {"enqueueV3", 1, "TensorRT enqueue failed for TensorBatch classify path"},
      {"project_features_kernel", 1, "project_features_kernel: invalid argument"},
      {"classify_kernel", 1, "classify_kernel: invalid argument"},
      {"cudaEventRecord", 2, "failed to record CUDA event for trt_wait stop"},
      {"cudaEventRecord", 3, "cudaEventRecord response start: invalid argument"},
      {"cudaMemcpyAsync", 1, "cudaMemcpyAsync response: invalid argument"},
      {"cudaStreamSynchronize", 1, "cudaStreamSynchronize response: invalid argument"},
      {"cudaMemcpyAsync", 3, "cudaMemcpyAsync projected sample: invalid argument"},
      {"cudaEventRecord", 7, "cudaEventRecord projected start: invalid argument"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    host_cuda::fail_call(row.call, row.n, cudaErrorInvalidValue);
    expect_failure(device.batch, row.text);
  }
  EXPECT_TRUE(classify_batch(device.batch)) << "the worker stays usable: " << error;
}

TEST_F(ClassifyTensorBatch, RefusesShapesThatDoNotFitTheRequest) {
  ASSERT_TRUE(start(StridedEngine{}, 2));
  const DeviceBatch device(random_patches(2));
  const char* const input_text = "TensorRT resolved TensorBatch input shape does not match request";
  const char* const output_text = "TensorRT resolved TensorBatch output shape does not match request";
  const struct {
    const char* query;
    std::vector<std::int64_t> answer;
    const char* text;
  } rows[] = {
      {"getTensorShape(input)", {2, 3, 32}, input_text},
      {"getTensorShape(input)", {1, 3, 32, 32}, input_text},
      {"getTensorShape(input)", {2, 3, 31, 32}, input_text},
      {"getTensorShape(input)", {2, 3, 32, 31}, input_text},
      {"getTensorShape(coarse)", {2, 6, 8}, output_text},
      {"getTensorShape(coarse)", {1, 6, 8, 8}, output_text},
      {"getTensorShape(coarse)", {2, 6, 8, 9}, output_text},
      {"getTensorShape(coarse)", {2, 6, 0, 8}, output_text},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(::testing::PrintToString(row.answer));
    host_cuda::answer_call(row.query, 1, row.answer);
    expect_failure(device.batch, row.text);
  }
}

TEST_F(ClassifyTensorBatch, LeavesNothingThatReadsTheBatchAfterAFailure) {
  ASSERT_TRUE(start(StridedEngine{}, 2));
  const std::int64_t pending = host_cuda::counters().frees_while_work_pending;
  {
    const DeviceBatch device(random_patches(2));
    host_cuda::fail_call("classify_kernel", 1, cudaErrorInvalidValue);
    EXPECT_FALSE(classify_batch(device.batch));
  }
  EXPECT_EQ(host_cuda::counters().frees_while_work_pending, pending);
}

}  // namespace
}  // namespace ostrel_test
