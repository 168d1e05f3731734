#include "tracking_runtime/tracker/atom/gpu/trt_forward.h"

#include "engine_fixture.h"

namespace ostrel_test {
namespace {

class TrtForwardTest : public EngineTest {
 protected:
  FeatureMap forward(const std::vector<cv::Mat>& patches) {
    error.clear();
    return atom::run_trt_forward_batched(trt.get(), patches, &error);
  }
  void expect_forward_failure(const std::vector<cv::Mat>& patches, const std::string& text) {
    const FeatureMap map = forward(patches);
    EXPECT_EQ(error, text);
    EXPECT_EQ(map.samples, 0);
    EXPECT_EQ(map.channels, 0);
    EXPECT_EQ(map.height, 0);
    EXPECT_EQ(map.width, 0);
    EXPECT_TRUE(map.data.empty());
    EXPECT_EQ(atom::run_trt_forward_batched(nullptr, patches, nullptr).samples, 0);
    host_cuda::clear_faults();
  }
  void expect_upload_failure(TrtBackbone* worker, const std::vector<cv::Mat>& patches,
                             const std::string& text) {
    error.clear();
    EXPECT_FALSE(atom::upload_trt_input_patches(worker, patches, &error));
    EXPECT_EQ(error, text);
    host_cuda::clear_faults();
  }
  std::vector<float> network_input() {
    std::vector<float> values(trt->input_bytes / sizeof(float));
    EXPECT_EQ(cudaStreamSynchronize(trt->stream.get()), cudaSuccess);
    EXPECT_EQ(cudaMemcpy(values.data(), trt->input_device.get(), trt->input_bytes, cudaMemcpyDeviceToHost),
              cudaSuccess);
    return values;
  }
};

FeatureMap sample_of(const FeatureMap& batch, int index) {
  const auto stride = static_cast<std::ptrdiff_t>(batch.sample_stride());
  const auto first = batch.data.begin() + index * stride;
  return {1, batch.channels, batch.height, batch.width, {first, first + stride}};
}

TEST_F(TrtForwardTest, PutsRedFirstAndKeepsTheBytesAsTheyAre) {
  ASSERT_TRUE(start(StridedEngine{}, 2));
  const cv::Mat plain(32, 32, CV_8UC3, cv::Scalar(10, 20, 30));
  const cv::Mat white(32, 32, CV_8UC3, cv::Scalar(255, 255, 255));
  ASSERT_TRUE(atom::upload_trt_input_patches(trt.get(), std::vector<cv::Mat>{white, plain}, &error)) << error;
  const std::vector<float> input = network_input();
  constexpr std::size_t kPlane = 32 * 32;
  for (std::size_t i = 0; i < 3 * kPlane; ++i) ASSERT_EQ(input[i], 255.0F);
  for (std::size_t i = 0; i < kPlane; ++i) {
    ASSERT_EQ(input[3 * kPlane + i], 30.0F);
    ASSERT_EQ(input[4 * kPlane + i], 20.0F);
    ASSERT_EQ(input[5 * kPlane + i], 10.0F);
  }
}

TEST_F(TrtForwardTest, CopiesAContinuousPatchAsOneBlock) {
  ASSERT_TRUE(start(StridedEngine{}, 2));
  host_cuda::reset_counters();
  ASSERT_TRUE(atom::upload_trt_input_patches(trt.get(), random_patches(2), &error)) << error;
  EXPECT_EQ(host_cuda::counters().calls_of("cudaMemcpyAsync"), 2);
  EXPECT_EQ(host_cuda::counters().calls_of("cudaMemcpy2DAsync"), 0);
  EXPECT_EQ(host_cuda::counters().synchronisations, 0) << "the upload does not wait";
}

TEST_F(TrtForwardTest, CopiesARegionOfALargerImageByRows) {
  const StridedEngine engine;
  ASSERT_TRUE(start(engine, 2));
  const cv::Mat region = random_patch(50, 60, 3)(cv::Rect(7, 5, 32, 32));
  host_cuda::reset_counters();
  const FeatureMap features = forward({region});
  EXPECT_EQ(host_cuda::counters().calls_of("cudaMemcpy2DAsync"), 1);
  expect_same_features(engine.expected(1, region), features);
}

TEST_F(TrtForwardTest, RefusesAnUploadWithoutReadyWorkerOrPatches) {
  const std::string text = "TensorRT worker is not ready for input upload";
  expect_upload_failure(nullptr, random_patches(1), text);
  ASSERT_TRUE(start(StridedEngine{}, 2));
  expect_upload_failure(trt.get(), {}, text);
  trt->ready = false;
  expect_upload_failure(trt.get(), random_patches(1), text);
  EXPECT_FALSE(atom::upload_trt_input_patches(trt.get(), random_patches(1), nullptr));
}

TEST_F(TrtForwardTest, RefusesMorePatchesThanTheWorkerHolds) {
  ASSERT_TRUE(start(StridedEngine{}, 2));
  EXPECT_TRUE(atom::upload_trt_input_patches(trt.get(), random_patches(2), &error)) << error;
  expect_upload_failure(trt.get(), random_patches(3), "TensorRT input upload exceeds worker batch capacity");
}

TEST_F(TrtForwardTest, RefusesAStagingBufferThatIsMissingOrTooSmall) {
  const std::string text = "TensorRT uint8 input buffer is not allocated or too small";
  ASSERT_TRUE(start(StridedEngine{}, 2));
  trt->input_u8_bytes = 2 * 32 * 32 * 3 - 1;
  EXPECT_TRUE(atom::upload_trt_input_patches(trt.get(), random_patches(1), &error)) << error;
  expect_upload_failure(trt.get(), random_patches(2), text);
  ASSERT_EQ(trt->input_u8_device.reset(), cudaSuccess);
  expect_upload_failure(trt.get(), random_patches(1), text);
}

TEST_F(TrtForwardTest, RefusesPatchesOfAnotherSizeOrTypeAfterTheFirstEvent) {
  ASSERT_TRUE(start(StridedEngine{}, 2));
  const struct {
    const char* reason;
    cv::Mat patch;
  } rows[] = {
      {"empty", cv::Mat()},
      {"one row too many", cv::Mat(33, 32, CV_8UC3, cv::Scalar())},
      {"one column too few", cv::Mat(32, 31, CV_8UC3, cv::Scalar())},
      {"one channel", cv::Mat(32, 32, CV_8UC1, cv::Scalar())},
      {"floats", cv::Mat(32, 32, CV_32FC3, cv::Scalar())},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.reason);
    host_cuda::reset_counters();
    expect_upload_failure(trt.get(), {row.patch}, "TensorRT input patch has invalid size or type");
    EXPECT_EQ(host_cuda::counters().calls_of("cudaEventRecord"), 1);
    EXPECT_EQ(host_cuda::counters().launches_of("bgr8_to_rgb_planar_float_kernel"), 0);
  }
}

TEST_F(TrtForwardTest, NamesTheStepOfAnUploadThatFailed) {
  ASSERT_TRUE(start(StridedEngine{}, 2));
  const struct {
    const char* call;
    int n;
    const char* text;
  } rows[] = {
      {"cudaEventRecord", 1, "failed to record CUDA event for upload_u8 start"},
      {"cudaMemcpyAsync", 1, "failed to copy TensorRT uint8 input to device"},
      {"cudaMemcpy2DAsync", 1, "failed to copy TensorRT uint8 input rows to device"},
      {"cudaEventRecord", 2, "failed to record CUDA event for upload_u8 stop"},
      {"cudaEventRecord", 3, "failed to record CUDA event for preprocess_cuda start"},
      {"bgr8_to_rgb_planar_float_kernel", 1, "launch bgr8_to_rgb_planar_float kernel: invalid argument"},
      {"cudaEventRecord", 4, "failed to record CUDA event for preprocess_cuda stop"},
  };
  const cv::Mat region = random_patch(40, 40, 3)(cv::Rect(0, 0, 32, 32));
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    host_cuda::fail_call(row.call, row.n, cudaErrorInvalidValue);
    expect_upload_failure(trt.get(), {random_patch(32, 32, 1), region}, row.text);
    EXPECT_EQ(cudaGetLastError(), cudaSuccess);
  }
}

