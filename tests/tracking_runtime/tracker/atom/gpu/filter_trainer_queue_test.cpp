// What a training puts on its stream, and what it asks of the runtime beside it.

#include <gtest/gtest.h>

#include <host_cuda/control.h>

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "training_fixture.h"

namespace ostrel_test {
namespace {

using atom::CudaFilterTrainer;
namespace host = ostrel::host_cuda;

class FilterTrainerQueue : public ::testing::Test {
 protected:
  CudaFilterTrainer trainer_;
  Training training_ = Training::random({2, 3, 6, 6, 4, 4}, 300);
  std::vector<float> out_;
  std::string error_;

  void TearDown() override { host::clear_faults(); }

  void train() { ASSERT_TRUE(training_.run(trainer_, &out_, &error_)) << error_; }
  bool ensure(bool low_priority) { return trainer_.ensure_capacity(2, 3, 6, 6, 4, 4, low_priority, &error_); }
  /// The calls and launches of an operation in order, without the questions after a launch.
  static std::vector<std::string> traced(const std::function<void()>& operation) {
    host::start_trace();
    operation();
    std::vector<std::string> names;
    for (const std::string& name : host::stop_trace()) {
      if (name != "cudaGetLastError") names.push_back(name);
    }
    return names;
  }
  static std::int64_t calls(const char* name) { return host::counters().calls_of(name); }
  static std::int64_t launches(const char* name) { return host::counters().launches_of(name); }
};

TEST_F(FilterTrainerQueue, HoldsTheLaunchesOfEachIteration) {
  training_.iterations = 7;
  train();
  host::reset_counters();
  train();
  EXPECT_EQ(launches("classify_samples_fixed_filter_kernel<4,4>"), 1 + 7);
  EXPECT_EQ(launches("classify_samples_kernel"), 0);
  EXPECT_EQ(launches("compute_weighted_residual_grad_kernel"), 1);
  EXPECT_EQ(launches("set_scaled_vector_kernel"), 1 + 7);
  EXPECT_EQ(launches("accumulate_filter_gradient_kernel"), 1 + 7);
  EXPECT_EQ(launches("dot_product_kernel"), 3 * 7 - 1);
  EXPECT_EQ(launches("combine_with_beta_from_scalars_kernel"), 7 - 1);
  EXPECT_EQ(launches("compute_weighted_jtj_response_kernel"), 7);
  EXPECT_EQ(launches("update_x_r_from_scalars_kernel"), 7);
  EXPECT_EQ(launches("store_scalar_kernel"), 7);
  EXPECT_EQ(launches("add_in_place_kernel"), 1);
  EXPECT_EQ(calls("cudaMemsetAsync"), 1 + 3 * 7 - 1);
  EXPECT_EQ(calls("cudaMemcpyAsync"), 4 + 1 + 7 + 1);  // inputs, p, r_prev, result
}

TEST_F(FilterTrainerQueue, KeepsTheOrderOfItsSteps) {
  training_.iterations = 2;
  train();
  const std::vector<std::string> start = {"cudaMemcpyAsync",                            // features
                                          "cudaMemcpyAsync",                            // labels
                                          "cudaMemcpyAsync",                            // weights
                                          "cudaMemcpyAsync",                            // filter
                                          "cudaMemsetAsync",                            // x
                                          "classify_samples_fixed_filter_kernel<4,4>",  // the linearisation
                                          "compute_weighted_residual_grad_kernel",      //
                                          "set_scaled_vector_kernel",                   //
                                          "accumulate_filter_gradient_kernel",          // r
                                          "cudaMemsetAsync",
                                          "dot_product_kernel"};                                    // rho
  const std::vector<std::string> operator_and_step = {"set_scaled_vector_kernel",                   // q
                                                      "classify_samples_fixed_filter_kernel<4,4>",  //
                                                      "compute_weighted_jtj_response_kernel",       //
                                                      "accumulate_filter_gradient_kernel",          //
                                                      "cudaMemsetAsync",
                                                      "dot_product_kernel",  // pq
                                                      "cudaMemcpyAsync",     // r_prev
                                                      "update_x_r_from_scalars_kernel",
                                                      "store_scalar_kernel"};
  std::vector<std::string> expected = start;
  const auto append = [&](const std::vector<std::string>& more) {
    expected.insert(expected.end(), more.begin(), more.end());
  };
  append({"cudaMemcpyAsync"});  // p
  append(operator_and_step);
  append({"cudaMemsetAsync", "dot_product_kernel",  // rho
          "cudaMemsetAsync", "dot_product_kernel",  // rho2
          "combine_with_beta_from_scalars_kernel"});
  append(operator_and_step);
  append({"add_in_place_kernel", "cudaMemcpyAsync", "cudaStreamSynchronize"});
  EXPECT_EQ(traced([this] { train(); }), expected);
}

TEST_F(FilterTrainerQueue, TakesTheGeneralKernelForOtherFilters) {
  training_ = Training::random({2, 3, 6, 6, 3, 4}, 301);
  host::reset_counters();
  train();
  EXPECT_EQ(launches("classify_samples_kernel"), 1 + training_.iterations);
  EXPECT_EQ(launches("classify_samples_fixed_filter_kernel<4,4>"), 0);
}

TEST_F(FilterTrainerQueue, WaitsOnceAndReadsNothingBackBeforeTheEnd) {
  train();
  host::reset_counters();
  train();
  EXPECT_EQ(host::counters().synchronisations, 1);
  EXPECT_EQ(host::counters().blocking_copies, 0);
  EXPECT_EQ(host::counters().null_stream_work, 0);
  EXPECT_EQ(calls("cudaMemcpy"), 0);
}

TEST_F(FilterTrainerQueue, AllocatesNothingInARepeatedJob) {
  train();
  host::reset_counters();
  train();
  training_ = Training::random({1, 3, 5, 6, 3, 3}, 302);  // smaller
  train();
  for (const char* call :
       {"cudaMalloc", "cudaMallocHost", "cudaFree", "cudaFreeHost", "cudaStreamCreateWithPriority",
        "cudaStreamCreateWithFlags", "cudaStreamDestroy", "cudaEventCreateWithFlags"}) {
    EXPECT_EQ(calls(call), 0) << call;
  }
}

TEST_F(FilterTrainerQueue, RunsJobsFromHostMemoryAtTheLeastPriority) {
  host::reset_counters();
  train();
  EXPECT_EQ(calls("cudaDeviceGetStreamPriorityRange"), 1);
  EXPECT_EQ(calls("cudaStreamCreateWithPriority"), 1);
  EXPECT_EQ(calls("cudaStreamCreateWithFlags"), 0);
}

TEST_F(FilterTrainerQueue, RunsJobsFromDeviceFeaturesAtDefaultPriority) {
  const DeviceArray<float> features(training_.features);
  host::reset_counters();
  ASSERT_TRUE(training_.run_on(trainer_, {features.get(), nullptr}, &out_, &error_)) << error_;
  EXPECT_EQ(calls("cudaStreamCreateWithPriority"), 0);
  EXPECT_EQ(calls("cudaStreamCreateWithFlags"), 1);
  EXPECT_EQ(calls("cudaEventCreateWithFlags"), 0);
}

TEST_F(FilterTrainerQueue, RemakesTheStreamForAnotherPriorityAndKeepsTheBuffers) {
  ASSERT_TRUE(ensure(true)) << error_;
  host::reset_counters();
  const auto live = host::counters();
  ASSERT_TRUE(ensure(true)) << error_;
  EXPECT_EQ(calls("cudaStreamDestroy"), 0);
  ASSERT_TRUE(ensure(false)) << error_;
  EXPECT_EQ(calls("cudaStreamDestroy"), 1);
  EXPECT_EQ(calls("cudaStreamCreateWithFlags"), 1);
  ASSERT_TRUE(ensure(true)) << error_;
  EXPECT_EQ(calls("cudaStreamDestroy"), 2);
  EXPECT_EQ(calls("cudaStreamCreateWithPriority"), 1);
  EXPECT_EQ(calls("cudaMalloc") + calls("cudaMallocHost") + calls("cudaFree") + calls("cudaFreeHost"), 0);
  EXPECT_EQ(host::counters().live_streams, live.live_streams);
}

TEST_F(FilterTrainerQueue, DoesWithoutPrioritiesWhereTheDeviceTellsNone) {
  host::fail_call("cudaDeviceGetStreamPriorityRange", 1, cudaErrorUnknown);
  host::reset_counters();
  train();
  EXPECT_EQ(calls("cudaStreamCreateWithPriority"), 0);
  EXPECT_EQ(calls("cudaStreamCreateWithFlags"), 1);
  train();  // the stream counts as one of the least priority
  EXPECT_EQ(calls("cudaStreamDestroy"), 0);
}

TEST_F(FilterTrainerQueue, DoesNotWaitForTheNullStream) {
  const DeviceArray<float> features(training_.features);
  const host::StreamMode mode = host::stream_mode();
  ASSERT_TRUE(host::set_stream_mode(host::StreamMode::kDeferred));
  std::promise<void> trained;
  bool trained_meanwhile = false;
  require(host::enqueue(nullptr, "work that outlasts the jobs", [&] {
    trained_meanwhile = trained.get_future().wait_for(std::chrono::seconds(10)) == std::future_status::ready;
  }));
  train();
  EXPECT_TRUE(training_.run_on(trainer_, {features.get(), nullptr}, &out_, &error_)) << error_;
  trained.set_value();
  require(cudaDeviceSynchronize());
  EXPECT_TRUE(trained_meanwhile);
  EXPECT_TRUE(host::set_stream_mode(mode));
}

TEST_F(FilterTrainerQueue, AllocatesEachGroupOnce) {
  host::reset_counters();
  ASSERT_TRUE(ensure(true)) << error_;
  EXPECT_EQ(calls("cudaMalloc"), 13);
  EXPECT_EQ(calls("cudaMallocHost"), 2);
}

TEST_F(FilterTrainerQueue, GrowsOnlyTheGroupsThatAreTooSmall) {
  ASSERT_TRUE(ensure(true)) << error_;
  struct Row {
    const char* reason;
    Shape shape;
    int device, pinned;
  };
  for (const Row& row : {Row{"more samples: features, labels, weights, responses", {3, 3, 6, 6, 4, 4}, 6, 0},
                         Row{"larger filter: filter and vectors", {2, 3, 6, 6, 5, 4}, 6, 1},
                         Row{"more channels: features, filter and vectors", {2, 6, 6, 6, 4, 4}, 7, 1},
                         Row{"nothing grew", {2, 3, 6, 6, 4, 4}, 0, 0}}) {
    CudaFilterTrainer trainer;
    ASSERT_TRUE(trainer.ensure_capacity(2, 3, 6, 6, 4, 4, true, &error_)) << error_;
    host::reset_counters();
    const Shape& s = row.shape;
    ASSERT_TRUE(trainer.ensure_capacity(s.samples, s.channels, s.height, s.width, s.filter_height,
                                        s.filter_width, true, &error_))
        << error_;
    EXPECT_EQ(calls("cudaMalloc"), row.device) << row.reason;
    EXPECT_EQ(calls("cudaMallocHost"), row.pinned) << row.reason;
  }
}

TEST_F(FilterTrainerQueue, FreesEverythingInTheEnd) {
  const auto before = host::counters();
  {
    CudaFilterTrainer trainer;
    ASSERT_TRUE(training_.run(trainer, &out_, &error_)) << error_;
  }
  const auto after = host::counters();
  EXPECT_EQ(after.live_device_bytes, before.live_device_bytes);
  EXPECT_EQ(after.live_pinned_bytes, before.live_pinned_bytes);
  EXPECT_EQ(after.live_streams, before.live_streams);
  EXPECT_EQ(after.live_events, before.live_events);
}

TEST_F(FilterTrainerQueue, FreesDeviceMemoryThenPinnedMemoryThenTheStream) {
  auto trainer = std::make_unique<CudaFilterTrainer>();
  ASSERT_TRUE(training_.run(*trainer, &out_, &error_)) << error_;
  std::vector<std::string> expected(13, "cudaFree");
  expected.insert(expected.end(), {"cudaFreeHost", "cudaFreeHost", "cudaStreamDestroy"});
  EXPECT_EQ(traced([&] { trainer.reset(); }), expected);
}

/// All that waiting asks of a trainer.
struct StreamHolder {
  atom::CudaStream stream;
};

TEST_F(FilterTrainerQueue, MakesAnEventForAnotherStreamOnly) {
  StreamHolder holder;
  TestStream other;
  host::reset_counters();
  EXPECT_TRUE(atom::wait_for_ready_stream(static_cast<StreamHolder*>(nullptr), other.get(), &error_));
  EXPECT_TRUE(atom::wait_for_ready_stream(&holder, other.get(), &error_));  // no stream yet
  require(holder.stream.create_with_flags(cudaStreamNonBlocking));
  EXPECT_TRUE(atom::wait_for_ready_stream(&holder, nullptr, &error_));
  EXPECT_TRUE(atom::wait_for_ready_stream(&holder, holder.stream.get(), &error_));
  EXPECT_EQ(calls("cudaEventCreateWithFlags"), 0);
  EXPECT_TRUE(atom::wait_for_ready_stream(&holder, other.get(), &error_));
  EXPECT_EQ(calls("cudaEventCreateWithFlags"), 1);
  EXPECT_EQ(calls("cudaEventRecord"), 1);
  EXPECT_EQ(calls("cudaStreamWaitEvent"), 1);
  EXPECT_EQ(calls("cudaEventDestroy"), 1);
  EXPECT_EQ(host::counters().synchronisations, 0);
}

}  // namespace
}  // namespace ostrel_test
