// The engine as the backend uses it: loaded once, fed by patches and by the picture library.
#include <atomic>
#include <chrono>
#include <thread>

#include "classify_fixture.h"
#include "support/backend_test_access.h"
#include "tracking_runtime/parameter/atom/resnet18.h"
#include "tracking_runtime/tracker/atom/optrix_adapter.h"

namespace ostrel_test {
namespace {

using Access = atom::CudaRuntimeBackendTestAccess;
using atom::CudaRuntimeBackend;

class BackendEngine : public EngineTest {
 protected:
  std::unique_ptr<CudaRuntimeBackend> backend_on(const std::string& path) {
    auto config = ostrel_tracker::tracking_runtime::parameter::atom::parameters();
    config.trt_engine_path = path;
    config.search_size = 32;
    config.search_scales = {0.98F, 1.0F, 1.02F};
    config.use_projection_matrix = true;
    auto backend = std::make_unique<CudaRuntimeBackend>(std::move(config));
    Access::weights(*backend) = weights;
    return backend;
  }
  bool initialize(CudaRuntimeBackend& backend) {
    error.clear();
    ::testing::internal::CaptureStderr();
    const bool initialized = Access::initialize_runtime(backend, &error);
    ::testing::internal::GetCapturedStderr();
    return initialized;
  }

