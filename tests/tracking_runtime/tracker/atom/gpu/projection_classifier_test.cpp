#include "tracking_runtime/tracker/atom/gpu/cuda_projection_classifier.h"

#include <gtest/gtest.h>

#include <host_cuda/control.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "classifier_fixture.h"
#include "close_to.h"
#include "support/golden.h"

namespace ostrel_test {
namespace {

using atom::CudaProjectionClassifier;
namespace host = ostrel::host_cuda;

// Sums of a few hundred products of size 1 in single precision.
constexpr double kFloatSum = 2e-5;

TEST_F(ProjectionClassifier, ProjectsAndCorrelatesEachSample) {
  ASSERT_TRUE(ensure() && upload() && classify(3)) << error_;
  const Doubles expected = expected_projected();
  const auto sample_size = static_cast<std::ptrdiff_t>(shape_.features() / 3);
  for (int n = 0; n < 3; ++n) {
    const Doubles sample(expected.begin() + n * sample_size, expected.begin() + (n + 1) * sample_size);
    EXPECT_TRUE(close_to(sample, projected(n), kFloatSum)) << n;
  }
  EXPECT_TRUE(close_to(reference_correlation(shape_, expected, widen(filter_)), responses(3), kFloatSum));
  EXPECT_EQ(classifier_.last_batch(), 3);
}

TEST_F(ProjectionClassifier, MatchesGoldenProjections) {
  for (const GoldenCase& golden : load_golden("projection")) {
    const int samples = golden.i32("samples"), in_channels = golden.i32("in_channels");
    const int out_channels = golden.i32("out_channels"), height = golden.i32("height"),
              width = golden.i32("width");
    CudaProjectionClassifier classifier;
    const DeviceArray<float> raw(golden.input_as<float>("raw"));
    ASSERT_TRUE(
        classifier.ensure_capacity(samples, in_channels, out_channels, height, width, 1, 1, &error_) &&
        classifier.upload_weights(golden.input_as<float>("projection"), true, in_channels, out_channels,
                                  std::vector<float>(static_cast<std::size_t>(out_channels), 1.0F), 1, 1,
                                  &error_) &&
        classifier.project_and_classify(raw.get(), samples, stream_.get(), &error_))
        << error_;
    std::vector<float> all, sample;
    for (int n = 0; n < samples; ++n) {
      ASSERT_TRUE(classifier.download_projected_sample(n, &sample, stream_.get(), &error_)) << error_;
      all.insert(all.end(), sample.begin(), sample.end());
    }
    EXPECT_TRUE(matches_golden(golden.output("projected"), all)) << golden.name();
  }
}

TEST_F(ProjectionClassifier, MatchesGoldenCorrelationsWithoutAProjection) {
  for (const GoldenCase& golden : load_golden("correlate")) {
    const int samples = golden.i32("samples"), channels = golden.i32("channels");
    const int fh = golden.i32("filter_height"), fw = golden.i32("filter_width");
    CudaProjectionClassifier classifier;
    const DeviceArray<float> features(golden.input_as<float>("features"));
    std::vector<float> out;
    ASSERT_TRUE(classifier.ensure_capacity(samples, channels, channels, golden.i32("height"),
                                           golden.i32("width"), fh, fw, &error_) &&
                classifier.upload_weights({}, false, channels, channels, golden.input_as<float>("filter"), fh,
                                          fw, &error_) &&
                classifier.project_and_classify(features.get(), samples, stream_.get(), &error_) &&
                classifier.download_responses(samples, &out, stream_.get(), &error_))
        << error_;
    EXPECT_TRUE(matches_golden(golden.output("response"), out)) << golden.name();
  }
}

TEST_F(ProjectionClassifier, PassesFeaturesThroughWithoutAProjection) {
  ASSERT_TRUE(ensure(shape_.channels)) << error_;
  ASSERT_TRUE(classifier_.upload_weights({}, false, shape_.channels, shape_.channels, filter_, 4, 4, &error_))
      << error_;
  host::reset_counters();
  ASSERT_TRUE(classify(2)) << error_;
  EXPECT_EQ(host::counters().launches_of("project_features_kernel"), 0);
  EXPECT_EQ(host::counters().launches_of("classify_kernel"), 1);
  const auto sample_size = static_cast<std::ptrdiff_t>(shape_.features() / 3);
  EXPECT_EQ(projected(1), std::vector<float>(raw_.begin() + sample_size, raw_.begin() + 2 * sample_size));
}

TEST_F(ProjectionClassifier, UploadSwitchesTheProjectionOffAndOnAgain) {
  shape_.channels = kInChannels;
  filter_ = random_values(shape_.taps(), 4);
  projection_ = random_values(kInChannels * kInChannels, 5);
  ASSERT_TRUE(ensure() && upload() && classify(1)) << error_;
  const auto with_projection = projected(0);
  // The buffer of the projection keeps its contents while it is not used.
  ASSERT_TRUE(classifier_.upload_weights({}, false, kInChannels, kInChannels, filter_, 4, 4, &error_) &&
              classify(1));
  EXPECT_NE(projected(0), with_projection);
  ASSERT_TRUE(upload() && classify(1)) << error_;
  EXPECT_EQ(projected(0), with_projection);
}

TEST_F(ProjectionClassifier, GrowingTheMapKeepsTheWeights) {
  ASSERT_TRUE(ensure() && upload()) << error_;
  shape_.height = 9;
  raw_ = random_values(shape_.positions() * kInChannels, 7);
  const DeviceArray<float> larger(raw_);
  host::reset_counters();
  ASSERT_TRUE(ensure()) << error_;
  EXPECT_EQ(host::counters().calls_of("cudaMalloc"), 2);  // projected and response
  EXPECT_EQ(host::counters().calls_of("cudaMallocHost"), 1);
  ASSERT_TRUE(classifier_.project_and_classify(larger.get(), 3, stream_.get(), &error_)) << error_;
  EXPECT_TRUE(
      close_to(reference_correlation(shape_, expected_projected(), widen(filter_)), responses(3), kFloatSum));
}

TEST_F(ProjectionClassifier, GrowingTheChannelsNeedsNewWeights) {
  ASSERT_TRUE(ensure() && upload()) << error_;
  shape_.channels = 5;
  host::reset_counters();
  ASSERT_TRUE(ensure()) << error_;
  EXPECT_EQ(host::counters().calls_of("cudaMalloc"), 3);  // projection, filter, projected
  EXPECT_EQ(host::counters().calls_of("cudaFree"), 3);
  EXPECT_EQ(host::counters().calls_of("cudaMallocHost"), 0);
  EXPECT_FALSE(upload());
  projection_ = random_values(product({kInChannels, shape_.channels}), 8);
  filter_ = random_values(shape_.taps(), 9);
  ASSERT_TRUE(upload() && classify(3)) << error_;
  EXPECT_TRUE(
      close_to(reference_correlation(shape_, expected_projected(), widen(filter_)), responses(3), kFloatSum));
}

TEST_F(ProjectionClassifier, SmallerSizesKeepEveryBuffer) {
  ASSERT_TRUE(ensure() && upload()) << error_;
  host::reset_counters();
  shape_.samples = 1;
  shape_.width = 3;
  ASSERT_TRUE(ensure() && ensure()) << error_;
  EXPECT_EQ(host::counters().calls_of("cudaMalloc") + host::counters().calls_of("cudaFree") +
                host::counters().calls_of("cudaMallocHost"),
            0);
  EXPECT_EQ(classifier_.width(), 3);
  raw_ = random_values(shape_.positions() * kInChannels, 10);
  const DeviceArray<float> smaller(raw_);
  ASSERT_TRUE(classifier_.project_and_classify(smaller.get(), 1, stream_.get(), &error_)) << error_;
  EXPECT_TRUE(
      close_to(reference_correlation(shape_, expected_projected(), widen(filter_)), responses(1), kFloatSum));
}

// The copies run on the null stream, which waits for blocking streams, and for which the worker's stream does not wait.
TEST_F(ProjectionClassifier, UploadedWeightsAreThereForWorkOnAnyStream) {
  ASSERT_TRUE(ensure()) << error_;
  atom::CudaStream blocking;
  require(blocking.create_with_flags(cudaStreamDefault));
  require(host::enqueue(blocking.get(), "work before the copies",
                        [] { std::this_thread::sleep_for(std::chrono::milliseconds(50)); }));
  ASSERT_TRUE(upload() && classify(3)) << error_;
  EXPECT_TRUE(
      close_to(reference_correlation(shape_, expected_projected(), widen(filter_)), responses(3), kFloatSum));
}

TEST_F(ProjectionClassifier, FrameCallsAllocateNothingAndUseNoNullStream) {
  ASSERT_TRUE(ensure() && upload()) << error_;
  host::reset_counters();
  ASSERT_TRUE(ensure() && classify(3)) << error_;
  EXPECT_EQ(host::counters().synchronisations, 0);
  responses(3);
  EXPECT_EQ(host::counters().synchronisations, 1);
  projected(0);
  EXPECT_EQ(host::counters().synchronisations, 2);
  EXPECT_EQ(host::counters().calls_of("cudaMalloc") + host::counters().calls_of("cudaMallocHost"), 0);
  EXPECT_EQ(host::counters().null_stream_work, 0);
}

TEST_F(ProjectionClassifier, RecordsTheEventsOfADownload) {
  ASSERT_TRUE(ensure() && upload() && classify(1)) << error_;
  atom::CudaEvent start, stop;
  require(start.create());
  require(stop.create());
  std::vector<float> out;
  float milliseconds = -1.0F;
  ASSERT_TRUE(classifier_.download_responses(1, &out, stream_.get(), &error_, start.get(), stop.get()))
      << error_;
  EXPECT_EQ(cudaEventElapsedTime(&milliseconds, start.get(), stop.get()), cudaSuccess);
  EXPECT_GE(milliseconds, 0.0F);
  ASSERT_TRUE(
      classifier_.download_projected_sample(0, &out, stream_.get(), &error_, start.get(), stop.get()));
  host::reset_counters();
  responses(1);
  EXPECT_EQ(host::counters().calls_of("cudaEventRecord"), 0);
}

TEST_F(ProjectionClassifier, DownloadsRecordCopyRecordAndWait) {
  ASSERT_TRUE(ensure() && upload() && classify(1)) << error_;
  atom::CudaEvent start, stop;
  require(start.create());
  require(stop.create());
  std::vector<float> out;
  const std::vector<std::string> expected = {"cudaEventRecord", "cudaMemcpyAsync", "cudaEventRecord",
                                             "cudaStreamSynchronize"};
  host::start_trace();
  EXPECT_TRUE(classifier_.download_responses(1, &out, stream_.get(), &error_, start.get(), stop.get()));
  EXPECT_EQ(host::stop_trace(), expected);
  host::start_trace();
  EXPECT_TRUE(
      classifier_.download_projected_sample(0, &out, stream_.get(), &error_, start.get(), stop.get()));
  EXPECT_EQ(host::stop_trace(), expected);
}

TEST_F(ProjectionClassifier, FreesDeviceMemoryThenPinnedMemory) {
  auto classifier = std::make_unique<CudaProjectionClassifier>();
  ASSERT_TRUE(classifier->ensure_capacity(2, 3, 4, 5, 6, 4, 4, &error_)) << error_;
  host::start_trace();
  classifier.reset();
  EXPECT_EQ(host::stop_trace(),
            (std::vector<std::string>{"cudaFree", "cudaFree", "cudaFree", "cudaFree", "cudaFreeHost"}));
}

TEST_F(ProjectionClassifier, FreesEverythingInTheEnd) {
  const auto before = host::counters();
  {
    CudaProjectionClassifier classifier;
    ASSERT_TRUE(classifier.ensure_capacity(2, 3, 4, 5, 6, 4, 4, &error_)) << error_;
    EXPECT_EQ(host::counters().live_device_allocations, before.live_device_allocations + 4);
    EXPECT_EQ(host::counters().live_pinned_allocations, before.live_pinned_allocations + 1);
  }
  EXPECT_EQ(host::counters().live_device_bytes, before.live_device_bytes);
  EXPECT_EQ(host::counters().live_pinned_bytes, before.live_pinned_bytes);
}

}  // namespace
}  // namespace ostrel_test
