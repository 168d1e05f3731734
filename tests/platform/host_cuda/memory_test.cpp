#include <chrono>
#include <cstdint>
#include <thread>

#include "platform/host_cuda/host_cuda_test.h"

namespace host_cuda_test {
namespace {

using Memory = HostCudaTest;

TEST_F(Memory, FillsFreshDeviceMemoryWithOnes) {
  const DeviceArray<unsigned char> fresh(1000);
  for (const unsigned char byte : fresh.on_host()) EXPECT_EQ(byte, 0xFF);
}

TEST_F(Memory, FillsFreshPinnedMemoryWithOnes) {
  PinnedArray<unsigned char> fresh(1000);
  for (std::size_t i = 0; i < 1000; ++i) EXPECT_EQ(fresh[i], 0xFF);
}

TEST_F(Memory, AlignsDeviceMemoryAsTheRealRuntimeDoes) {
  const DeviceArray<char> first(3);
  const DeviceArray<char> second(5);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(first.data()) % 256, 0U);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(second.data()) % 256, 0U);
}

TEST_F(Memory, AnswersZeroBytesWithANullPointer) {
  void* pointer = this;
  EXPECT_EQ(cudaMalloc(&pointer, 0), cudaSuccess);
  EXPECT_EQ(pointer, nullptr);
  pointer = this;
  EXPECT_EQ(cudaMallocHost(&pointer, 0), cudaSuccess);
  EXPECT_EQ(pointer, nullptr);
}

TEST_F(Memory, RefusesANullTarget) {
  EXPECT_EQ(cudaMalloc(static_cast<void**>(nullptr), 16), cudaErrorInvalidValue);
  EXPECT_EQ(cudaMallocHost(static_cast<void**>(nullptr), 16), cudaErrorInvalidValue);
}

TEST_F(Memory, HasTheEndOfASmallBoard) {
  void* pointer = this;
  EXPECT_EQ(cudaMalloc(&pointer, (std::size_t{8} << 30) + 1), cudaErrorMemoryAllocation);
  EXPECT_EQ(pointer, nullptr);
  EXPECT_EQ(cudaMalloc(&pointer, SIZE_MAX), cudaErrorMemoryAllocation);
  EXPECT_EQ(cudaMallocHost(&pointer, SIZE_MAX), cudaErrorMemoryAllocation);
  EXPECT_EQ(counters().live_device_allocations, 0);
}

TEST_F(Memory, FreesNullWithoutComplaint) {
  EXPECT_EQ(cudaFree(nullptr), cudaSuccess);
  EXPECT_EQ(cudaFreeHost(nullptr), cudaSuccess);
}

TEST_F(Memory, RefusesASecondFree) {
  void* device = nullptr;
  void* pinned = nullptr;
  ASSERT_EQ(cudaMalloc(&device, 16), cudaSuccess);
  ASSERT_EQ(cudaMallocHost(&pinned, 16), cudaSuccess);
  EXPECT_EQ(cudaFree(device), cudaSuccess);
  EXPECT_EQ(cudaFree(device), cudaErrorInvalidValue);
  EXPECT_EQ(cudaFreeHost(pinned), cudaSuccess);
  EXPECT_EQ(cudaFreeHost(pinned), cudaErrorInvalidValue);
}

TEST_F(Memory, RefusesToFreeWhatItDidNotGive) {
  const DeviceArray<char> device(16);
  const PinnedArray<char> pinned(16);
  char local = 0;
  EXPECT_EQ(cudaFree(&local), cudaErrorInvalidValue) << "foreign memory";
  EXPECT_EQ(cudaFreeHost(&local), cudaErrorInvalidValue) << "foreign memory";
  EXPECT_EQ(cudaFree(device.data() + 1), cudaErrorInvalidValue) << "the inside of an allocation";
  EXPECT_EQ(cudaFree(pinned.data()), cudaErrorInvalidValue) << "pinned memory is cudaFreeHost's";
  EXPECT_EQ(cudaFreeHost(device.data()), cudaErrorInvalidValue) << "device memory is cudaFree's";
}

