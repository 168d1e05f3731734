#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "platform/host_cuda/host_cuda_test.h"

namespace host_cuda_test {
namespace {

using Events = HostCudaTest;

void sleep_ms(int milliseconds) {
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

TEST_F(Events, MeasureTheRealClock) {
  const TestStream stream;
  const TestEvent start;
  const TestEvent stop;
  const auto before = std::chrono::steady_clock::now();
  ASSERT_EQ(cudaEventRecord(start, stream), cudaSuccess);
  ASSERT_EQ(enqueue(stream, "slow", [] { sleep_ms(20); }), cudaSuccess);
  ASSERT_EQ(cudaEventRecord(stop, stream), cudaSuccess);
  ASSERT_EQ(cudaEventSynchronize(stop), cudaSuccess);
  const std::chrono::duration<float, std::milli> around = std::chrono::steady_clock::now() - before;
  float elapsed_ms = -1.0F;
  ASSERT_EQ(cudaEventElapsedTime(&elapsed_ms, start, stop), cudaSuccess);
  EXPECT_GE(elapsed_ms, 20.0F);
  EXPECT_LE(elapsed_ms, around.count());
  float backwards_ms = 0.0F;
  ASSERT_EQ(cudaEventElapsedTime(&backwards_ms, stop, start), cudaSuccess);
  EXPECT_EQ(backwards_ms, -elapsed_ms);
}

TEST_F(Events, ElapsedTimeRefusesWhatHasNoTime) {
  const TestStream stream;
  const TestEvent recorded;
  const TestEvent untimed(cudaEventDisableTiming);
  const TestEvent unrecorded;
  ASSERT_EQ(cudaEventRecord(recorded, stream), cudaSuccess);
  ASSERT_EQ(cudaEventRecord(untimed, stream), cudaSuccess);
  ASSERT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
  float ms = -1.0F;
  EXPECT_EQ(cudaEventElapsedTime(&ms, recorded, unrecorded), cudaErrorInvalidResourceHandle);
  EXPECT_EQ(cudaEventElapsedTime(&ms, unrecorded, recorded), cudaErrorInvalidResourceHandle);
  EXPECT_EQ(cudaEventElapsedTime(&ms, recorded, untimed), cudaErrorInvalidResourceHandle);
  EXPECT_EQ(cudaEventElapsedTime(&ms, untimed, recorded), cudaErrorInvalidResourceHandle);
  EXPECT_EQ(cudaEventElapsedTime(&ms, nullptr, recorded), cudaErrorInvalidResourceHandle);
  EXPECT_EQ(cudaEventElapsedTime(&ms, recorded, nullptr), cudaErrorInvalidResourceHandle);
  EXPECT_EQ(cudaEventElapsedTime(nullptr, recorded, recorded), cudaErrorInvalidValue);
  EXPECT_EQ(ms, -1.0F);
}

TEST_F(Events, RefuseHandlesThatAreNotAlive) {
  const TestStream stream;
  cudaEvent_t dead = nullptr;
  ASSERT_EQ(cudaEventCreate(&dead), cudaSuccess);
  ASSERT_EQ(cudaEventDestroy(dead), cudaSuccess);
  const TestEvent next;
  EXPECT_NE(static_cast<cudaEvent_t>(next), dead) << "handles are never used again";
  EXPECT_EQ(cudaEventDestroy(dead), cudaErrorInvalidResourceHandle);
  EXPECT_EQ(cudaEventDestroy(nullptr), cudaErrorInvalidResourceHandle);
  EXPECT_EQ(cudaEventRecord(dead, stream), cudaErrorInvalidResourceHandle);
  EXPECT_EQ(cudaEventRecord(nullptr, stream), cudaErrorInvalidResourceHandle);
  EXPECT_EQ(cudaEventSynchronize(dead), cudaErrorInvalidResourceHandle);
  EXPECT_EQ(cudaStreamWaitEvent(stream, dead, 0), cudaErrorInvalidResourceHandle);
}

TEST_F(Events, RefuseWrongArguments) {
  const TestStream stream;
  const TestEvent event;
  cudaEvent_t unmade = nullptr;
  EXPECT_EQ(cudaEventCreate(nullptr), cudaErrorInvalidValue);
  EXPECT_EQ(cudaEventCreateWithFlags(&unmade, 0x80), cudaErrorInvalidValue);
  EXPECT_EQ(unmade, nullptr);
  EXPECT_EQ(cudaStreamWaitEvent(stream, event, 4), cudaErrorInvalidValue);
}

TEST_F(Events, NeverRecordedHoldNobody) {
  const TestStream stream;
  const TestEvent event;
  EXPECT_EQ(cudaEventSynchronize(event), cudaSuccess);
  EXPECT_EQ(cudaStreamWaitEvent(stream, event, 0), cudaSuccess);
  EXPECT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
}

TEST_F(Events, RecordedAgainTellTheLaterTime) {
  const TestStream stream;
  const TestEvent start;
  const TestEvent stop;
  for (const cudaEvent_t event : {static_cast<cudaEvent_t>(stop), static_cast<cudaEvent_t>(start)}) {
    ASSERT_EQ(cudaEventRecord(event, stream), cudaSuccess);
    ASSERT_EQ(cudaEventSynchronize(event), cudaSuccess);
  }
  sleep_ms(5);
  ASSERT_EQ(cudaEventRecord(stop, stream), cudaSuccess);
  ASSERT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
  float ms = -1.0F;
  ASSERT_EQ(cudaEventElapsedTime(&ms, start, stop), cudaSuccess);
  EXPECT_GE(ms, 5.0F);
}

using DeferredEvents = DeferredStreamTest;

TEST_F(DeferredEvents, NotReachedYetAreNotReady) {
  const TestStream stream;
  const TestEvent start;
  const TestEvent stop;
  Gate gate;
  ASSERT_EQ(cudaEventRecord(start, stream), cudaSuccess);
  gate.hold(stream);
  ASSERT_EQ(cudaEventRecord(stop, stream), cudaSuccess);
  float ms = -1.0F;
  EXPECT_EQ(cudaEventElapsedTime(&ms, start, stop), cudaErrorNotReady);
  EXPECT_EQ(cudaGetLastError(), cudaSuccess) << "not ready is an answer, no failure";
  gate.open();
  ASSERT_EQ(cudaEventSynchronize(stop), cudaSuccess);
  EXPECT_EQ(cudaEventElapsedTime(&ms, start, stop), cudaSuccess);
  EXPECT_GE(ms, 0.0F);
}

TEST_F(DeferredEvents, OrderOneStreamAfterAnother) {
  const TestStream producer;
  const TestStream consumer;
  const TestEvent ready(cudaEventDisableTiming);
  Gate gate;
  std::vector<int> order;  // guarded by the event alone
  gate.hold(producer);
  ASSERT_EQ(enqueue(producer, "produce", [&order] { order.push_back(1); }), cudaSuccess);
  ASSERT_EQ(cudaEventRecord(ready, producer), cudaSuccess);
  ASSERT_EQ(cudaStreamWaitEvent(consumer, ready, 0), cudaSuccess);
  ASSERT_EQ(enqueue(consumer, "consume", [&order] { order.push_back(2); }), cudaSuccess);
  gate.open();
  ASSERT_EQ(cudaStreamSynchronize(consumer), cudaSuccess);
  EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

TEST_F(DeferredEvents, WaitMeansTheRecordBeforeIt) {
  const TestStream producer;
  const TestStream consumer;
  const TestEvent event;
  ASSERT_EQ(cudaEventRecord(event, producer), cudaSuccess);
  ASSERT_EQ(cudaEventSynchronize(event), cudaSuccess);
  std::atomic<bool> consumed{false};
  ASSERT_EQ(cudaStreamWaitEvent(consumer, event, 0), cudaSuccess);
  Gate gate;
  gate.hold(producer);
  ASSERT_EQ(cudaEventRecord(event, producer), cudaSuccess);  // later than the wait: of no matter to it
  ASSERT_EQ(enqueue(consumer, "consume", [&consumed] { consumed = true; }), cudaSuccess);
  ASSERT_EQ(cudaStreamSynchronize(consumer), cudaSuccess);
  EXPECT_TRUE(consumed);
}

TEST_F(DeferredEvents, RecordAgainWhileAStreamWaitsKeepsThatWait) {
  const TestStream producer;
  const TestStream consumer;
  const TestEvent event;
  Gate gate;
  Gate second_gate;
  gate.hold(producer);
  ASSERT_EQ(cudaEventRecord(event, producer), cudaSuccess);
  ASSERT_EQ(cudaStreamWaitEvent(consumer, event, 0), cudaSuccess);
  second_gate.hold(producer);
  ASSERT_EQ(cudaEventRecord(event, producer), cudaSuccess);
  gate.open();
  EXPECT_EQ(cudaStreamSynchronize(consumer), cudaSuccess) << "the consumer waits for the first record only";
}

TEST_F(DeferredEvents, MayBeDestroyedWhilePending) {
  const TestStream producer;
  const TestStream consumer;
  Gate gate;
  std::vector<int> order;
  gate.hold(producer);
  ASSERT_EQ(enqueue(producer, "produce", [&order] { order.push_back(1); }), cudaSuccess);
  {
    const TestEvent event;
    ASSERT_EQ(cudaEventRecord(event, producer), cudaSuccess);
    ASSERT_EQ(cudaStreamWaitEvent(consumer, event, 0), cudaSuccess);
  }
  ASSERT_EQ(enqueue(consumer, "consume", [&order] { order.push_back(2); }), cudaSuccess);
  gate.open();
  ASSERT_EQ(cudaStreamSynchronize(consumer), cudaSuccess);
  EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

}  // namespace
}  // namespace host_cuda_test
