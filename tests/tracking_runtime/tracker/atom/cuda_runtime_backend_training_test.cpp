// The blocking trainings, and the sample memory under its lock.

#include <gtest/gtest.h>
#include <host_cuda/control.h>

#include <new>
#include <string>
#include <vector>

#include "support/heap_counter.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_handles.h"
#include "tracking_runtime/tracker/atom/training_fixture.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

using Lines = std::vector<std::string>;

// The same arithmetic on other buffers; kernels may sum in another order from run to run.
constexpr float kSolverTolerance = 1e-5F;

void expect_near(const std::vector<float>& actual, const std::vector<float>& expected) {
  ASSERT_EQ(actual.size(), expected.size());
  for (std::size_t i = 0; i < actual.size(); ++i) EXPECT_NEAR(actual[i], expected[i], kSolverTolerance);
}

class Training : public TrainingFixture {
 protected:
  // What the solver alone makes of these samples and the present filter.
  std::vector<float> solve(const std::vector<float>& features, const std::vector<float>& labels,
                           const std::vector<float>& weights, float regularization, int iterations) {
    std::vector<float> solved;
    std::string error;
    EXPECT_TRUE(CudaFilterTrainer().optimize_filter(
        features, labels, weights, static_cast<int>(weights.size()), kChannels, kHeight, kWidth, filter(), 2,
        2, regularization, iterations, &solved, &error))
        << error;
    return solved;
  }
};

TEST_F(Training, SolvesOverTheSelectionOfTheMemory) {
  fill(3);
  ASSERT_TRUE(Access::store_training_sample(*backend_, feature(7), label(7), 0.2F));
  ASSERT_TRUE(Access::store_training_sample(*backend_, feature(8), label(8), 0.2F));
  TrainingSelection selection;
  ASSERT_TRUE(Access::memory(*backend_).select_(4, &selection));
  const std::vector<float> expected =
      solve(selection.features, selection.labels, selection.weights, 0.02F, 5);
  int selected = -1;
  int stored = -1;
  ASSERT_TRUE(Access::train_filter_from_memory(*backend_, 5, 4, &selected, &stored));
  EXPECT_EQ(selected, 4);
  EXPECT_EQ(stored, 5);
  expect_near(filter(), expected);
  EXPECT_EQ(filter_version(), 8U);
}

TEST_F(Training, NeedsNoCounters) {
  fill(3);
  EXPECT_TRUE(Access::train_filter_from_memory(*backend_, 1, 0, nullptr, nullptr));
}

TEST_F(Training, RaisesTheRegularizationToItsFloor) {
  fill(3);
  TargetState& state = Access::state(*backend_);
  state.config.filter_regularization = 0.0F;
  state.config.filter_regularization_floor = 0.5F;
  TrainingSelection selection;
  ASSERT_TRUE(Access::memory(*backend_).select_(0, &selection));
  const std::vector<float> expected = solve(selection.features, selection.labels, selection.weights, 0.5F, 5);
  ASSERT_TRUE(Access::train_filter_from_memory(*backend_, 5, 0, nullptr, nullptr));
  expect_near(filter(), expected);
}

TEST_F(Training, KeepsItsTrainer) {
  fill(3);
  EXPECT_EQ(Access::filter_trainer(*backend_), nullptr);
  ASSERT_TRUE(Access::train_filter_from_memory(*backend_, 1, 0, nullptr, nullptr));
  const CudaFilterTrainer* trainer = Access::filter_trainer(*backend_).get();
  ASSERT_TRUE(Access::train_filter_from_memory(*backend_, 1, 0, nullptr, nullptr));
  EXPECT_EQ(Access::filter_trainer(*backend_).get(), trainer);
}

TEST_F(Training, RefusesAMissingFilterOrAMemoryOfMixedShapes) {
  int selected = -1;
  int stored = -1;
  EXPECT_FALSE(Access::train_filter_from_memory(*backend_, 1, 0, &selected, &stored));
  fill(3);
  Access::memory(*backend_).memory_label_width = kWidth + 1;
  EXPECT_FALSE(Access::train_filter_from_memory(*backend_, 1, 0, &selected, &stored));
  Access::memory(*backend_).memory_label_width = kWidth;
  Access::weights(*backend_).filter_weights.clear();
  EXPECT_FALSE(Access::train_filter_from_memory(*backend_, 1, 0, &selected, &stored));
  EXPECT_EQ(selected, -1);
  EXPECT_EQ(stored, -1);
}

