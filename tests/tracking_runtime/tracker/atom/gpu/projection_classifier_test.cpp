#include "tracking_runtime/tracker/atom/gpu/cuda_projection_classifier.h"

#include <gtest/gtest.h>

#include <host_cuda/control.h>

#include <string>
#include <utility>
#include <vector>

#include "close_to.h"
#include "device_arrays.h"
#include "reference_numerics.h"
#include "support/golden.h"

namespace ostrel_test {
namespace {

using atom::CudaProjectionClassifier;
namespace host = ostrel::host_cuda;

// Sums of a few hundred products of size 1 in single precision.
constexpr double kFloatSum = 2e-5;

/// A classifier of given sizes with random weights.
class ProjectionClassifier : public ::testing::Test {
 protected:
  static constexpr int kInChannels = 6;
  Shape shape_{3, 4, 5, 7, 4, 4};  // channels are those after the projection
  CudaProjectionClassifier classifier_;
  TestStream stream_;
  std::string error_;
  std::vector<float> raw_ = random_values(shape_.positions() * kInChannels, 1);
  std::vector<float> projection_ = random_values(static_cast<std::size_t>(kInChannels * shape_.channels), 2);
  std::vector<float> filter_ = random_values(shape_.taps(), 3);
  DeviceArray<float> features_{raw_};

  void TearDown() override { host::clear_faults(); }

  bool ensure(int in_channels = kInChannels) {
    return classifier_.ensure_capacity(shape_.samples, in_channels, shape_.channels, shape_.height,
                                       shape_.width, shape_.filter_height, shape_.filter_width, &error_);
  }
  bool upload() {
    return classifier_.upload_weights(projection_, true, kInChannels, shape_.channels, filter_,
                                      shape_.filter_height, shape_.filter_width, &error_);
  }
  bool classify(int batch) {
    return classifier_.project_and_classify(features_.get(), batch, stream_.get(), &error_);
  }