  const StridedEngine engine;
  const ClassifierState weights = random_weights(6, 4, 4, 4);
};

TEST_F(BackendEngine, IsLoadedOnceAndRemembered) {
  const auto backend = backend_on(write_engine(engine));
  EXPECT_FALSE(Access::state(*backend).runtime_initialized);
  ASSERT_TRUE(initialize(*backend)) << error;
  EXPECT_TRUE(Access::state(*backend).runtime_initialized);
  const TrtBackbone* const primary = Access::trt(*backend).get();
  EXPECT_EQ(primary->max_batch, 3);
  ASSERT_TRUE(initialize(*backend));
  EXPECT_EQ(Access::trt(*backend).get(), primary);
}

TEST_F(BackendEngine, IsTriedAgainAfterAFailure) {
  const auto backend = backend_on(folder.path("late.engine"));
  EXPECT_FALSE(initialize(*backend));
  EXPECT_EQ(error, "TensorRT backbone engine not found: " + folder.path("late.engine"));
  EXPECT_FALSE(Access::state(*backend).runtime_initialized);
  folder.file("late.engine", engine.bytes());
  EXPECT_TRUE(initialize(*backend)) << error;
}

TEST_F(BackendEngine, FailsWithoutAPlaceForTheText) {
  const auto backend = backend_on("");
  EXPECT_FALSE(Access::initialize_runtime(*backend, nullptr));
}

TEST_F(BackendEngine, TurnsPatchesIntoFeaturesByEveryDoor) {
  const auto backend = backend_on(write_engine(engine));
  ASSERT_TRUE(initialize(*backend)) << error;
  const std::vector<cv::Mat> patches = random_patches(3);
  const FeatureMap expected = engine.expected(1, patches[0]);

  expect_same_features(expected, Access::run_trt_forward(*backend, patches[0], &error));
  const FeatureMap batch = Access::run_trt_forward_batched(*backend, patches, &error);
  ASSERT_EQ(batch.samples, 3) << error;
  EXPECT_NEAR(batch.data[0], expected.data[0], kFeatureTolerance);
  FeatureMap one;
  ASSERT_TRUE(Access::extract_feature_map(*backend, patches[0], &one, &error)) << error;
  expect_same_features(expected, one);
  const std::vector<FeatureMap> maps = Access::extract_feature_maps_batched(*backend, patches);
  ASSERT_EQ(maps.size(), 3U);
  expect_same_features(expected, maps[0]);
  TrtBackbone* const primary = Access::trt(*backend).get();
  EXPECT_TRUE(Access::upload_trt_input_patches(*backend, primary, patches, &error)) << error;
}

TEST_F(BackendEngine, AnswersTheSameToPatchesAndToCropsOfAPicture) {
  const auto backend = backend_on(write_engine(engine));
  ASSERT_TRUE(initialize(*backend)) << error;
  const cv::Mat image = random_patch(48, 64, 3);
  const auto picture = optrix::OptrixPicture::fromBgr({image.data, image.cols, image.rows, image.step},
                                                      optrix::PixelFormat::kBgr);
  ASSERT_NE(picture, nullptr);
  const std::vector<cv::Point> corners{{0, 0}, {7, 5}, {32, 16}};
  std::vector<cv::Mat> patches;
  std::vector<optrix::AffineCrop> crops;
  for (const cv::Point& corner : corners) {
    patches.push_back(image(cv::Rect(corner.x, corner.y, 32, 32)));
    crops.push_back(
        atom::make_affine_crop(static_cast<float>(corner.x), static_cast<float>(corner.y), 1.0F, 1.0F));
  }
  bool cut = false;
  const optrix::TensorBatch batch = atom::cut_affine_batch(*picture, crops, 32, 32, &cut);
  ASSERT_TRUE(cut);

  std::vector<cv::Mat> responses;
  std::vector<FeatureMap> features;
  atom::GpuTrackTimings timings;
  ASSERT_TRUE(Access::classify_tensor_batch_on_gpu(*backend, batch, &responses, &features, &timings, &error))
      << error;
  for (std::size_t i = 0; i < 3; ++i) {
    const FeatureMap projected = expected_projection(engine.expected(1, patches[i]), weights);
    expect_same_features(projected, features[i]);
    expect_response(projected, weights, responses[i]);
  }
  const std::vector<cv::Mat> by_batch = responses;
  ASSERT_TRUE(Access::classify_patches_on_gpu(*backend, patches, &responses, &features, &timings, &error))
      << error;
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_LT(cv::norm(by_batch[i], responses[i], cv::NORM_INF), kResponseTolerance);
  }
}

TEST_F(BackendEngine, TakesTheProjectionFromTheSettings) {
  const auto backend = backend_on(write_engine(engine));
  ASSERT_TRUE(initialize(*backend)) << error;
  Access::state(*backend).config.use_projection_matrix = false;
  std::vector<cv::Mat> responses;
  EXPECT_FALSE(
      Access::classify_patches_on_gpu(*backend, random_patches(1), &responses, nullptr, nullptr, &error));
  EXPECT_EQ(error, "classifier filter shape does not match GPU classify path");
}

TEST_F(BackendEngine, HoldsTheStateLockForTheCopyOfTheWeightsOnly) {
  const auto backend = backend_on(write_engine(engine));
  ASSERT_TRUE(initialize(*backend)) << error;
  // One network per patch: whoever gets the lock in mid-call finds some of them queued and others not.
  constexpr std::int64_t kNetworks = 64;
  const std::vector<cv::Mat> patches = random_patches(kNetworks);
  host_cuda::reset_counters();
  std::atomic<bool> in_mid_call{false};
  std::atomic<bool> stop{false};
  std::thread other([&] {
    while (!stop && !in_mid_call) {
      const std::lock_guard<std::mutex> lock(Access::state_mutex(*backend));
      if (host_cuda::counters().enqueued["enqueueV3"] % kNetworks != 0) in_mid_call = true;
    }
  });
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  std::vector<cv::Mat> responses;
  while (!in_mid_call && std::chrono::steady_clock::now() < deadline) {
    EXPECT_TRUE(Access::classify_patches_on_gpu(*backend, patches, &responses, nullptr, nullptr, &error));
  }
  stop = true;
  other.join();
  EXPECT_TRUE(in_mid_call);
}

TEST_F(BackendEngine, CopiesTheWeightsUnderTheStateLock) {
  const auto backend = backend_on(write_engine(engine));
  ASSERT_TRUE(initialize(*backend)) << error;
  host_cuda::reset_counters();
  std::unique_lock<std::mutex> lock(Access::state_mutex(*backend));
  std::vector<cv::Mat> responses;
  bool classified = false;
  std::thread other([&] {
    classified =
        Access::classify_patches_on_gpu(*backend, random_patches(1), &responses, nullptr, nullptr, &error);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(host_cuda::counters().enqueued["enqueueV3"], 0);
  lock.unlock();
  other.join();
  EXPECT_TRUE(classified) << error;
}

}  // namespace
}  // namespace ostrel_test
