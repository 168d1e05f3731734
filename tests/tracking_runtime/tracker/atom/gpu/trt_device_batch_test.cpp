#include "tracking_runtime/tracker/atom/gpu/trt_device_batch.h"

#include "engine_fixture.h"

namespace ostrel_test {
namespace {

using atom::TrtDeviceBatch;

class TrtDeviceBatchTest : public EngineTest {
 protected:
  bool run(const std::vector<cv::Mat>& patches) {
    error.clear();
    return atom::run_trt_device_batch(trt.get(), patches, &batch, &error);
  }
  void expect_failure(const std::vector<cv::Mat>& patches, const std::string& text) {
    EXPECT_FALSE(run(patches));
    EXPECT_EQ(error, text);
    EXPECT_EQ(batch.features, nullptr);
    host_cuda::clear_faults();
    EXPECT_FALSE(atom::run_trt_device_batch(nullptr, patches, &batch, nullptr));
  }
  /// Sample `index`, as a consumer in the order of the batch's stream reads it.
  FeatureMap sample(int index) const {
    FeatureMap map{1, batch.channels, batch.height, batch.width, {}};
    map.data.resize(map.sample_stride());
    EXPECT_EQ(cudaMemcpyAsync(map.data.data(),
                              batch.features + static_cast<std::size_t>(index) * map.sample_stride(),
                              map.data.size() * sizeof(float), cudaMemcpyDeviceToHost, batch.stream),
              cudaSuccess);
    EXPECT_EQ(cudaStreamSynchronize(batch.stream), cudaSuccess);
    return map;
  }

