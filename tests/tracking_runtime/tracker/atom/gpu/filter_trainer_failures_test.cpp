#include <gtest/gtest.h>

#include <host_cuda/control.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "call_fault.h"
#include "close_to.h"
#include "training_fixture.h"

namespace ostrel_test {
namespace {

using atom::CudaFilterTrainer;
namespace host = ostrel::host_cuda;

const char* const kBadRequest = "invalid CUDA filter trainer request";
const char* const kBadDeviceRequest = "invalid CUDA filter trainer device feature request";
const char* const kBadCoreRequest = "invalid CUDA filter trainer device optimize request";
const char* const kBadDimensions = "invalid CUDA filter trainer dimensions";
const char* const kBadFeatures = "CUDA filter trainer feature size does not match requested dimensions";
const char* const kBadInputs = "CUDA filter trainer input sizes do not match requested dimensions";

class FilterTrainerFailures : public ::testing::Test {
 protected:
  CudaFilterTrainer trainer_;
  Training training_ = Training::random({2, 3, 6, 6, 4, 4}, 400);
  const std::vector<float> untouched_ = {7.0F};
  std::vector<float> out_ = untouched_;
  std::string error_;

  void TearDown() override { host::clear_faults(); }

  /// Expects that the training fails with `text` and leaves the output alone.
  void expect_refused(const Training& training, const std::string& text) {
    error_.clear();
    EXPECT_FALSE(training.run(trainer_, &out_, &error_));
    EXPECT_EQ(error_, text);
    EXPECT_EQ(out_, untouched_);
  }
};

/// The training with one of its six sizes at 0 or below.
std::vector<Training> with_a_size_below_one(const Training& training) {
  std::vector<Training> bad(6, training);
  bad[0].shape.samples = 0;
  bad[1].shape.channels = -1;
  bad[2].shape.height = 0;
  bad[3].shape.width = 0;
  bad[4].shape.filter_height = 0;
  bad[5].shape.filter_width = -4;
  return bad;
}

TEST_F(FilterTrainerFailures, RefusesSizesBelowOne) {
  const DeviceArray<float> features(training_.features);
  CudaFilterTrainer::Impl impl;
  for (const Training& bad : with_a_size_below_one(training_)) {
    expect_refused(bad, kBadRequest);
    EXPECT_FALSE(bad.run_on(trainer_, {features.get(), nullptr}, &out_, &error_));
    EXPECT_EQ(error_, kBadDeviceRequest);
    EXPECT_FALSE(bad.run_core(&impl, features.get(), &out_, &error_));
    EXPECT_EQ(error_, kBadCoreRequest);
    const Shape& s = bad.shape;
    EXPECT_FALSE(trainer_.ensure_capacity(s.samples, s.channels, s.height, s.width, s.filter_height,
                                          s.filter_width, true, &error_));
    EXPECT_EQ(error_, kBadDimensions);
  }
  EXPECT_EQ(out_, untouched_);
}

TEST_F(FilterTrainerFailures, RefusesMissingArguments) {
  const DeviceArray<float> features(training_.features);
  CudaFilterTrainer::Impl impl;
  EXPECT_FALSE(training_.run(trainer_, nullptr, &error_));
  EXPECT_EQ(std::exchange(error_, ""), kBadRequest);
  EXPECT_FALSE(training_.run_on(trainer_, {nullptr, nullptr}, &out_, &error_));
  EXPECT_EQ(std::exchange(error_, ""), kBadDeviceRequest);
  EXPECT_FALSE(training_.run_on(trainer_, {features.get(), nullptr}, nullptr, &error_));
  EXPECT_EQ(std::exchange(error_, ""), kBadDeviceRequest);
  EXPECT_FALSE(training_.run_core(nullptr, features.get(), &out_, &error_));
  EXPECT_EQ(std::exchange(error_, ""), kBadCoreRequest);
  EXPECT_FALSE(training_.run_core(&impl, nullptr, &out_, &error_));
  EXPECT_EQ(std::exchange(error_, ""), kBadCoreRequest);
  EXPECT_FALSE(training_.run_core(&impl, features.get(), nullptr, &error_));
  EXPECT_EQ(std::exchange(error_, ""), kBadCoreRequest);
  EXPECT_EQ(out_, untouched_);
}

TEST_F(FilterTrainerFailures, RefusesArraysOfOtherLengths) {
  struct Row {
    const char* reason;
    std::function<void(Training&)> spoil;
    const char* text;
  };
  for (const Row& row :
       {Row{"a feature too few", [](Training& t) { t.features.pop_back(); }, kBadFeatures},
        Row{"a feature too many", [](Training& t) { t.features.push_back(0.0F); }, kBadFeatures},
        Row{"a label too few", [](Training& t) { t.labels.pop_back(); }, kBadInputs},
        Row{"a label too many", [](Training& t) { t.labels.push_back(0.0F); }, kBadInputs},
        Row{"a weight too few", [](Training& t) { t.weights.pop_back(); }, kBadInputs},
        Row{"a tap too few", [](Training& t) { t.filter.pop_back(); }, kBadInputs},
        Row{"a tap too many", [](Training& t) { t.filter.push_back(0.0F); }, kBadInputs}}) {
    SCOPED_TRACE(row.reason);
    Training bad = training_;
    row.spoil(bad);
    expect_refused(bad, row.text);
    EXPECT_FALSE(bad.run(trainer_, &out_, nullptr));
  }
}

TEST_F(FilterTrainerFailures, MovedFromRefusesEverything) {
  CudaFilterTrainer taken = std::move(trainer_);
  const DeviceArray<float> features(training_.features);
  expect_refused(training_, kBadRequest);
  EXPECT_FALSE(training_.run_on(trainer_, {features.get(), nullptr}, &out_, &error_));
  EXPECT_EQ(error_, kBadDeviceRequest);
  EXPECT_FALSE(trainer_.ensure_capacity(1, 1, 1, 1, 1, 1, true, &error_));
  EXPECT_EQ(error_, kBadDimensions);
  EXPECT_TRUE(training_.run(taken, &out_, &error_)) << error_;
}

TEST_F(FilterTrainerFailures, NamesEachFailedAllocationAndRecovers) {
  const auto live = host::counters();
  for (const CallFault& fault :
       {CallFault{"cudaMalloc", 1, "cudaMalloc features"}, CallFault{"cudaMalloc", 2, "cudaMalloc labels"},
        CallFault{"cudaMalloc", 3, "cudaMalloc sample_weights"},
        CallFault{"cudaMalloc", 4, "cudaMalloc filter"},
        CallFault{"cudaMallocHost", 1, "cudaMallocHost filter"},
        CallFault{"cudaMalloc", 5, "cudaMalloc response"},
        CallFault{"cudaMalloc", 6, "cudaMalloc activation_grad"},
        CallFault{"cudaMalloc", 7, "cudaMalloc weighted_response"},
        CallFault{"cudaMalloc", 8, "cudaMalloc x"}, CallFault{"cudaMalloc", 9, "cudaMalloc r"},
        CallFault{"cudaMalloc", 10, "cudaMalloc r_prev"}, CallFault{"cudaMalloc", 11, "cudaMalloc p"},
        CallFault{"cudaMalloc", 12, "cudaMalloc q"}, CallFault{"cudaMalloc", 13, "cudaMalloc scalar"},
        CallFault{"cudaMallocHost", 2, "cudaMallocHost scalar"}}) {
    CudaFilterTrainer trainer;
    host::fail_call(fault.call, fault.n, cudaErrorUnknown);
    EXPECT_FALSE(training_.run(trainer, &out_, &error_)) << fault.label;
    EXPECT_EQ(error_, fault.text());
    EXPECT_EQ(out_, untouched_);
    std::vector<float> out;
    EXPECT_TRUE(training_.run(trainer, &out, &error_)) << error_;
  }
  EXPECT_EQ(host::counters().live_device_bytes, live.live_device_bytes);
  EXPECT_EQ(host::counters().live_pinned_bytes, live.live_pinned_bytes);
}

TEST_F(FilterTrainerFailures, FreesAGroupOfWhichOneMemberFailed) {
  struct Row {
    CallFault fault;
    int device_kept, pinned_kept;
  };
  for (const Row& row : {Row{{"cudaMallocHost", 1, ""}, 3, 0},  // the filter goes with its staging
                         Row{{"cudaMalloc", 7, ""}, 4, 1},      // of three responses none stays
                         Row{{"cudaMalloc", 11, ""}, 7, 1},     // of five vectors none stays
                         Row{{"cudaMallocHost", 2, ""}, 12, 1}}) {
    CudaFilterTrainer trainer;
    const auto before = host::counters();
    host::fail_call(row.fault.call, row.fault.n, cudaErrorUnknown);
    EXPECT_FALSE(training_.run(trainer, &out_, &error_));
    const auto after = host::counters();
    EXPECT_EQ(after.live_device_allocations - before.live_device_allocations, row.device_kept);
    EXPECT_EQ(after.live_pinned_allocations - before.live_pinned_allocations, row.pinned_kept);
  }
}

TEST_F(FilterTrainerFailures, NamesFailuresOfItsStream) {
  host::fail_call("cudaStreamCreateWithPriority", 1, cudaErrorUnknown);
  expect_refused(training_,
                 "cudaStreamCreate filter trainer: " + std::string(cudaGetErrorString(cudaErrorUnknown)));
  EXPECT_TRUE(training_.run(trainer_, &out_, &error_)) << error_;
}

TEST_F(FilterTrainerFailures, NamesFailuresOfRemakingItsStream) {
  const DeviceArray<float> features(training_.features);
  const auto expect_fails = [&](const CallFault& fault) {
    host::fail_call(fault.call, fault.n, cudaErrorUnknown);
    EXPECT_FALSE(training_.run_on(trainer_, {features.get(), nullptr}, &out_, &error_));
    EXPECT_EQ(error_, fault.text());
  };
  expect_fails({"cudaStreamCreateWithFlags", 1, "cudaStreamCreate filter trainer"});
  ASSERT_TRUE(trainer_.ensure_capacity(2, 3, 6, 6, 4, 4, true, &error_)) << error_;
  expect_fails({"cudaStreamDestroy", 1, "cudaStreamDestroy filter trainer"});
  std::vector<float> out;
  EXPECT_TRUE(training_.run_on(trainer_, {features.get(), nullptr}, &out, &error_)) << error_;
}

TEST_F(FilterTrainerFailures, NamesFailuresOfWaitingForTheFeatures) {
  const DeviceArray<float> features(training_.features);
  TestStream producer;
  for (const CallFault& fault :
       {CallFault{"cudaEventCreateWithFlags", 1, "cudaEventCreateWithFlags filter trainer ready"},
        CallFault{"cudaEventRecord", 1, "cudaEventRecord filter trainer ready"},
        CallFault{"cudaStreamWaitEvent", 1, "cudaStreamWaitEvent filter trainer ready"}}) {
    const auto live = host::counters().live_events;
    host::fail_call(fault.call, fault.n, cudaErrorUnknown);
    EXPECT_FALSE(training_.run_on(trainer_, {features.get(), producer.get()}, &out_, &error_));
    EXPECT_EQ(error_, fault.text());
    EXPECT_EQ(host::counters().live_events, live);
  }
}

/// Two iterations, so that every launch of the loop occurs; calls are counted from the start of the job.
class FilterTrainerQueueFailures : public FilterTrainerFailures {
 protected:
  void SetUp() override {
    training_.iterations = 2;
    ASSERT_TRUE(trainer_.ensure_capacity(2, 3, 6, 6, 4, 4, true, &error_)) << error_;
  }