TEST_F(TrtForwardTest, ReturnsTheSecondOutputOfEachPatch) {
  const StridedEngine engine;
  ASSERT_TRUE(start(engine, 3));
  const std::vector<cv::Mat> patches = random_patches(3);
  host_cuda::reset_counters();
  const FeatureMap features = forward(patches);
  EXPECT_EQ(host_cuda::counters().synchronisations, 1);
  EXPECT_EQ(host_cuda::counters().calls_of("cudaMemcpyAsync"), 4) << "three up, one down: out0 stays";
  ASSERT_EQ(features.samples, 3) << error;
  for (int i = 0; i < 3; ++i) {
    expect_same_features(engine.expected(1, patches[static_cast<std::size_t>(i)]), sample_of(features, i));
  }
}

TEST_F(TrtForwardTest, ReturnsTheOnlyOutputWhereThereIsOne) {
  StridedEngine engine;
  engine.outputs = 1;
  ASSERT_TRUE(start(engine, 2));
  const std::vector<cv::Mat> patches = random_patches(2);
  const FeatureMap features = forward(patches);
  ASSERT_EQ(features.samples, 2) << error;
  expect_same_features(engine.expected(0, patches[1]), sample_of(features, 1));
}

TEST_F(TrtForwardTest, RunsOnlyAsManySamplesAsThereArePatches) {
  const StridedEngine engine;
  ASSERT_TRUE(start(engine, 3));
  for (const std::size_t count : {3, 1, 2}) {
    const std::vector<cv::Mat> patches = random_patches(count, 7);
    const FeatureMap features = forward(patches);
    ASSERT_EQ(features.samples, static_cast<int>(count)) << error;
    EXPECT_EQ(trt->context->getTensorShape("coarse").d[0], static_cast<std::int64_t>(count));
    expect_same_features(engine.expected(1, patches[0]), sample_of(features, 0));
  }
}