TEST_F(Training, NeverAdoptsAnEmptyFilter) {
  const std::vector<float> before = filter();
  EXPECT_FALSE(Access::adopt_filter(*backend_, {}));
  EXPECT_EQ(filter(), before);
  EXPECT_EQ(filter_version(), 7U);
}

TEST_F(Training, RefusesBadSamplesWithoutTheLock) {
  fill(2);
  const std::lock_guard<std::mutex> lock(Access::state_mutex(*backend_));
  EXPECT_FALSE(Access::store_training_sample(*backend_, FeatureMap(), label(0), 0.1F));
  EXPECT_FALSE(Access::store_training_sample(*backend_, feature(0), LabelMap(), 0.1F));
  EXPECT_FALSE(Access::batch_init_memory(*backend_, {}, {}));
  EXPECT_FALSE(Access::batch_init_memory(*backend_, {feature(0)}, {LabelMap()}));
}

TEST_F(Training, StoresWithoutAllocating) {
  fill(2);
  const FeatureMap sample = feature(3);
  const LabelMap wanted = label(3);
  const long before = ostrel_test::heap_allocations();
  for (int i = 0; i < 3 * kCapacity; ++i) {
    ASSERT_TRUE(Access::store_training_sample(*backend_, sample, wanted, 0.1F));
  }
  EXPECT_EQ(ostrel_test::heap_allocations(), before);
}

TEST_F(Training, TakesTheCapacityOfTheConfiguration) {
  fill(2);
  EXPECT_EQ(Access::memory(*backend_).sample_weights.size(), static_cast<std::size_t>(kCapacity));
  Access::state(*backend_).config.sample_memory_size = 9;
  ASSERT_TRUE(Access::store_training_sample(*backend_, feature(0), label(0), 0.1F));
  EXPECT_EQ(Access::memory(*backend_).sample_weights.size(), 9U);
}

TEST_F(Training, ReleasesTheLockWhenMemoryRunsOut) {
  fill(2);
  Access::state(*backend_).config.sample_memory_size = 1234;
  ostrel_test::fail_heap_allocations_of(1234 * kHeight * kWidth *
                                        sizeof(float));  // the labels of the rebuilt memory
  EXPECT_THROW(Access::store_training_sample(*backend_, feature(0), label(0), 0.1F), std::bad_alloc);
  ostrel_test::fail_heap_allocations_of(0);
  ASSERT_TRUE(Access::state_mutex(*backend_).try_lock());
  Access::state_mutex(*backend_).unlock();
  // What is left is an empty memory, not a broken one.
  EXPECT_FALSE(Access::train_filter_from_memory(*backend_, 1, 0, nullptr, nullptr));
  EXPECT_TRUE(Access::store_training_sample(*backend_, feature(0), label(0), 0.1F));
  EXPECT_EQ(Access::memory(*backend_).num_stored_samples, 1);
  EXPECT_TRUE(Access::train_filter_from_memory(*backend_, 1, 0, nullptr, nullptr));
}

class DeviceBatch : public Training {
 protected:
  static constexpr int kSamples = 3;

  DeviceBatch() {
    for (int i = 0; i < kSamples; ++i) {
      const FeatureMap map = feature(i);
      features_.insert(features_.end(), map.data.begin(), map.data.end());
      labels_.push_back(label(i));
    }
    EXPECT_EQ(stream_.create_with_flags(cudaStreamNonBlocking), cudaSuccess);
    EXPECT_EQ(device_.ensure(features_.size()), cudaSuccess);
    EXPECT_EQ(cudaMemcpyAsync(device_.get(), features_.data(), features_.size() * sizeof(float),
                              cudaMemcpyHostToDevice, stream_.get()),
              cudaSuccess);
  }
  ~DeviceBatch() override { EXPECT_EQ(cudaStreamSynchronize(stream_.get()), cudaSuccess); }

  bool train(std::string* error) {
    return Access::train_filter_from_device_batch(*backend_, device_.get(), stream_.get(), labels_, kSamples,
                                                  kChannels, kHeight, kWidth, 5, error);
  }
  std::string failure() {
    std::string error;
    EXPECT_FALSE(train(&error));
    EXPECT_FALSE(train(nullptr));
    return error;
  }
  // The solver's result over the first samples, all of one weight.
  std::vector<float> expected(std::size_t used) {
    std::vector<float> labels;
    for (std::size_t i = 0; i < used; ++i) {
      labels.insert(labels.end(), labels_[i].data.begin(), labels_[i].data.end());
    }
    const auto stride = static_cast<std::ptrdiff_t>(used * kChannels * kHeight * kWidth);
    return solve({features_.begin(), features_.begin() + stride}, labels,
                 std::vector<float>(used, 1.0F / static_cast<float>(used)), 0.02F, 5);
  }

