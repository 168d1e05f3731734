#include "tracking_runtime/tracker/atom/feature_extraction.h"

#include "tracking_runtime/tracker/atom/gpu/engine_fixture.h"

namespace ostrel_test {
namespace {

class FeatureExtraction : public EngineTest {
 protected:
  /// Extracts with standard error kept in `lines`.
  std::vector<FeatureMap> extract(const std::vector<cv::Mat>& patches) {
    ::testing::internal::CaptureStderr();
    std::vector<FeatureMap> maps = atom::extract_feature_maps(trt, trt_workers, patches);
    lines.clear();
    const std::string text = ::testing::internal::GetCapturedStderr();
    for (std::size_t at = 0; at < text.size();) {
      const std::size_t end = text.find('\n', at);
      const std::string line = text.substr(at, end - at);
      if (line.rfind("[CudaRuntimeBackend] ", 0) == 0) lines.push_back(line);
      at = end == std::string::npos ? text.size() : end + 1;
    }
    host_cuda::clear_faults();
    return maps;
  }
  void expect_maps(const StridedEngine& engine, const std::vector<cv::Mat>& patches,
                   const std::vector<FeatureMap>& maps) {
    ASSERT_EQ(maps.size(), patches.size());
    for (std::size_t i = 0; i < maps.size(); ++i) {
      SCOPED_TRACE("patch " + std::to_string(i));
      expect_same_features(engine.expected(1, patches[i]), maps[i]);
    }
  }
  static StridedEngine fixed(int batch) {
    StridedEngine engine;
    engine.batch = batch;
    return engine;
  }
  std::int64_t launches_of_network(const std::vector<cv::Mat>& patches) {
    host_cuda::reset_counters();
    extract(patches);
    return host_cuda::counters().enqueued["enqueueV3"];
  }