TEST_F(TrtForwardTest, RunsRectangularInputs) {
  StridedEngine engine;
  engine.height = 16;
  engine.width = 40;
  ASSERT_TRUE(start(engine, 2));
  const cv::Mat patch = random_patch(16, 40, 5);
  expect_same_features(engine.expected(1, patch), forward({patch}));
}

TEST_F(TrtForwardTest, BindsItsOwnInputAgain) {
  const StridedEngine engine;
  ASSERT_TRUE(start(engine, 1));
  ASSERT_TRUE(trt->context->setTensorAddress("input", nullptr));
  const cv::Mat patch = random_patch(32, 32, 2);
  expect_same_features(engine.expected(1, patch), forward({patch}));
}

TEST_F(TrtForwardTest, RefusesToRunWithoutReadyWorkerOrPatches) {
  expect_forward_failure(random_patches(1), "TensorRT backbone is not ready");
  ASSERT_TRUE(start(StridedEngine{}, 2));
  expect_forward_failure({}, "TensorRT backbone is not ready");
  trt->ready = false;
  expect_forward_failure(random_patches(1), "TensorRT backbone is not ready");
}

TEST_F(TrtForwardTest, RefusesABatchAboveItsCapacityBeforeAnythingIsQueued) {
  ASSERT_TRUE(start(StridedEngine{}, 2));
  EXPECT_EQ(forward(random_patches(2)).samples, 2) << error;
  host_cuda::reset_counters();
  expect_forward_failure(random_patches(3), "TensorRT batch request exceeds allocated batch capacity");
  EXPECT_TRUE(host_cuda::counters().calls.empty());
}

