// When weights go to the device: whenever a version or a shape differs from what the worker holds, and only then.
#include <array>

#include "classify_fixture.h"

namespace ostrel_test {
namespace {

class WeightRefresh : public ClassifyTest {
 protected:
  /// Blocking copies of one classification: a projection and a filter per upload with a projection.
  std::int64_t copies_of_patches() {
    const std::int64_t before = host_cuda::counters().calls_of("cudaMemcpy");
    EXPECT_TRUE(classify_patches(patches)) << error;
    return host_cuda::counters().calls_of("cudaMemcpy") - before;
  }
  std::int64_t copies_of_batch() {
    const DeviceBatch device(patches);
    const std::int64_t before = host_cuda::counters().calls_of("cudaMemcpy");
    EXPECT_TRUE(classify_batch(device.batch)) << error;
    return host_cuda::counters().calls_of("cudaMemcpy") - before;
  }

  const StridedEngine engine = engine_of_batch(1);
  const std::vector<cv::Mat> patches = random_patches(3);
};

TEST_F(WeightRefresh, UploadsOncePerWorkerAndNewVersion) {
  ASSERT_TRUE(start(engine, 3));
  EXPECT_EQ(copies_of_patches(), 3 * 2);
  EXPECT_GT(timings.upload_weights_gpu_ms, 0.0F);
  EXPECT_EQ(copies_of_patches(), 0);
  EXPECT_EQ(timings.upload_weights_gpu_ms, 0.0F);

  weights.filter_weights = random_values(weights.filter_weights.size(), 77);
  weights.filter_version = 2;
  EXPECT_EQ(copies_of_patches(), 3 * 2);
  EXPECT_GT(timings.upload_weights_gpu_ms, 0.0F);
  expect_results(engine, patches);
  EXPECT_EQ(copies_of_patches(), 0);
}

TEST_F(WeightRefresh, UploadsANewProjection) {
  ASSERT_TRUE(start(engine, 1));
  EXPECT_EQ(copies_of_patches(), 2);
  weights.projection_matrix = random_values(weights.projection_matrix.size(), 78);
  weights.projection_version = 2;
  EXPECT_EQ(copies_of_patches(), 2);
  expect_results(engine, patches);
}

TEST_F(WeightRefresh, TakesNoNoticeOfAProjectionThatIsNotUsed) {
  ASSERT_TRUE(start(engine, 1));
  weights = random_weights(6, 0, 4, 4);
  use_projection = false;
  EXPECT_EQ(copies_of_patches(), 1) << "the filter alone";
  weights.projection_version = 2;
  EXPECT_EQ(copies_of_patches(), 0);
}

TEST_F(WeightRefresh, UploadsWhenTheProjectionIsSwitched) {
  ASSERT_TRUE(start(engine, 1));
  weights = random_weights(6, 6, 4, 4);
  EXPECT_EQ(copies_of_patches(), 2);
  use_projection = false;
  EXPECT_EQ(copies_of_patches(), 1);
  expect_results(engine, patches);
  use_projection = true;
  EXPECT_EQ(copies_of_patches(), 2);
  expect_results(engine, patches);
}

TEST_F(WeightRefresh, UploadsWhenAShapeChangesUnderOneVersion) {
  ASSERT_TRUE(start(engine, 1));
  EXPECT_EQ(copies_of_patches(), 2);
  for (const auto& [projected, height, width] :
       {std::array{5, 4, 4}, std::array{5, 3, 4}, std::array{5, 3, 6}}) {
    weights = random_weights(6, projected, height, width);
    EXPECT_EQ(copies_of_patches(), 2);
    expect_results(engine, patches);
  }
}

TEST_F(WeightRefresh, KeepsTheWeightsWhenThePathsAlternate) {
  const StridedEngine open;
  ASSERT_TRUE(start(open, 3));
  EXPECT_EQ(copies_of_patches(), 2);
  EXPECT_EQ(copies_of_batch(), 0) << "more samples lose neither projection nor filter";
  expect_results(open, patches);
  EXPECT_EQ(copies_of_patches(), 0);
  expect_results(open, patches);
}

TEST_F(WeightRefresh, UploadsAgainAfterAGrowthThatFailed) {
  ASSERT_TRUE(start(engine, 1));
  const ClassifierState small = weights;
  EXPECT_EQ(copies_of_patches(), 2);
  weights = random_weights(6, 12, 5, 5);  // the projection grows, the filter does not
  host_cuda::fail_call("cudaMalloc", 2, cudaErrorMemoryAllocation);
  EXPECT_FALSE(classify_patches(patches));
  weights = small;
  EXPECT_EQ(copies_of_patches(), 2) << "the old projection went with its buffer";
  expect_results(engine, patches);
}

TEST_F(WeightRefresh, UploadsAgainAfterAnUploadThatFailed) {
  ASSERT_TRUE(start(engine, 1));
  const ClassifierState first = weights;
  EXPECT_EQ(copies_of_patches(), 2);
  weights = random_weights(6, 4, 4, 4, 99);
  weights.filter_version = 2;
  host_cuda::fail_call("cudaMemcpy", 2, cudaErrorInvalidValue);
  EXPECT_FALSE(classify_patches(patches));
  weights = first;
  EXPECT_EQ(copies_of_patches(), 2);
  expect_results(engine, patches);
}

TEST_F(WeightRefresh, RemembersWhatItUploaded) {
  ASSERT_TRUE(start(engine, 1));
  weights = random_weights(6, 4, 3, 5);
  weights.filter_version = 8;
  weights.projection_version = 9;
  ASSERT_TRUE(classify_patches(patches)) << error;
  EXPECT_EQ(trt->uploaded_filter_version, 8U);
  EXPECT_EQ(trt->uploaded_projection_version, 9U);
  EXPECT_TRUE(trt->uploaded_has_projection);
  EXPECT_EQ(trt->uploaded_in_channels, 6);
  EXPECT_EQ(trt->uploaded_out_channels, 4);
  EXPECT_EQ(trt->uploaded_filter_height, 3);
  EXPECT_EQ(trt->uploaded_filter_width, 5);
}

}  // namespace
}  // namespace ostrel_test