  void expect_named(const CallFault& fault) {
    host::fail_call(fault.call, fault.n, cudaErrorUnknown);
    error_.clear();
    EXPECT_FALSE(training_.run(trainer_, &out_, &error_)) << fault.label;
    EXPECT_EQ(error_, fault.text());
    EXPECT_EQ(out_, untouched_);
    host::clear_faults();
    // The next job enters behind what the failed one left on the stream.
    std::vector<float> out;
    ASSERT_TRUE(training_.run(trainer_, &out, &error_)) << error_;
    EXPECT_TRUE(close_to(
        reference_training(training_.problem(), widen(training_.filter), training_.iterations), out, 1e-4));
  }
};

TEST_F(FilterTrainerQueueFailures, NamesEachCopyAndEachClearedArray) {
  for (const CallFault& fault :
       {CallFault{"cudaMemcpyAsync", 1, "cudaMemcpyAsync features"},
        CallFault{"cudaMemcpyAsync", 2, "cudaMemcpyAsync labels"},
        CallFault{"cudaMemcpyAsync", 3, "cudaMemcpyAsync sample_weights"},
        CallFault{"cudaMemcpyAsync", 4, "cudaMemcpyAsync filter"},
        CallFault{"cudaMemcpyAsync", 5, "cudaMemcpyAsync p"},
        CallFault{"cudaMemcpyAsync", 6, "cudaMemcpyAsync r_prev"},
        CallFault{"cudaMemcpyAsync", 7, "cudaMemcpyAsync r_prev"},
        CallFault{"cudaMemcpyAsync", 8, "cudaMemcpyAsync optimized filter"},
        CallFault{"cudaStreamSynchronize", 1, "cudaStreamSynchronize optimized filter"},
        CallFault{"cudaMemsetAsync", 1, "cudaMemsetAsync x"},
        CallFault{"cudaMemsetAsync", 2, "cudaMemsetAsync scalar rho"},
        CallFault{"cudaMemsetAsync", 3, "cudaMemsetAsync scalar pq"},
        CallFault{"cudaMemsetAsync", 4, "cudaMemsetAsync scalar rho"},
        CallFault{"cudaMemsetAsync", 5, "cudaMemsetAsync scalar rho2"},
        CallFault{"cudaMemsetAsync", 6, "cudaMemsetAsync scalar pq"}}) {
    expect_named(fault);
  }
}

TEST_F(FilterTrainerQueueFailures, NamesEachLaunchByItsPlace) {
  const char* const classify = "classify_samples_fixed_filter_kernel<4,4>";
  for (const CallFault& fault :
       {CallFault{classify, 1, "classify_samples_fixed_filter_kernel<4,4> rhs"},
        CallFault{classify, 2, "classify_samples_fixed_filter_kernel<4,4> q"},
        CallFault{"compute_weighted_residual_grad_kernel", 1, "compute_weighted_residual_grad_kernel"},
        CallFault{"set_scaled_vector_kernel", 1, "set_scaled_vector_kernel rhs"},
        CallFault{"set_scaled_vector_kernel", 2, "set_scaled_vector_kernel q"},
        CallFault{"accumulate_filter_gradient_kernel", 1, "accumulate_filter_gradient_kernel rhs"},
        CallFault{"accumulate_filter_gradient_kernel", 3, "accumulate_filter_gradient_kernel q"},
        CallFault{"dot_product_kernel", 1, "dot_product_kernel rho"},
        CallFault{"dot_product_kernel", 2, "dot_product_kernel pq"},
        CallFault{"dot_product_kernel", 3, "dot_product_kernel rho"},
        CallFault{"dot_product_kernel", 4, "dot_product_kernel rho2"},
        CallFault{"dot_product_kernel", 5, "dot_product_kernel pq"},
        CallFault{"combine_with_beta_from_scalars_kernel", 1, "combine_with_beta_from_scalars_kernel"},
        CallFault{"compute_weighted_jtj_response_kernel", 2, "compute_weighted_jtj_response_kernel"},
        CallFault{"update_x_r_from_scalars_kernel", 1, "update_x_r_from_scalars_kernel"},
        CallFault{"store_scalar_kernel", 2, "store_scalar_kernel"},
        CallFault{"add_in_place_kernel", 1, "add_in_place_kernel"}}) {
    expect_named(fault);
  }
}

TEST_F(FilterTrainerQueueFailures, NamesTheGeneralCorrelation) {
  training_ = Training::random({2, 3, 6, 6, 3, 3}, 401);
  training_.iterations = 2;
  expect_named({"classify_samples_kernel", 1, "classify_samples_kernel rhs"});
  expect_named({"classify_samples_kernel", 3, "classify_samples_kernel q"});
}

}  // namespace
}  // namespace ostrel_test