  std::vector<std::string> lines;
};

TEST_F(FeatureExtraction, ExtractsOnePatch) {
  const StridedEngine engine;
  ASSERT_TRUE(start(engine, 3));
  const cv::Mat patch = random_patch(32, 32, 1);
  FeatureMap map;
  ASSERT_TRUE(atom::extract_feature_map(trt.get(), patch, &map, &error)) << error;
  expect_same_features(engine.expected(1, patch), map);
}

TEST_F(FeatureExtraction, NamesWhatKeepsOnePatchFromItsFeatures) {
  FeatureMap map{1, 1, 1, 1, {1.0F}};
  EXPECT_FALSE(atom::extract_feature_map(nullptr, random_patch(32, 32, 1), nullptr, &error));
  EXPECT_EQ(error, "null output feature map");
  EXPECT_FALSE(atom::extract_feature_map(nullptr, random_patch(32, 32, 1), &map, &error));
  EXPECT_EQ(error, "TensorRT backbone is not ready");
  EXPECT_TRUE(map.defined()) << "left as it was";
  ASSERT_TRUE(start(StridedEngine{}, 1));
  trt->ready = false;
  EXPECT_FALSE(atom::extract_feature_map(trt.get(), random_patch(32, 32, 1), &map, &error));
  EXPECT_EQ(error, "TensorRT backbone is not ready");
  trt->ready = true;
  EXPECT_FALSE(atom::extract_feature_map(trt.get(), cv::Mat(), &map, &error));
  EXPECT_EQ(error, "TensorRT input patch is empty");
  EXPECT_FALSE(map.defined()) << "the forward's empty map replaces it";
  EXPECT_FALSE(atom::extract_feature_map(trt.get(), cv::Mat(), &map, nullptr));
}

TEST_F(FeatureExtraction, ReturnsNothingForNoPatches) {
  EXPECT_TRUE(extract({}).empty());
}

TEST_F(FeatureExtraction, RunsWholeBatchesAndARest) {
  const StridedEngine engine;
  ASSERT_TRUE(start(engine, 3));
  for (const std::size_t count : {1, 2, 3, 4, 7}) {
    const std::vector<cv::Mat> patches = random_patches(count);
    expect_maps(engine, patches, extract(patches));
    EXPECT_TRUE(lines.empty());
    EXPECT_EQ(launches_of_network(patches), static_cast<std::int64_t>((count + 2) / 3));
  }
}

TEST_F(FeatureExtraction, RunsWorkersSideBySide) {
  const StridedEngine engine = fixed(1);
  ASSERT_TRUE(start(engine, 3));
  for (const std::size_t count : {1, 3, 5}) {
    const std::vector<cv::Mat> patches = random_patches(count);
    expect_maps(engine, patches, extract(patches));
    EXPECT_TRUE(lines.empty());
  }
}

TEST_F(FeatureExtraction, RunsOneByOneOnASingleWorker) {
  const StridedEngine engine = fixed(1);
  ASSERT_TRUE(start(engine, 1));
  const std::vector<cv::Mat> patches = random_patches(4);
  expect_maps(engine, patches, extract(patches));
  EXPECT_TRUE(lines.empty());
}

TEST_F(FeatureExtraction, FallsBackFromBatchesToOneByOne) {
  const StridedEngine engine;
  ASSERT_TRUE(start(engine, 2));
  const std::vector<cv::Mat> patches = random_patches(5);
  host_cuda::fail_call("enqueueV3", 2, 1);
  expect_maps(engine, patches, extract(patches));
  EXPECT_EQ(lines,
            (std::vector<std::string>{
                "[CudaRuntimeBackend] TRT batched forward failed at offset 2: TensorRT enqueue failed"}));
}

TEST_F(FeatureExtraction, FallsBackFromBatchesToWorkersToOneByOneOnAFixedBatch) {
  ASSERT_TRUE(start(fixed(4), 3));
  const std::vector<cv::Mat> patches = random_patches(6);
  const std::vector<FeatureMap> maps = extract(patches);
  EXPECT_EQ(lines,
            (std::vector<std::string>{"[CudaRuntimeBackend] TRT batched forward failed at offset 4: "
                                      "failed to set TensorRT batched input shape",
                                      "[CudaRuntimeBackend] TRT parallel forward launch failed at offset 0: "
                                      "failed to set TensorRT worker input shape",
                                      "[CudaRuntimeBackend] TRT forward failed at batch index 0: "
                                      "failed to set TensorRT batched input shape"}));
  ASSERT_EQ(maps.size(), 6U);
  for (const FeatureMap& map : maps) EXPECT_FALSE(map.defined());
}

TEST_F(FeatureExtraction, NamesTheLaunchThatFailed) {
  const struct {
    const char* call;
    int n;
    const char* text;
  } rows[] = {
      {"setInputShape", 5, "failed to set TensorRT worker input shape"},
      {"getTensorShape(input)", 5, "TensorRT worker resolved input shape mismatch"},
      {"setTensorAddress", 5, "failed to bind TensorRT worker input tensor"},
      {"cudaMemcpyAsync", 8, "failed to copy TensorRT uint8 input to device"},
      {"enqueueV3", 5, "TensorRT worker enqueue failed"},
  };
  const StridedEngine engine = fixed(1);
  ASSERT_TRUE(start(engine, 3));
  const std::vector<cv::Mat> patches =
      random_patches(5);  // groups at 0 and 3; the fifth launch is in the second
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    host_cuda::fail_call(row.call, row.n, 1);
    expect_maps(engine, patches, extract(patches));
    EXPECT_EQ(lines,
              (std::vector<std::string>{
                  std::string("[CudaRuntimeBackend] TRT parallel forward launch failed at offset 3: ") +
                  row.text}));
  }
}

TEST_F(FeatureExtraction, RefusesAResolvedInputOfAnotherShape) {
  const StridedEngine engine = fixed(1);
  ASSERT_TRUE(start(engine, 2));
  const std::vector<cv::Mat> patches = random_patches(2);
  for (const auto& answer :
       {std::vector<std::int64_t>{1, 3, 32}, {2, 3, 32, 32}, {1, 3, 31, 32}, {1, 3, 32, 31}}) {
    host_cuda::answer_call("getTensorShape(input)", 1, answer);
    expect_maps(engine, patches, extract(patches));
    EXPECT_EQ(lines,
              (std::vector<std::string>{"[CudaRuntimeBackend] TRT parallel forward launch failed at offset "
                                        "0: TensorRT worker resolved input shape mismatch"}));
  }
}

TEST_F(FeatureExtraction, NamesTheCollectionThatFailed) {
  const struct {
    const char* call;
    int n;
    const char* text;
  } rows[] = {
      {"getTensorShape(coarse)", 2, "output shape mismatch"},
      {"cudaMemcpyAsync", 4, "d2h copy failed"},
      {"cudaStreamSynchronize", 2, "stream sync failed"},
  };
  const StridedEngine engine = fixed(1);
  ASSERT_TRUE(start(engine, 2));
  const std::vector<cv::Mat> patches = random_patches(2);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    host_cuda::fail_call(row.call, row.n, 1);
    expect_maps(engine, patches, extract(patches));
    EXPECT_EQ(lines, (std::vector<std::string>{
                         std::string("[CudaRuntimeBackend] TRT parallel forward copy failed at offset 0: ") +
                         row.text}));
  }
}