TEST_F(Memory, KnowsTheRangesOfItsAllocations) {
  const DeviceArray<char> device(100);
  const PinnedArray<char> pinned(100);
  EXPECT_TRUE(is_device_pointer(device.data(), 100));
  EXPECT_TRUE(is_device_pointer(device.data() + 99, 1));
  EXPECT_FALSE(is_device_pointer(device.data(), 101));
  EXPECT_FALSE(is_device_pointer(device.data() - 1, 2));
  EXPECT_FALSE(is_device_pointer(device.data(), SIZE_MAX)) << "a range that wraps around";
  EXPECT_FALSE(is_device_pointer(pinned.data(), 100));
  EXPECT_FALSE(is_device_pointer(nullptr, 1));
  EXPECT_TRUE(is_pinned_pointer(pinned.data(), 100));
  EXPECT_FALSE(is_pinned_pointer(device.data(), 100));
}

TEST_F(Memory, CountsWhatLives) {
  {
    const DeviceArray<float> first(10);
    const DeviceArray<float> second(20);
    const PinnedArray<float> pinned(5);
    const Counters now = counters();
    EXPECT_EQ(now.live_device_allocations, 2);
    EXPECT_EQ(now.live_device_bytes, 120);
    EXPECT_EQ(now.live_pinned_allocations, 1);
    EXPECT_EQ(now.live_pinned_bytes, 20);
    reset_counters();
    EXPECT_EQ(counters().live_device_bytes, 120) << "a reset leaves what lives";
  }
  EXPECT_EQ(counters().live_device_bytes, 0);
}

using DeferredMemory = DeferredStreamTest;

TEST_F(DeferredMemory, FreeWaitsForPendingWorkAndCountsIt) {
  const TestStream stream;
  bool done = false;
  void* device = nullptr;
  ASSERT_EQ(cudaMalloc(&device, 16), cudaSuccess);
  ASSERT_EQ(enqueue(stream, "slow",
                    [&done] {
                      std::this_thread::sleep_for(std::chrono::milliseconds(30));
                      done = true;
                    }),
            cudaSuccess);
  EXPECT_EQ(cudaFree(device), cudaSuccess);
  EXPECT_TRUE(done);
  EXPECT_EQ(counters().frees_while_work_pending, 1);
}

TEST_F(DeferredMemory, FreeHostWaitsToo) {
  const TestStream stream;
  bool done = false;
  void* pinned = nullptr;
  ASSERT_EQ(cudaMallocHost(&pinned, 16), cudaSuccess);
  ASSERT_EQ(enqueue(stream, "slow",
                    [&done] {
                      std::this_thread::sleep_for(std::chrono::milliseconds(30));
                      done = true;
                    }),
            cudaSuccess);
  EXPECT_EQ(cudaFreeHost(pinned), cudaSuccess);
  EXPECT_TRUE(done);
  EXPECT_EQ(counters().frees_while_work_pending, 1);
}

TEST_F(DeferredMemory, FreeOfIdleMemoryCountsNothing) {
  const TestStream stream;
  void* device = nullptr;
  ASSERT_EQ(cudaMalloc(&device, 16), cudaSuccess);
  ASSERT_EQ(cudaMemsetAsync(device, 0, 16, stream), cudaSuccess);
  ASSERT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
  EXPECT_EQ(cudaFree(device), cudaSuccess);
  EXPECT_EQ(counters().frees_while_work_pending, 0);
}

TEST_F(DeferredMemory, FreeWaitsForTheWorkOfADestroyedStream) {
  bool done = false;
  void* device = nullptr;
  ASSERT_EQ(cudaMalloc(&device, 16), cudaSuccess);
  {
    const TestStream stream;
    ASSERT_EQ(enqueue(stream, "slow",
                      [&done] {
                        std::this_thread::sleep_for(std::chrono::milliseconds(30));
                        done = true;
                      }),
              cudaSuccess);
  }
  EXPECT_EQ(cudaFree(device), cudaSuccess);
  EXPECT_TRUE(done);
}

}  // namespace
}  // namespace host_cuda_test
