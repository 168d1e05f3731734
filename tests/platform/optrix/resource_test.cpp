// Memory, streams, faults and threads of the picture library.
#include <host_cuda/control.h>
#include <null_stream_watch.h>

#include <gmock/gmock.h>

#include <thread>

#include "platform/optrix/reference_picture.h"

namespace {

namespace host_cuda = ostrel::host_cuda;
using optrix::OptrixPicture;
using optrix_test::downloaded;
using optrix_test::resample;

const std::vector<optrix::AffineCrop> kThreeCrops{
    {0.5F, 0.5F, 1.0F, 1.0F}, {-8.0F, 3.0F, 1.5F, 1.5F}, {4.0F, -2.0F, 0.5F, 0.5F}};

class PictureResources : public testing::Test {
 protected:
  void SetUp() override { host_cuda::clear_faults(); }
  void TearDown() override {
    host_cuda::clear_faults();
    null_stream_.expect_nothing_new();
  }

  static bool resamples(const OptrixPicture& picture) {
    bool ok = false;
    const auto batch = picture.getAffineBatchFloat32(kThreeCrops, 24, 24, optrix::ColorOrder::kRgb,
                                                     optrix::NormPreset::kByteRange, false, &ok);
    return ok && batch.data != nullptr;
  }

  std::mt19937 random_{17};
  optrix_test::Nv12Image image_ = optrix_test::random_nv12(64, 48, random_);

 private:
  ostrel_test::NullStreamWatch null_stream_;
};

TEST_F(PictureResources, SteadyFramesAllocateNothing) {
  const auto frame = [&] {
    const auto picture = OptrixPicture::fromNv12(image_.view());
    return downloaded(resample(*picture, kThreeCrops, 24, 24));
  };
  const auto first = frame();
  host_cuda::reset_counters();
  for (int i = 0; i < 20; ++i) EXPECT_EQ(frame(), first);
  EXPECT_EQ(host_cuda::counters().calls_of("cudaMalloc"), 0);
  EXPECT_EQ(host_cuda::counters().calls_of("cudaEventCreateWithFlags"), 0);
  EXPECT_EQ(host_cuda::counters().calls_of("cudaFree"), 0);
}

TEST_F(PictureResources, OneLaunchServesAllCropsAndNothingIsWaitedFor) {
  const auto picture = OptrixPicture::fromNv12(image_.view());
  host_cuda::reset_counters();
  const auto batch = resample(*picture, kThreeCrops, 24, 24);
  EXPECT_EQ(host_cuda::counters().launches_of("affine_crop_nv12_kernel"), 1);
  EXPECT_EQ(host_cuda::counters().synchronisations, 0);
  downloaded(batch);
}

TEST_F(PictureResources, ABatchOutlivesItsPicture) {
  auto picture = OptrixPicture::fromNv12(image_.view());
  const auto expected = downloaded(resample(*picture, kThreeCrops, 24, 24));
  const auto batch = resample(*picture, kThreeCrops, 24, 24);
  picture.reset();
  const auto other = OptrixPicture::fromNv12(optrix_test::random_nv12(64, 48, random_).view());
  EXPECT_EQ(downloaded(batch), expected);
}

TEST_F(PictureResources, BatchesHeldTogetherDoNotShareMemory) {
  const auto picture = OptrixPicture::fromNv12(image_.view());
  const auto first = resample(*picture, kThreeCrops, 24, 24);
  const auto second = resample(*picture, {{5, 5, 2, 2}, {1, 1, 1, 1}, {9, 2, 3, 1}}, 24, 24);
  EXPECT_NE(first.data, second.data);
  EXPECT_NE(first.ready_event, second.ready_event);
  EXPECT_NE(downloaded(first), downloaded(second));
}

TEST_F(PictureResources, ACallFailsWhereTheDeviceRefusesAndTheNextOneWorks) {
  const auto picture = OptrixPicture::fromNv12(image_.view());
  for (const char* call :
       {"getAffineBatchFloat32", "affine_crop_nv12_kernel", "cudaLaunchKernel", "cudaEventRecord"}) {
    SCOPED_TRACE(call);
    host_cuda::fail_call(call, 1, cudaErrorUnknown);
    EXPECT_FALSE(resamples(*picture));
    EXPECT_TRUE(resamples(*picture));
  }
}

TEST_F(PictureResources, AFailedAllocationIsReportedAndForgotten) {
  const auto picture = OptrixPicture::fromNv12(image_.view());
  bool ok = true;
  host_cuda::fail_call("cudaMalloc", 1, cudaErrorMemoryAllocation);
  const auto batch = picture->getAffineBatchFloat32(kThreeCrops, 500, 500, optrix::ColorOrder::kRgb,
                                                    optrix::NormPreset::kByteRange, false, &ok);
  EXPECT_FALSE(ok);
  EXPECT_EQ(batch.data, nullptr);
  EXPECT_TRUE(resamples(*picture));
}

TEST_F(PictureResources, AFactoryNamesTheDeviceCallThatFailed) {
  std::string error;
  host_cuda::fail_call("cudaMemcpyAsync", 1, cudaErrorInvalidValue);
  EXPECT_EQ(OptrixPicture::fromNv12(image_.view(), &error), nullptr);
  EXPECT_EQ(error, std::string("optrix upload: ") + cudaGetErrorString(cudaErrorInvalidValue));
  EXPECT_NE(OptrixPicture::fromNv12(image_.view(), &error), nullptr);
}

TEST_F(PictureResources, TestsCanDistortWhatABatchReports) {
  const auto picture = OptrixPicture::fromNv12(image_.view());
  host_cuda::answer_call("getAffineBatchFloat32", 1, {2, 1, 7, 8, 3, 4});
  auto batch = resample(*picture, kThreeCrops, 24, 24);
  EXPECT_EQ(batch.count, 2);
  EXPECT_EQ(batch.channels, 1);
  EXPECT_EQ(batch.height, 7);
  EXPECT_EQ(batch.width, 8);
  EXPECT_EQ(static_cast<int>(batch.dtype), 3);
  EXPECT_EQ(static_cast<int>(batch.layout), 4);
  EXPECT_NE(batch.data, nullptr);
  host_cuda::answer_call("getAffineBatchFloat32", 1, {3, 3, 24, 24, 0, 0, 0});
  EXPECT_EQ(resample(*picture, kThreeCrops, 24, 24).data, nullptr);
  batch = resample(*picture, kThreeCrops, 24, 24);
  EXPECT_EQ(batch.count, 3);
}

TEST_F(PictureResources, ServesSeveralThreadsAtOnce) {
  const auto picture = OptrixPicture::fromNv12(image_.view());
  const auto expected = downloaded(resample(*picture, kThreeCrops, 24, 24));
  std::vector<std::thread> threads;
  std::vector<int> matches(3);
  for (int& count : matches) {
    threads.emplace_back([&] {
      for (int i = 0; i < 10; ++i) {
        const auto own = OptrixPicture::fromNv12(image_.view());
        if (downloaded(resample(i % 2 == 0 ? *own : *picture, kThreeCrops, 24, 24)) == expected) ++count;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_THAT(matches, testing::Each(10));
}

}  // namespace