TEST_F(FeatureExtraction, RefusesAResolvedOutputOfAnotherShape) {
  const StridedEngine engine = fixed(1);
  ASSERT_TRUE(start(engine, 2));
  const std::vector<cv::Mat> patches = random_patches(2);
  for (const auto& answer : {std::vector<std::int64_t>{1, 6, 8}, {2, 6, 8, 8}, {1, 6, 8, 9}, {1, 6, 0, 8}}) {
    host_cuda::answer_call("getTensorShape(coarse)", 1, answer);
    expect_maps(engine, patches, extract(patches));
    EXPECT_EQ(lines,
              (std::vector<std::string>{"[CudaRuntimeBackend] TRT parallel forward copy failed at offset "
                                        "0: output shape mismatch"}));
  }
}

TEST_F(FeatureExtraction, MissesAnOutputBuffer) {
  const StridedEngine engine = fixed(1);
  ASSERT_TRUE(start(engine, 2));
  const atom::PinnedBuffer<float> taken = std::move(trt_workers[0]->out1_host);
  const std::vector<cv::Mat> patches = random_patches(2);
  expect_maps(engine, patches, extract(patches));
  EXPECT_EQ(lines,
            (std::vector<std::string>{"[CudaRuntimeBackend] TRT parallel forward copy failed at offset 0: "
                                      "missing output buffer"}));
}

TEST_F(FeatureExtraction, PassesOverWorkersThatAreNotReady) {
  const StridedEngine engine = fixed(1);
  ASSERT_TRUE(start(engine, 3));
  trt_workers[0]->ready = false;
  const std::vector<cv::Mat> patches = random_patches(3);
  expect_maps(engine, patches, extract(patches));
  EXPECT_TRUE(lines.empty());
  trt_workers[1].reset();
  expect_maps(engine, patches, extract(patches));
  EXPECT_TRUE(lines.empty());
}

TEST_F(FeatureExtraction, StopsAtTheFirstFailureOfTheLastTierAndKeepsTheLength) {
  const StridedEngine engine = fixed(1);
  ASSERT_TRUE(start(engine, 1));
  std::vector<cv::Mat> patches = random_patches(6);
  patches[3] = cv::Mat();
  const std::vector<FeatureMap> maps = extract(patches);
  EXPECT_EQ(lines,
            (std::vector<std::string>{
                "[CudaRuntimeBackend] TRT forward failed at batch index 3: TensorRT input patch is empty"}));
  ASSERT_EQ(maps.size(), 6U);
  for (std::size_t i = 0; i < 6; ++i) EXPECT_EQ(maps[i].defined(), i < 3) << i;
}

TEST_F(FeatureExtraction, RunsOnlyTheLastTierWithoutAReadyPrimary) {
  const std::vector<std::string> line{
      "[CudaRuntimeBackend] TRT forward failed at batch index 0: TensorRT backbone is not ready"};
  EXPECT_EQ(extract(random_patches(2)).size(), 2U);
  EXPECT_EQ(lines, line);
  ASSERT_TRUE(start(fixed(1), 3));
  trt->ready = false;
  EXPECT_FALSE(extract(random_patches(2))[0].defined());
  EXPECT_EQ(lines, line) << "also with further workers that are ready";
}

}  // namespace
}  // namespace ostrel_test
