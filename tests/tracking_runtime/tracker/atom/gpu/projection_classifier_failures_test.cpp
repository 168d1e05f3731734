#include <gtest/gtest.h>

#include <host_cuda/control.h>

#include <string>
#include <utility>
#include <vector>

#include "call_fault.h"
#include "classifier_fixture.h"

namespace ostrel_test {
namespace {

using atom::CudaProjectionClassifier;
namespace host = ostrel::host_cuda;

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
        Row{"projection missing", 6, 4, 4, 4, 0, 64, bad_projection},
        Row{"projection too long", 6, 4, 4, 4, 25, 64, bad_projection},
        Row{"both, of which the filter is told", 6, 4, 4, 4, 23, 63, bad_filter}}) {
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

TEST_F(ProjectionClassifier, NamesEachFailedAllocationAndRecovers) {
  for (const CallFault& fault :
       {CallFault{"cudaMalloc", 1, "cudaMalloc projection"}, CallFault{"cudaMalloc", 2, "cudaMalloc filter"},
        CallFault{"cudaMalloc", 3, "cudaMalloc projected"}, CallFault{"cudaMalloc", 4, "cudaMalloc response"},
        CallFault{"cudaMallocHost", 1, "cudaMallocHost response"}}) {
    CudaProjectionClassifier classifier;
    const auto live = host::counters().live_device_allocations;
    host::fail_call(fault.call, fault.n, cudaErrorUnknown);
    EXPECT_FALSE(classifier.ensure_capacity(1, 2, 3, 4, 5, 4, 4, &error_));
    EXPECT_EQ(error_, fault.text());
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
  for (const CallFault& fault :
       {CallFault{"cudaMemcpy", 1, "cudaMemcpy projection"}, CallFault{"cudaMemcpy", 2, "cudaMemcpy filter"},
        CallFault{"cudaStreamSynchronize", 1, "cudaMemcpy filter"}}) {
    host::fail_call(fault.call, fault.n, cudaErrorUnknown);
    EXPECT_FALSE(upload());
    EXPECT_EQ(error_, fault.text());
  }
}

TEST_F(ProjectionClassifier, FailedUploadKeepsTheUseOfTheProjection) {
  ASSERT_TRUE(ensure(shape_.channels)) << error_;
  projection_ = random_values(static_cast<std::size_t>(shape_.channels * shape_.channels), 11);
  const auto upload_with = [this](bool use_projection) {
    return classifier_.upload_weights(projection_, use_projection, shape_.channels, shape_.channels, filter_,
                                      4, 4, &error_);
  };
  ASSERT_TRUE(upload_with(true)) << error_;
  host::fail_call("cudaMemcpy", 1, cudaErrorUnknown);
  EXPECT_FALSE(upload_with(false));
  EXPECT_EQ(error_, (CallFault{"", 0, "cudaMemcpy filter"}.text()));
  host::reset_counters();
  ASSERT_TRUE(classify(1)) << error_;
  EXPECT_EQ(host::counters().launches_of("project_features_kernel"), 1);
}

TEST_F(ProjectionClassifier, NamesEachFailedLaunchAndKeepsTheLastBatch) {
  ASSERT_TRUE(ensure() && upload() && classify(2)) << error_;
  for (const CallFault& fault : {CallFault{"project_features_kernel", 1, "project_features_kernel"},
                                 CallFault{"classify_kernel", 1, "classify_kernel"}}) {
    host::fail_call(fault.call, fault.n, cudaErrorUnknown);
    EXPECT_FALSE(classify(3));
    EXPECT_EQ(error_, fault.text());
    EXPECT_EQ(classifier_.last_batch(), 2);
  }
  stream_.wait();  // weights must not change under a running classification
  ASSERT_TRUE(ensure(shape_.channels) && classifier_.upload_weights({}, false, shape_.channels,
                                                                    shape_.channels, filter_, 4, 4, &error_));
  host::fail_call("cudaMemcpyAsync", 1, cudaErrorUnknown);
  EXPECT_FALSE(classify(1));
  EXPECT_EQ(error_, (CallFault{"", 0, "cudaMemcpyAsync projected"}.text()));
}

TEST_F(ProjectionClassifier, NamesEachFailedStepOfADownload) {
  ASSERT_TRUE(ensure() && upload() && classify(1)) << error_;
  atom::CudaEvent start, stop;
  require(start.create());
  require(stop.create());
  std::vector<float> out;
  for (const CallFault& fault : {CallFault{"cudaEventRecord", 1, "cudaEventRecord response start"},
                                 CallFault{"cudaMemcpyAsync", 1, "cudaMemcpyAsync response"},
                                 CallFault{"cudaEventRecord", 2, "cudaEventRecord response stop"},
                                 CallFault{"cudaStreamSynchronize", 1, "cudaStreamSynchronize response"}}) {
    host::fail_call(fault.call, fault.n, cudaErrorUnknown);
    EXPECT_FALSE(classifier_.download_responses(1, &out, stream_.get(), &error_, start.get(), stop.get()));
    EXPECT_EQ(error_, fault.text());
    EXPECT_TRUE(out.empty());
  }
  for (const CallFault& fault :
       {CallFault{"cudaEventRecord", 1, "cudaEventRecord projected start"},
        CallFault{"cudaMemcpyAsync", 1, "cudaMemcpyAsync projected sample"},
        CallFault{"cudaEventRecord", 2, "cudaEventRecord projected stop"},
        CallFault{"cudaStreamSynchronize", 1, "cudaStreamSynchronize projected sample"}}) {
    stream_.wait();
    host::fail_call(fault.call, fault.n, cudaErrorUnknown);
    EXPECT_FALSE(
        classifier_.download_projected_sample(0, &out, stream_.get(), &error_, start.get(), stop.get()));
    EXPECT_EQ(error_, fault.text());
    EXPECT_EQ(out.size(), shape_.features() / 3);
  }
  stream_.wait();
}

}  // namespace
}  // namespace ostrel_test
