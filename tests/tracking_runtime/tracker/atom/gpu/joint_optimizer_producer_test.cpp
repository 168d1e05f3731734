// When the producer of preloaded samples may have its memory back.

#include <atomic>
#include <chrono>
#include <thread>

#include "device_arrays.h"
#include "joint_optimizer_fixture.h"

namespace ostrel_test {
namespace {

namespace host = ostrel::host_cuda;

class JointOptimizerProducer : public JointOptimizerTest {};

TEST_F(JointOptimizerProducer, WaitsUntilItsSamplesAreRead) {
  ASSERT_TRUE(fit_.ensure(optimizer_, &error_)) << error_;
  const DeviceArray<float> source(fit_.raw);
  const TestStream slow, producer;
  std::atomic<bool> produced{false};
  bool read_before_overwritten = false;
  ASSERT_EQ(host::enqueue(slow.get(), "produce",
                          [&produced] {
                            std::this_thread::sleep_for(std::chrono::milliseconds(30));
                            produced = true;
                          }),
            cudaSuccess);
  atom::RawFeatureSpan span;
  span.device_features = source.get();
  span.sample_count = fit_.shape.samples;
  span.ready_stream = slow.get();
  ASSERT_TRUE(optimizer_.preload_raw_feature_spans({span}, &error_)) << error_;
  ASSERT_TRUE(optimizer_.hold_back_producer(producer.get(), &error_)) << error_;
  ASSERT_EQ(host::enqueue(producer.get(), "overwrite", [&] { read_before_overwritten = produced; }),
            cudaSuccess);
  producer.wait();
  EXPECT_TRUE(read_before_overwritten);
}

TEST_F(JointOptimizerProducer, LeavesNoEventBehind) {
  ASSERT_TRUE(fit_.ensure(optimizer_, &error_)) << error_;
  const TestStream producer;
  const auto before = host::counters().live_events;
  EXPECT_TRUE(optimizer_.hold_back_producer(producer.get(), &error_)) << error_;
  EXPECT_EQ(host::counters().live_events, before);
}

TEST_F(JointOptimizerProducer, NeedsNoOrderOnTheNullStreamOrTheOptimisersOwn) {
  ASSERT_TRUE(fit_.ensure(optimizer_, &error_) && optimize()) << error_;
  atom::ProjectedFeatureView view;
  ASSERT_TRUE(optimizer_.get_projected_feature_device_view(&view, &error_)) << error_;
  host::reset_counters();
  EXPECT_TRUE(optimizer_.hold_back_producer(nullptr, &error_));
  EXPECT_TRUE(optimizer_.hold_back_producer(view.stream, &error_));
  EXPECT_EQ(calls("cudaEventRecord"), 0);
}

TEST_F(JointOptimizerProducer, TellsWhichStepFailed) {
  ASSERT_TRUE(fit_.ensure(optimizer_, &error_)) << error_;
  const TestStream producer;
  for (const char* call : {"cudaEventCreateWithFlags", "cudaEventRecord", "cudaStreamWaitEvent"}) {
    host::fail_call(call, 1, cudaErrorUnknown);
    EXPECT_FALSE(optimizer_.hold_back_producer(producer.get(), &error_));
    EXPECT_EQ(error_, std::string(call) + " hold_back_producer: " + cudaGetErrorString(cudaErrorUnknown));
  }
}

TEST_F(JointOptimizerProducer, IsUnknownBeforeThereIsAStream) {
  const TestStream producer;
  EXPECT_FALSE(optimizer_.hold_back_producer(producer.get(), &error_));
  EXPECT_EQ(error_, "invalid CUDA joint optimizer raw feature preload request");
  EXPECT_FALSE(optimizer_.hold_back_producer(producer.get(), nullptr));
}

}  // namespace
}  // namespace ostrel_test
