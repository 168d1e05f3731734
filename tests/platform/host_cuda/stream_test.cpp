#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <thread>
#include <vector>

#include <host_cuda/parallel.h>

#include "platform/host_cuda/host_cuda_test.h"

namespace host_cuda_test {
namespace {

using Streams = HostCudaTest;

TEST_F(Streams, RunWorkInItsOrder) {
  const TestStream stream;
  std::vector<int> order;
  for (int i = 0; i < 20; ++i) {
    ASSERT_EQ(enqueue(stream, "note", [&order, i] { order.push_back(i); }), cudaSuccess);
  }
  ASSERT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
  ASSERT_EQ(order.size(), 20U);
  for (int i = 0; i < 20; ++i) EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
}

TEST_F(Streams, RefuseHandlesThatAreNotAlive) {
  cudaStream_t dead = nullptr;
  ASSERT_EQ(cudaStreamCreateWithFlags(&dead, cudaStreamNonBlocking), cudaSuccess);
  ASSERT_EQ(cudaStreamDestroy(dead), cudaSuccess);
  const TestStream next;
  EXPECT_NE(static_cast<cudaStream_t>(next), dead) << "handles are never used again";
  const TestEvent event;
  const DeviceArray<char> device(4);
  EXPECT_EQ(cudaStreamDestroy(dead), cudaErrorInvalidResourceHandle);
  EXPECT_EQ(cudaStreamDestroy(nullptr), cudaErrorInvalidResourceHandle);
  EXPECT_EQ(cudaStreamSynchronize(dead), cudaErrorInvalidResourceHandle);
  EXPECT_EQ(cudaStreamWaitEvent(dead, event, 0), cudaErrorInvalidResourceHandle);
  EXPECT_EQ(cudaEventRecord(event, dead), cudaErrorInvalidResourceHandle);
  EXPECT_EQ(cudaMemsetAsync(device.data(), 0, 4, dead), cudaErrorInvalidResourceHandle);
  EXPECT_EQ(cudaMemcpyAsync(device.data(), "abc", 4, cudaMemcpyHostToDevice, dead),
            cudaErrorInvalidResourceHandle);
  EXPECT_EQ(enqueue(dead, "late", [] {}), cudaErrorInvalidResourceHandle);
}

TEST_F(Streams, RefuseWrongArgumentsAtCreation) {
  cudaStream_t stream = nullptr;
  EXPECT_EQ(cudaStreamCreateWithFlags(nullptr, cudaStreamNonBlocking), cudaErrorInvalidValue);
  EXPECT_EQ(cudaStreamCreateWithFlags(&stream, 2), cudaErrorInvalidValue);
  EXPECT_EQ(cudaStreamCreateWithPriority(nullptr, cudaStreamNonBlocking, 0), cudaErrorInvalidValue);
  EXPECT_EQ(stream, nullptr);
}

TEST_F(Streams, NullStreamCanBeSynchronised) {
  EXPECT_EQ(cudaStreamSynchronize(nullptr), cudaSuccess);
}

TEST_F(Streams, OfLeastPriorityUseOneCore) {
  set_worker_count(3);
  int least = -99;
  int greatest = -99;
  ASSERT_EQ(cudaDeviceGetStreamPriorityRange(&least, &greatest), cudaSuccess);
  EXPECT_GT(least, greatest) << "lower numbers are greater priorities";
  EXPECT_EQ(cudaDeviceGetStreamPriorityRange(nullptr, nullptr), cudaSuccess);

  const auto cores_of = [](cudaStream_t stream) {
    int cores = 0;
    EXPECT_EQ(enqueue(stream, "ask", [&cores] { cores = threads_allowed(); }), cudaSuccess);
    EXPECT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
    return cores;
  };
  const auto cores_at = [&](int priority) {
    cudaStream_t stream = nullptr;
    EXPECT_EQ(cudaStreamCreateWithPriority(&stream, cudaStreamNonBlocking, priority), cudaSuccess);
    const int cores = cores_of(stream);
    EXPECT_EQ(cudaStreamDestroy(stream), cudaSuccess);
    return cores;
  };
  EXPECT_EQ(cores_at(least), 1);
  EXPECT_EQ(cores_at(least + 10), 1) << "clamped to the least";
  EXPECT_EQ(cores_at(greatest), 3);
  const TestStream without_priority;
  EXPECT_EQ(cores_of(without_priority), 3);
  EXPECT_EQ(threads_allowed(), 3) << "outside of any work";
}

TEST_F(Streams, WorkMayNotCallTheRuntime) {
  const TestStream stream;
  std::vector<cudaError_t> statuses;
  ASSERT_EQ(enqueue(stream, "caller",
                    [&] {
                      void* pointer = nullptr;
                      statuses.push_back(cudaMalloc(&pointer, 4));
                      statuses.push_back(cudaStreamSynchronize(stream));
                      statuses.push_back(enqueue(stream, "nested", [] {}));
                    }),
            cudaSuccess);
  ASSERT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
  EXPECT_EQ(statuses, std::vector<cudaError_t>(3, cudaErrorNotPermitted));
}

TEST_F(Streams, ServeSeveralThreadsAtOnce) {
  const TestStream shared;
  int sum = 0;  // guarded by the order of the stream alone
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int k = 0; k < 100; ++k)
        EXPECT_EQ(enqueue(shared, "add",
                          [&sum] {
                            const int before = sum;
                            std::this_thread::yield();  // room for work that does not keep the order
                            sum = before + 1;
                          }),
                  cudaSuccess);
    });
  }
  for (std::thread& thread : threads) thread.join();
  ASSERT_EQ(cudaStreamSynchronize(shared), cudaSuccess);
  EXPECT_EQ(sum, 400);
}