  Doubles expected_projected() const {
    return reference_projection(shape_.samples, kInChannels, shape_.channels, shape_.height * shape_.width,
                                widen(raw_), widen(projection_));
  }
  std::vector<float> responses(int batch) {
    std::vector<float> out;
    EXPECT_TRUE(classifier_.download_responses(batch, &out, stream_.get(), &error_)) << error_;
    return out;
  }
  std::vector<float> projected(int index) {
    std::vector<float> out;
    EXPECT_TRUE(classifier_.download_projected_sample(index, &out, stream_.get(), &error_)) << error_;
    return out;
  }
};

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

TEST_F(ProjectionClassifier, TakesABatchUpToItsCapacity) {
  ASSERT_TRUE(ensure() && upload()) << error_;
  EXPECT_TRUE(classify(3)) << error_;
  EXPECT_FALSE(classify(4));
  EXPECT_EQ(error_, "invalid CUDA projection/classifier launch arguments");
  EXPECT_EQ(classifier_.last_batch(), 3);
}

TEST_F(ProjectionClassifier, RefusesLaunchArguments) {
  EXPECT_FALSE(classify(1));  // no capacity yet
  EXPECT_EQ(std::exchange(error_, ""), "invalid CUDA projection/classifier launch arguments");
  ASSERT_TRUE(ensure() && upload()) << error_;
  EXPECT_FALSE(classify(0));
  EXPECT_EQ(std::exchange(error_, ""), "invalid CUDA projection/classifier launch arguments");
  EXPECT_FALSE(classifier_.project_and_classify(nullptr, 1, stream_.get(), &error_));
  EXPECT_EQ(error_, "invalid CUDA projection/classifier launch arguments");
  EXPECT_FALSE(classifier_.project_and_classify(nullptr, 1, stream_.get(), nullptr));
}

TEST_F(ProjectionClassifier, DownloadsNoMoreThanTheLastBatch) {
  ASSERT_TRUE(ensure() && upload() && classify(2)) << error_;
  std::vector<float> out = {1.0F};
  EXPECT_FALSE(
      classifier_.download_responses(3, &out, stream_.get(), &error_));  // within capacity all the same
  EXPECT_EQ(std::exchange(error_, ""), "invalid CUDA response download request");
  EXPECT_FALSE(classifier_.download_responses(0, &out, stream_.get(), &error_));
  EXPECT_EQ(std::exchange(error_, ""), "invalid CUDA response download request");
  EXPECT_FALSE(classifier_.download_responses(1, nullptr, stream_.get(), &error_));
  EXPECT_EQ(std::exchange(error_, ""), "invalid CUDA response download request");
  EXPECT_FALSE(classifier_.download_projected_sample(2, &out, stream_.get(), &error_));
  EXPECT_EQ(std::exchange(error_, ""), "invalid CUDA projected sample download request");
  EXPECT_FALSE(classifier_.download_projected_sample(-1, &out, stream_.get(), &error_));
  EXPECT_EQ(std::exchange(error_, ""), "invalid CUDA projected sample download request");
  EXPECT_FALSE(classifier_.download_projected_sample(0, nullptr, stream_.get(), &error_));
  EXPECT_EQ(error_, "invalid CUDA projected sample download request");
  EXPECT_EQ(out, std::vector<float>{1.0F});
  EXPECT_EQ(responses(1).size(), shape_.positions() / 3);
}

TEST_F(ProjectionClassifier, RefusesToReadABatchThatItsBuffersNoLongerHold) {
  shape_ = {3, 1, 4, 4, 1, 1};
  projection_ = random_values(kInChannels, 6);
  filter_ = {1.0F};
  ASSERT_TRUE(ensure() && upload() && classify(3)) << error_;
  // One sample of 6 x 6 fits into what three of 4 x 4 took; three of 6 x 6 do not.
  ASSERT_TRUE(classifier_.ensure_capacity(1, kInChannels, 1, 6, 6, 1, 1, &error_)) << error_;
  std::vector<float> out;
  EXPECT_FALSE(classifier_.download_responses(3, &out, stream_.get(), &error_));
  EXPECT_EQ(error_, "invalid CUDA response download request");
  EXPECT_FALSE(classifier_.download_projected_sample(2, &out, stream_.get(), &error_));
  EXPECT_EQ(error_, "invalid CUDA projected sample download request");
}

TEST_F(ProjectionClassifier, RefusesSizesBelowOneAndKeepsTheOldOnes) {
  ASSERT_TRUE(ensure()) << error_;
  for (int position = 0; position < 7; ++position) {
    int sizes[7] = {9, 9, 9, 9, 9, 9, 9};
    sizes[position] = 0;
    error_.clear();
    EXPECT_FALSE(classifier_.ensure_capacity(sizes[0], sizes[1], sizes[2], sizes[3], sizes[4], sizes[5],
                                             sizes[6], &error_));
    EXPECT_EQ(error_, "invalid CUDA projection/classifier dimensions") << position;
  }
  EXPECT_EQ(classifier_.output_channels(), 4);
  EXPECT_EQ(classifier_.height(), 5);
  EXPECT_EQ(classifier_.width(), 7);
}

TEST_F(ProjectionClassifier, RefusesWeightsOfOtherSizes) {
  ASSERT_TRUE(ensure()) << error_;
  struct Row {
    const char* reason;
    int in_channels, out_channels, filter_height, filter_width;
    std::size_t projection, filter;
    const char* text;
  };
  const char* const mismatch = "CUDA projection/classifier dimensions do not match uploaded weights";
  const char* const bad_filter = "invalid filter size for CUDA projection/classifier";
  const char* const bad_projection = "invalid projection size for CUDA projection/classifier";
  for (const Row& row :
       {Row{"raw channels", 5, 4, 4, 4, 20, 64, mismatch},
        Row{"projected channels", 6, 3, 4, 4, 18, 48, mismatch},
        Row{"filter height", 6, 4, 3, 4, 24, 48, mismatch}, Row{"filter width", 6, 4, 4, 5, 24, 80, mismatch},
        Row{"filter too short", 6, 4, 4, 4, 24, 63, bad_filter},
        Row{"filter too long", 6, 4, 4, 4, 24, 65, bad_filter},
        Row{"projection too short", 6, 4, 4, 4, 23, 64, bad_projection},
        Row{"projection missing", 6, 4, 4, 4, 0, 64, bad_projection}}) {
    error_.clear();
    EXPECT_FALSE(classifier_.upload_weights(std::vector<float>(row.projection), true, row.in_channels,
                                            row.out_channels, std::vector<float>(row.filter),
                                            row.filter_height, row.filter_width, &error_));
    EXPECT_EQ(error_, row.text) << row.reason;
  }
}

TEST_F(ProjectionClassifier, MovedFromRefusesEverything) {
  CudaProjectionClassifier taken = std::move(classifier_);
  EXPECT_FALSE(ensure());
  EXPECT_EQ(error_, "invalid CUDA projection/classifier dimensions");
  EXPECT_FALSE(upload());
  EXPECT_EQ(error_, "CUDA projection/classifier is not initialized");
  EXPECT_FALSE(classify(1));
  EXPECT_EQ(error_, "invalid CUDA projection/classifier launch arguments");
  std::vector<float> out;
  EXPECT_FALSE(classifier_.download_responses(1, &out, stream_.get(), &error_));
  EXPECT_FALSE(classifier_.download_projected_sample(0, &out, stream_.get(), &error_));
  EXPECT_EQ(
      classifier_.output_channels() + classifier_.height() + classifier_.width() + classifier_.last_batch(),
      0);
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
  projection_ = random_values(static_cast<std::size_t>(kInChannels * shape_.channels), 8);
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

/// One call made to fail, and the text of that failure.
struct Fault {
  const char* call;
  int n;
  const char* label;
};

std::string text_of(const Fault& fault) {
  return std::string(fault.label) + ": " + cudaGetErrorString(cudaErrorUnknown);
}

TEST_F(ProjectionClassifier, NamesEachFailedAllocationAndRecovers) {
  for (const Fault& fault :
       {Fault{"cudaMalloc", 1, "cudaMalloc projection"}, Fault{"cudaMalloc", 2, "cudaMalloc filter"},
        Fault{"cudaMalloc", 3, "cudaMalloc projected"}, Fault{"cudaMalloc", 4, "cudaMalloc response"},
        Fault{"cudaMallocHost", 1, "cudaMallocHost response"}}) {
    CudaProjectionClassifier classifier;
    const auto live = host::counters().live_device_allocations;
    host::fail_call(fault.call, fault.n, cudaErrorUnknown);
    EXPECT_FALSE(classifier.ensure_capacity(1, 2, 3, 4, 5, 4, 4, &error_));
    EXPECT_EQ(error_, text_of(fault));
    EXPECT_EQ(classifier.width(), 0);
    // What succeeded stays, but for the response, which goes with its pinned twin.
    const int kept = std::string(fault.call) == "cudaMallocHost" ? 3 : fault.n - 1;
    EXPECT_EQ(host::counters().live_device_allocations, live + kept);
    EXPECT_TRUE(classifier.ensure_capacity(1, 2, 3, 4, 5, 4, 4, &error_)) << error_;
    EXPECT_EQ(classifier.width(), 5);
  }
}

TEST_F(ProjectionClassifier, NamesEachFailedUpload) {
  ASSERT_TRUE(ensure()) << error_;
  for (const Fault& fault :
       {Fault{"cudaMemcpy", 1, "cudaMemcpy projection"}, Fault{"cudaMemcpy", 2, "cudaMemcpy filter"}}) {
    host::fail_call(fault.call, fault.n, cudaErrorUnknown);
    EXPECT_FALSE(upload());
    EXPECT_EQ(error_, text_of(fault));
  }
}

TEST_F(ProjectionClassifier, NamesEachFailedLaunchAndKeepsTheLastBatch) {
  ASSERT_TRUE(ensure() && upload() && classify(2)) << error_;
  for (const Fault& fault : {Fault{"project_features_kernel", 1, "project_features_kernel"},
                             Fault{"classify_kernel", 1, "classify_kernel"}}) {
    host::fail_call(fault.call, fault.n, cudaErrorUnknown);
    EXPECT_FALSE(classify(3));
    EXPECT_EQ(error_, text_of(fault));
    EXPECT_EQ(classifier_.last_batch(), 2);
  }
  ASSERT_TRUE(ensure(shape_.channels) && classifier_.upload_weights({}, false, shape_.channels,
                                                                    shape_.channels, filter_, 4, 4, &error_));
  host::fail_call("cudaMemcpyAsync", 1, cudaErrorUnknown);
  EXPECT_FALSE(classify(1));
  EXPECT_EQ(error_, text_of({"", 0, "cudaMemcpyAsync projected"}));
}

TEST_F(ProjectionClassifier, NamesEachFailedStepOfADownload) {
  ASSERT_TRUE(ensure() && upload() && classify(1)) << error_;
  atom::CudaEvent start, stop;
  require(start.create());
  require(stop.create());
  std::vector<float> out;
  for (const Fault& fault : {Fault{"cudaEventRecord", 1, "cudaEventRecord response start"},
                             Fault{"cudaMemcpyAsync", 1, "cudaMemcpyAsync response"},
                             Fault{"cudaEventRecord", 2, "cudaEventRecord response stop"},
                             Fault{"cudaStreamSynchronize", 1, "cudaStreamSynchronize response"}}) {
    host::fail_call(fault.call, fault.n, cudaErrorUnknown);
    EXPECT_FALSE(classifier_.download_responses(1, &out, stream_.get(), &error_, start.get(), stop.get()));
    EXPECT_EQ(error_, text_of(fault));
    EXPECT_TRUE(out.empty());
  }
  for (const Fault& fault : {Fault{"cudaEventRecord", 1, "cudaEventRecord projected start"},
                             Fault{"cudaMemcpyAsync", 1, "cudaMemcpyAsync projected sample"},
                             Fault{"cudaEventRecord", 2, "cudaEventRecord projected stop"},
                             Fault{"cudaStreamSynchronize", 1, "cudaStreamSynchronize projected sample"}}) {
    stream_.wait();
    host::fail_call(fault.call, fault.n, cudaErrorUnknown);
    EXPECT_FALSE(
        classifier_.download_projected_sample(0, &out, stream_.get(), &error_, start.get(), stop.get()));
    EXPECT_EQ(error_, text_of(fault));
    EXPECT_EQ(out.size(), shape_.features() / 3);
  }
  stream_.wait();
}

}  // namespace
}  // namespace ostrel_test