  TrtDeviceBatch batch;
};

TEST_F(TrtDeviceBatchTest, LeavesTheSecondOutputOnTheDeviceWithoutWaiting) {
  const StridedEngine engine;
  ASSERT_TRUE(start(engine, 3));
  for (const std::size_t count : {3, 1, 2}) {
    const std::vector<cv::Mat> patches = random_patches(count, 11);
    host_cuda::reset_counters();
    ASSERT_TRUE(run(patches)) << error;
    EXPECT_EQ(host_cuda::counters().synchronisations, 0);
    EXPECT_EQ(host_cuda::counters().blocking_copies, 0);
    EXPECT_EQ(batch.samples, static_cast<int>(count));
    EXPECT_EQ(batch.features, trt->out1_device.get());
    EXPECT_EQ(batch.stream, trt->stream.get());
    for (std::size_t i = 0; i < count; ++i) {
      expect_same_features(engine.expected(1, patches[i]), sample(static_cast<int>(i)));
    }
  }
}

TEST_F(TrtDeviceBatchTest, TakesTheOnlyOutputWhereThereIsOne) {
  StridedEngine engine;
  engine.outputs = 1;
  ASSERT_TRUE(start(engine, 2));
  const std::vector<cv::Mat> patches = random_patches(2);
  ASSERT_TRUE(run(patches)) << error;
  EXPECT_EQ(batch.features, trt->out0_device.get());
  expect_same_features(engine.expected(0, patches[1]), sample(1));
}

TEST_F(TrtDeviceBatchTest, TakesTheFirstOutputWhenTheSecondHasNoBuffer) {
  const StridedEngine engine;
  ASSERT_TRUE(start(engine, 2));
  // The stand-in keeps writing to the bound address, so the memory is only put aside.
  const auto aside = std::move(trt->out1_device);
  const std::vector<cv::Mat> patches = random_patches(1);
  ASSERT_TRUE(run(patches)) << error;
  expect_same_features(engine.expected(0, patches[0]), sample(0));
  EXPECT_EQ(cudaStreamSynchronize(trt->stream.get()), cudaSuccess);
}

TEST_F(TrtDeviceBatchTest, BindsItsOwnInputAgain) {
  const StridedEngine engine;
  ASSERT_TRUE(start(engine, 1));
  ASSERT_TRUE(trt->context->setTensorAddress("input", nullptr));
  const std::vector<cv::Mat> patches = random_patches(1);
  ASSERT_TRUE(run(patches)) << error;
  expect_same_features(engine.expected(1, patches[0]), sample(0));
}

TEST_F(TrtDeviceBatchTest, NeedsAReadyBackboneAndPatches) {
  const std::string text = "TensorRT backbone is not ready for device init batch";
  expect_failure(random_patches(1), text);
  ASSERT_TRUE(start(StridedEngine{}, 2));
  expect_failure({}, text);
  trt->ready = false;
  expect_failure(random_patches(1), text);
}

TEST_F(TrtDeviceBatchTest, RefusesMorePatchesThanTheBackboneHolds) {
  ASSERT_TRUE(start(StridedEngine{}, 2));
  host_cuda::reset_counters();
  expect_failure(random_patches(3), "TensorRT init batch request exceeds allocated capacity");
  EXPECT_EQ(host_cuda::counters().calls_of("cudaMemcpyAsync"), 0);
}

TEST_F(TrtDeviceBatchTest, KeepsTheWordsOfTheUpload) {
  ASSERT_TRUE(start(StridedEngine{}, 2));
  expect_failure({cv::Mat(32, 32, CV_8UC1, cv::Scalar())}, "TensorRT input patch has invalid size or type");
}

TEST_F(TrtDeviceBatchTest, NamesTheStepThatFailed) {
  ASSERT_TRUE(start(StridedEngine{}, 2));
  const struct {
    const char* call;
    const char* text;
  } rows[] = {
      {"setInputShape", "failed to set TensorRT init device batch input shape"},
      {"setTensorAddress", "failed to bind TensorRT init device batch input tensor"},
      {"enqueueV3", "TensorRT enqueue failed for init device batch"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.call);
    host_cuda::fail_call(row.call, 1, 1);
    expect_failure(random_patches(2), row.text);
  }
}

TEST_F(TrtDeviceBatchTest, RefusesAnInputShapeThatReadsBackDifferently) {
  ASSERT_TRUE(start(StridedEngine{}, 2));
  const std::vector<std::int64_t> shapes[] = {
      {2, 3, 32}, {1, 3, 32, 32}, {2, 3, 31, 32}, {2, 3, 32, 33}, {2, 3, 32, 32, 1}};
  for (const auto& shape : shapes) {
    host_cuda::answer_call("getTensorShape(input)", 1, shape);
    expect_failure(random_patches(2), "TensorRT init device batch input shape mismatch");
  }
  host_cuda::answer_call("getTensorShape(input)", 1, {2, 4, 32, 32});
  EXPECT_TRUE(run(random_patches(2))) << "the planes are not compared: " << error;
}

TEST_F(TrtDeviceBatchTest, RefusesAnOutputShapeThatIsNotThatOfTheBatch) {
  ASSERT_TRUE(start(StridedEngine{}, 2));
  const std::vector<std::int64_t> shapes[] = {{2, 6, 8},    {1, 6, 8, 8},  {2, 0, 8, 8},
                                              {2, 6, 0, 8}, {2, 6, 8, -1}, {2, 6, 8, 8, 1}};
  for (const auto& shape : shapes) {
    host_cuda::answer_call("getTensorShape(coarse)", 1, shape);
    expect_failure(random_patches(2), "TensorRT init device batch output shape is invalid");
  }
}

TEST_F(TrtDeviceBatchTest, TellsTheFirstOfSeveralFailures) {
  ASSERT_TRUE(start(StridedEngine{}, 2));
  const std::vector<cv::Mat> grey(2, cv::Mat(32, 32, CV_8UC1, cv::Scalar()));
  const auto fail_from = [&](int step) {
    host_cuda::clear_faults();
    if (step < 1) host_cuda::fail_call("setInputShape", 1, 1);
    if (step < 2) host_cuda::answer_call("getTensorShape(input)", 1, {1, 3, 32, 32});
    if (step < 3) host_cuda::fail_call("setTensorAddress", 1, 1);
    host_cuda::fail_call("enqueueV3", 1, 1);
    host_cuda::answer_call("getTensorShape(coarse)", 1, {1, 6, 8, 8});
  };
  const char* const texts[] = {"failed to set TensorRT init device batch input shape",
                               "TensorRT init device batch input shape mismatch",
                               "failed to bind TensorRT init device batch input tensor",
                               "TensorRT input patch has invalid size or type"};
  for (int step = 0; step < 4; ++step) {
    fail_from(step);
    expect_failure(grey, texts[step]);
  }
  fail_from(4);
  expect_failure(random_patches(2), "TensorRT enqueue failed for init device batch");
  trt->ready = false;
  expect_failure(random_patches(3), "TensorRT backbone is not ready for device init batch");
}

TEST_F(TrtDeviceBatchTest, NeedsAnOutputBuffer) {
  ASSERT_TRUE(start(StridedEngine{}, 2));
  const auto first = std::move(trt->out0_device);
  const auto second = std::move(trt->out1_device);
  expect_failure(random_patches(1), "TensorRT init device batch output shape is invalid");
  EXPECT_EQ(cudaStreamSynchronize(trt->stream.get()), cudaSuccess);
}

}  // namespace
}  // namespace ostrel_test