using DeferredStreams = DeferredStreamTest;

TEST_F(DeferredStreams, ReturnBeforeTheWorkIsDone) {
  const TestStream stream;
  Gate gate;
  gate.hold(stream);
  std::atomic<bool> done{false};
  ASSERT_EQ(enqueue(stream, "mark", [&done] { done = true; }), cudaSuccess);
  EXPECT_FALSE(done);
  gate.open();
  ASSERT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
  EXPECT_TRUE(done);
}

TEST_F(DeferredStreams, KeepNoOrderAmongEachOtherWithoutEvents) {
  const TestStream producer;
  const TestStream consumer;
  const DeviceArray<int> value(std::vector<int>{1});
  std::vector<int> seen(1);
  Gate gate;
  gate.hold(producer);
  ASSERT_EQ(cudaMemsetAsync(value.data(), 0, sizeof(int), producer), cudaSuccess);
  // The forgotten wait: the consumer reads the old value.
  ASSERT_EQ(cudaMemcpyAsync(seen.data(), value.data(), sizeof(int), cudaMemcpyDeviceToHost, consumer),
            cudaSuccess);
  EXPECT_EQ(seen[0], 1);
  gate.open();
  ASSERT_EQ(cudaStreamSynchronize(producer), cudaSuccess);
}

TEST_F(DeferredStreams, NullStreamDoesNotWaitForNonBlockingOnes) {
  const TestStream stream;
  Gate gate;
  gate.hold(stream);
  std::atomic<bool> done{false};
  ASSERT_EQ(enqueue(nullptr, "mark", [&done] { done = true; }), cudaSuccess);
  EXPECT_EQ(cudaStreamSynchronize(nullptr), cudaSuccess);
  EXPECT_TRUE(done);
  gate.open();
}

TEST_F(DeferredStreams, NullStreamAndBlockingOnesWaitForEachOther) {
  const TestStream blocking(cudaStreamDefault);
  std::vector<int> order;
  Gate first;
  first.hold(blocking);
  ASSERT_EQ(enqueue(blocking, "note", [&order] { order.push_back(1); }), cudaSuccess);
  ASSERT_EQ(enqueue(nullptr, "note", [&order] { order.push_back(2); }), cudaSuccess);
  ASSERT_EQ(enqueue(blocking, "note", [&order] { order.push_back(3); }), cudaSuccess);
  first.open();
  ASSERT_EQ(cudaDeviceSynchronize(), cudaSuccess);
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST_F(DeferredStreams, MayBeDestroyedWithWorkPending) {
  std::atomic<int> done{0};
  Gate gate;
  {
    const TestStream stream;
    gate.hold(stream);
    for (int i = 0; i < 3; ++i) ASSERT_EQ(enqueue(stream, "mark", [&done] { ++done; }), cudaSuccess);
  }
  EXPECT_EQ(done, 0);
  gate.open();
  ASSERT_EQ(cudaDeviceSynchronize(), cudaSuccess);
  EXPECT_EQ(done, 3);
}

TEST_F(DeferredStreams, ModeChangesOnlyWhileIdle) {
  const TestStream stream;
  Gate gate;
  gate.hold(stream);
  EXPECT_FALSE(set_stream_mode(StreamMode::kEager));
  EXPECT_EQ(stream_mode(), StreamMode::kDeferred);
  gate.open();
  ASSERT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
  EXPECT_TRUE(set_stream_mode(StreamMode::kEager));
  const std::thread::id here = std::this_thread::get_id();
  std::thread::id there;
  ASSERT_EQ(enqueue(stream, "who", [&there] { there = std::this_thread::get_id(); }), cudaSuccess);
  EXPECT_EQ(there, here) << "an eager stream runs its work on the calling thread";
}

TEST_F(DeferredStreams, DeviceSynchronizeWaitsForAll) {
  const TestStream first;
  const TestStream second;
  std::atomic<int> done{0};
  for (const cudaStream_t stream : {static_cast<cudaStream_t>(first), static_cast<cudaStream_t>(second)}) {
    ASSERT_EQ(enqueue(stream, "slow",
                      [&done] {
                        std::this_thread::sleep_for(std::chrono::milliseconds(20));
                        ++done;
                      }),
              cudaSuccess);
  }
  ASSERT_EQ(cudaDeviceSynchronize(), cudaSuccess);
  EXPECT_EQ(done, 2);
}

TEST_F(DeferredStreams, ProcessMayEndWithWorkPending) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto end_early = [] {
    set_stream_mode(StreamMode::kDeferred);
    cudaStream_t stream = nullptr;
    cudaStreamCreateWithFlags(&stream, cudaStreamNonBlocking);
    enqueue(stream, "slow", [] { std::this_thread::sleep_for(std::chrono::seconds(5)); });
    parallel_for(4, 2, [](int) { std::this_thread::sleep_for(std::chrono::milliseconds(1)); });
    std::exit(0);
  };
  EXPECT_EXIT(end_early(), testing::ExitedWithCode(0), "");
}

TEST_F(DeferredStreams, FinishedWorkHasGivenBackWhatItHeld) {
  const TestStream stream;
  const auto held = std::make_shared<int>(1);
  ASSERT_EQ(enqueue(stream, "holder", [held] { (void)*held; }), cudaSuccess);
  ASSERT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
  EXPECT_EQ(held.use_count(), 1);
}

}  // namespace
}  // namespace host_cuda_test