  std::vector<float> features_;
  std::vector<LabelMap> labels_;
  CudaStream stream_;
  DeviceBuffer<float> device_;
};

TEST_F(DeviceBatch, SolvesOverAllSamplesWithOneWeight) {
  const std::vector<float> solved = expected(3);
  std::string error = "untouched";
  ASSERT_TRUE(train(&error)) << error;
  EXPECT_EQ(error, "untouched");
  expect_near(filter(), solved);
  EXPECT_EQ(filter_version(), 8U);
}

TEST_F(DeviceBatch, UsesAsManySamplesAsHaveLabelsAndRoom) {
  const std::vector<float> of_two = expected(2);
  labels_.pop_back();
  ASSERT_TRUE(train(nullptr));
  expect_near(filter(), of_two);

  Access::state(*backend_).config.sample_memory_size = 0;  // counts as 1
  const std::vector<float> of_one = expected(1);
  ASSERT_TRUE(train(nullptr));
  expect_near(filter(), of_one);
}

TEST_F(DeviceBatch, IgnoresLabelsBeyondTheSamplesItUses) {
  labels_.push_back(LabelMap());
  EXPECT_TRUE(train(nullptr));
}

TEST_F(DeviceBatch, RefusesAnInvalidRequest) {
  const std::string text = "invalid CUDA init device batch training request";
  const auto refused = [&](const float* features, int samples, int channels, int height, int width,
                           const std::vector<LabelMap>& labels) {
    std::string error;
    EXPECT_FALSE(Access::train_filter_from_device_batch(*backend_, features, stream_.get(), labels, samples,
                                                        channels, height, width, 5, &error));
    EXPECT_EQ(error, text);
  };
  refused(nullptr, kSamples, kChannels, kHeight, kWidth, labels_);
  refused(device_.get(), 0, kChannels, kHeight, kWidth, labels_);
  refused(device_.get(), kSamples, 0, kHeight, kWidth, labels_);
  refused(device_.get(), kSamples, kChannels, 0, kWidth, labels_);
  refused(device_.get(), kSamples, kChannels, kHeight, -1, labels_);
  refused(device_.get(), kSamples, kChannels, kHeight, kWidth, {});
  EXPECT_EQ(filter_version(), 7U);
}

TEST_F(DeviceBatch, RefusesLabelsOfAnotherShape) {
  const std::string text = "CUDA init device batch labels do not match projected feature geometry";
  const std::vector<LabelMap> good = labels_;
  labels_[1] = LabelMap();
  EXPECT_EQ(failure(), text);
  labels_ = good;
  labels_[2] = {1, kWidth, kHeight, std::vector<float>(kHeight * kWidth)};
  EXPECT_EQ(failure(), text);
  labels_ = good;
  labels_[0] = {2, kHeight, kWidth, std::vector<float>(2 * kHeight * kWidth)};
  EXPECT_EQ(failure(), text);
}

TEST_F(DeviceBatch, RefusesAFilterThatIsNotReady) {
  const std::string text = "CUDA init device batch filter state is not ready";
  ClassifierState& weights = Access::weights(*backend_);
  const ClassifierState good = weights;
  weights.filter_weights.clear();
  EXPECT_EQ(failure(), text);
  weights = good;
  weights.filter_channels = kChannels + 1;
  EXPECT_EQ(failure(), text);
  weights = good;
  weights.filter_height = 0;
  EXPECT_EQ(failure(), text);
  weights = good;
  weights.filter_width = 0;
  EXPECT_EQ(failure(), text);
}

TEST_F(DeviceBatch, TellsThatNoTrainerCouldBeMade) {
  ostrel_test::fail_heap_allocations_of(sizeof(CudaFilterTrainer));
  std::string error;
  error.reserve(64);
  const bool trained = train(&error);
  ostrel_test::fail_heap_allocations_of(0);
  EXPECT_FALSE(trained);
  EXPECT_EQ(error, "CUDA filter trainer is unavailable");
  EXPECT_TRUE(train(nullptr));
}

TEST_F(DeviceBatch, LeavesTheSolversOwnText) {
  ostrel::host_cuda::fail_every_call("cudaMalloc", static_cast<int>(cudaErrorMemoryAllocation));
  const std::string error = failure();
  EXPECT_NE(error.find(cudaGetErrorString(cudaErrorMemoryAllocation)), std::string::npos);
  EXPECT_EQ(filter_version(), 7U);
}

}  // namespace
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