TEST_F(TrtForwardTest, RefusesABatchThatAFixedEngineDoesNotRun) {
  StridedEngine engine;
  engine.batch = 4;
  ASSERT_TRUE(start(engine, 1));
  expect_forward_failure(random_patches(3), "failed to set TensorRT batched input shape");
  EXPECT_EQ(forward(random_patches(4)).samples, 4) << error;
}

TEST_F(TrtForwardTest, NamesTheCallThatFailed) {
  ASSERT_TRUE(start(StridedEngine{}, 2));
  const struct {
    const char* call;
    int n;
    const char* text;
  } rows[] = {
      {"setInputShape", 1, "failed to set TensorRT batched input shape"},
      {"getTensorShape(input)", 1, "TensorRT resolved input shape does not match requested batch"},
      {"setTensorAddress", 1, "failed to bind TensorRT batched input tensor"},
      {"cudaEventRecord", 1, "failed to record CUDA event for upload_u8 start"},
      {"enqueueV3", 1, "TensorRT enqueue failed"},
      {"getTensorShape(coarse)", 1, "TensorRT resolved output shape does not match requested batch"},
      {"cudaMemcpyAsync", 3, "failed to copy TensorRT output to host"},
      {"cudaStreamSynchronize", 1, "failed to synchronize TensorRT CUDA stream"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    host_cuda::fail_call(row.call, row.n, 1);
    expect_forward_failure(random_patches(2), row.text);
    EXPECT_EQ(forward(random_patches(2)).samples, 2) << "the worker stays usable: " << error;
  }
}

TEST_F(TrtForwardTest, RefusesShapesThatDoNotFitTheRequest) {
  ASSERT_TRUE(start(StridedEngine{}, 2));
  const char* const input_text = "TensorRT resolved input shape does not match requested batch";
  const char* const batch_text = "TensorRT resolved output shape does not match requested batch";
  const char* const sides_text = "TensorRT resolved output shape is invalid";
  const char* const channels_text = "TensorRT resolved output channels do not match cached engine metadata";
  const char* const size_text = "TensorRT resolved output is larger than the allocated output buffer";
  const struct {
    const char* query;
    std::vector<std::int64_t> answer;
    const char* text;
  } rows[] = {
      {"getTensorShape(input)", {2, 3, 32}, input_text},
      {"getTensorShape(input)", {1, 3, 32, 32}, input_text},
      {"getTensorShape(input)", {2, 3, 31, 32}, input_text},
      {"getTensorShape(input)", {2, 3, 32, 31}, input_text},
      {"getTensorShape(coarse)", {2, 6, 8, 8, 1}, batch_text},
      {"getTensorShape(coarse)", {1, 6, 8, 8}, batch_text},
      {"getTensorShape(coarse)", {2, 0, 8, 8}, sides_text},
      {"getTensorShape(coarse)", {2, 6, -1, 8}, sides_text},
      {"getTensorShape(coarse)", {2, 6, 8, 0}, sides_text},
      {"getTensorShape(coarse)", {2, 7, 8, 8}, channels_text},
      {"getTensorShape(coarse)", {2, 6, 8, 9}, size_text},
      {"getTensorShape(coarse)", {2, 6, std::int64_t{1} << 40, 8}, size_text},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(::testing::PrintToString(row.answer));
    host_cuda::answer_call(row.query, 1, row.answer);
    expect_forward_failure(random_patches(2), row.text);
  }
  host_cuda::answer_call("getTensorShape(input)", 1, {2, 99, 32, 32});
  EXPECT_EQ(forward(random_patches(2)).samples, 2) << "the channels of the input are not compared";
}

TEST_F(TrtForwardTest, ComparesChannelsOnlyWithMetadataThatIsThere) {
  ASSERT_TRUE(start(StridedEngine{}, 2));
  trt->out1_channels = 0;
  EXPECT_EQ(forward(random_patches(1)).channels, 6) << error;
}

TEST_F(TrtForwardTest, RefusesBuffersThatAreMissingOrTooSmall) {
  const StridedEngine engine;
  ASSERT_TRUE(start(engine, 2));
  trt->input_bytes = 2 * 32 * 32 * 12 - 1;
  expect_forward_failure(random_patches(2),
                         "input patch is larger than the configured TensorRT input buffer");
  EXPECT_EQ(forward(random_patches(1)).samples, 1) << error;

  atom::PinnedBuffer<float> taken = std::move(trt->out1_host);
  expect_forward_failure(random_patches(1), "TensorRT pinned output buffer is not allocated");
  trt->out1_host = std::move(taken);
  trt->out1_bytes = 6 * 8 * 8 * 4 - 1;
  expect_forward_failure(random_patches(1),
                         "TensorRT resolved output is larger than the allocated output buffer");
}

TEST_F(TrtForwardTest, RefusesAnOutputWithoutDeviceMemory) {
  StridedEngine engine;
  engine.outputs = 1;
  ASSERT_TRUE(start(engine, 1));
  const atom::DeviceBuffer<float> taken = std::move(trt->out0_device);
  expect_forward_failure(random_patches(1), "TensorRT output device buffer is not allocated");
}

TEST_F(TrtForwardTest, FallsBackToTheFirstOutputWithoutMemoryForTheSecond) {
  const StridedEngine engine;
  ASSERT_TRUE(start(engine, 1));
  const atom::DeviceBuffer<float> taken = std::move(trt->out1_device);
  const cv::Mat patch = random_patch(32, 32, 4);
  expect_same_features(engine.expected(0, patch), forward({patch}));
}

TEST_F(TrtForwardTest, RefusesAnEmptyPatch) {
  EXPECT_EQ(atom::run_trt_forward(nullptr, cv::Mat(), &error).samples, 0);
  EXPECT_EQ(error, "TensorRT input patch is empty");
}

TEST_F(TrtForwardTest, RunsOnePatch) {
  const StridedEngine engine;
  ASSERT_TRUE(start(engine, 3));
  const cv::Mat patch = random_patch(32, 32, 6);
  expect_same_features(engine.expected(1, patch), atom::run_trt_forward(trt.get(), patch, &error));
}

TEST_F(TrtForwardTest, LeavesAThirdOutputUnboundSoThatTheRunFails) {
  StridedEngine engine;
  engine.outputs = 3;
  ASSERT_TRUE(start(engine, 1)) << error;
  expect_forward_failure(random_patches(1), "TensorRT enqueue failed");
}

TEST_F(TrtForwardTest, LeavesAnotherInputUnboundSoThatTheRunFails) {
  StridedEngine engine;
  engine.two_inputs = true;
  ASSERT_TRUE(start(engine, 1)) << error;
  expect_forward_failure(random_patches(1), "TensorRT enqueue failed");
}

TEST_F(TrtForwardTest, MeasuresUploadAndConversion) {
  ASSERT_TRUE(start(StridedEngine{}, 1));
  ASSERT_EQ(forward(random_patches(1)).samples, 1);
  float elapsed_ms = -1.0F;
  EXPECT_EQ(
      cudaEventElapsedTime(&elapsed_ms, trt->upload_u8_events.start.get(), trt->preprocess_events.stop.get()),
      cudaSuccess);
  EXPECT_GE(elapsed_ms, atom::elapsed_cuda_event_pair_ms(trt->upload_u8_events));
  EXPECT_GE(elapsed_ms, atom::elapsed_cuda_event_pair_ms(trt->preprocess_events));
}

}  // namespace
}  // namespace ostrel_test
