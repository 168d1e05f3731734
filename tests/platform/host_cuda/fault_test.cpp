#include <cublas_v2.h>

#include <functional>
#include <vector>

#include "platform/host_cuda/host_cuda_test.h"

namespace host_cuda_test {
namespace {

using Faults = HostCudaTest;

TEST_F(Faults, StrikeTheNthNextCallOnce) {
  void* pointer = nullptr;
  ASSERT_EQ(cudaMalloc(&pointer, 4), cudaSuccess);
  ASSERT_EQ(cudaFree(pointer), cudaSuccess);
  fail_call("cudaMalloc", 2, cudaErrorMemoryAllocation);
  ASSERT_EQ(cudaMalloc(&pointer, 4), cudaSuccess);
  ASSERT_EQ(cudaFree(pointer), cudaSuccess);
  EXPECT_EQ(cudaMalloc(&pointer, 4), cudaErrorMemoryAllocation);
  EXPECT_EQ(counters().live_device_allocations, 0) << "a failed call has no effect";
  ASSERT_EQ(cudaMalloc(&pointer, 4), cudaSuccess);
  ASSERT_EQ(cudaFree(pointer), cudaSuccess);
}

TEST_F(Faults, CountFromTheMomentTheyAreSet) {
  fail_call("cudaGetDevice", 1, cudaErrorNoDevice);
  int device = -1;
  EXPECT_EQ(cudaGetDevice(&device), cudaErrorNoDevice);
  fail_call("cudaGetDevice", 2, cudaErrorUnknown);
  EXPECT_EQ(cudaGetDevice(&device), cudaSuccess);
  EXPECT_EQ(cudaGetDevice(&device), cudaErrorUnknown);
}

TEST_F(Faults, OfOneNameAddUp) {
  fail_call("cudaGetDevice", 3, cudaErrorUnknown);
  fail_call("cudaGetDevice", 1, cudaErrorNoDevice);
  int device = -1;
  EXPECT_EQ(cudaGetDevice(&device), cudaErrorNoDevice);
  EXPECT_EQ(cudaGetDevice(&device), cudaSuccess);
  EXPECT_EQ(cudaGetDevice(&device), cudaErrorUnknown);
  EXPECT_EQ(cudaGetDevice(&device), cudaSuccess);
}

TEST_F(Faults, OnEveryCallLastUntilCleared) {
  fail_every_call("cudaGetDevice", cudaErrorNoDevice);
  int device = -1;
  for (int i = 0; i < 3; ++i) EXPECT_EQ(cudaGetDevice(&device), cudaErrorNoDevice);
  clear_faults();
  EXPECT_EQ(cudaGetDevice(&device), cudaSuccess);
}

TEST_F(Faults, BecomeTheLastError) {
  fail_call("cudaGetDevice", 1, cudaErrorNoDevice);
  int device = -1;
  EXPECT_EQ(cudaGetDevice(&device), cudaErrorNoDevice);
  EXPECT_EQ(cudaPeekAtLastError(), cudaErrorNoDevice);
  EXPECT_EQ(cudaGetLastError(), cudaErrorNoDevice);
  EXPECT_EQ(cudaGetLastError(), cudaSuccess);
}

// Every call can be made to fail by its own name.
TEST_F(Faults, ReachEveryRuntimeCall) {
  const DeviceArray<char> device(16);
  const TestStream stream;
  const TestEvent event;
  void* pointer = nullptr;
  cudaStream_t new_stream = nullptr;
  cudaEvent_t new_event = nullptr;
  int number = 0;
  float ms = 0.0F;
  char host[16] = {};
  struct Row {
    const char* name;
    std::function<cudaError_t()> call;
  };
  const std::vector<Row> rows = {
      {"cudaMalloc", [&] { return cudaMalloc(&pointer, 4); }},
      {"cudaFree", [&] { return cudaFree(device.data()); }},
      {"cudaMallocHost", [&] { return cudaMallocHost(&pointer, 4); }},
      {"cudaFreeHost", [&] { return cudaFreeHost(nullptr); }},
      {"cudaMemcpy", [&] { return cudaMemcpy(device.data(), host, 16, cudaMemcpyHostToDevice); }},
      {"cudaMemcpyAsync",
       [&] { return cudaMemcpyAsync(device.data(), host, 16, cudaMemcpyHostToDevice, stream); }},
      {"cudaMemcpy2DAsync",
       [&] { return cudaMemcpy2DAsync(device.data(), 8, host, 8, 8, 2, cudaMemcpyHostToDevice, stream); }},
      {"cudaMemsetAsync", [&] { return cudaMemsetAsync(device.data(), 0, 16, stream); }},
      {"cudaStreamCreateWithFlags",
       [&] { return cudaStreamCreateWithFlags(&new_stream, cudaStreamNonBlocking); }},
      {"cudaStreamCreateWithPriority",
       [&] { return cudaStreamCreateWithPriority(&new_stream, cudaStreamNonBlocking, 0); }},
      {"cudaStreamDestroy", [&] { return cudaStreamDestroy(stream); }},
      {"cudaStreamSynchronize", [&] { return cudaStreamSynchronize(stream); }},
      {"cudaStreamWaitEvent", [&] { return cudaStreamWaitEvent(stream, event, 0); }},
      {"cudaDeviceGetStreamPriorityRange",
       [&] { return cudaDeviceGetStreamPriorityRange(&number, &number); }},
      {"cudaEventCreate", [&] { return cudaEventCreate(&new_event); }},
      {"cudaEventCreateWithFlags", [&] { return cudaEventCreateWithFlags(&new_event, 0); }},
      {"cudaEventDestroy", [&] { return cudaEventDestroy(event); }},
      {"cudaEventRecord", [&] { return cudaEventRecord(event, stream); }},
      {"cudaEventSynchronize", [&] { return cudaEventSynchronize(event); }},
      {"cudaEventElapsedTime", [&] { return cudaEventElapsedTime(&ms, event, event); }},
      {"cudaGetLastError", [&] { return cudaGetLastError(); }},
      {"cudaPeekAtLastError", [&] { return cudaPeekAtLastError(); }},
      {"cudaDeviceSynchronize", [&] { return cudaDeviceSynchronize(); }},
      {"cudaGetDeviceCount", [&] { return cudaGetDeviceCount(&number); }},
      {"cudaSetDevice", [&] { return cudaSetDevice(0); }},
      {"cudaGetDevice", [&] { return cudaGetDevice(&number); }},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    reset_counters();
    fail_call(row.name, 1, cudaErrorLaunchTimeout);
    EXPECT_EQ(row.call(), cudaErrorLaunchTimeout);
    EXPECT_EQ(counters().calls_of(row.name), 1);
    clear_faults();
    cudaGetLastError();
  }
  EXPECT_EQ(pointer, nullptr);
  EXPECT_EQ(new_stream, nullptr);
  EXPECT_EQ(new_event, nullptr);
}

TEST_F(Faults, ReachEveryCublasCall) {
  cublasHandle_t handle = nullptr;
  fail_call("cublasCreate", 1, CUBLAS_STATUS_ALLOC_FAILED);
  EXPECT_EQ(cublasCreate(&handle), CUBLAS_STATUS_ALLOC_FAILED);
  EXPECT_EQ(handle, nullptr);
  ASSERT_EQ(cublasCreate(&handle), CUBLAS_STATUS_SUCCESS);
  fail_call("cublasSetStream", 1, CUBLAS_STATUS_MAPPING_ERROR);
  EXPECT_EQ(cublasSetStream(handle, nullptr), CUBLAS_STATUS_MAPPING_ERROR);
  fail_call("cublasSgemmStridedBatched", 1, CUBLAS_STATUS_ARCH_MISMATCH);
  const float one = 1.0F;
  EXPECT_EQ(cublasSgemmStridedBatched(handle, CUBLAS_OP_N, CUBLAS_OP_N, 0, 0, 0, &one, nullptr, 1, 0, nullptr,
                                      1, 0, &one, nullptr, 1, 0, 0),
            CUBLAS_STATUS_ARCH_MISMATCH);
  fail_call("cublasDestroy", 1, CUBLAS_STATUS_INTERNAL_ERROR);
  EXPECT_EQ(cublasDestroy(handle), CUBLAS_STATUS_INTERNAL_ERROR);
  EXPECT_EQ(cublasDestroy(handle), CUBLAS_STATUS_SUCCESS);
}

TEST_F(Faults, ServeOtherStandIns) {
  fail_call("enqueueV3", 2, 17);
  EXPECT_EQ(take_fault("enqueueV3"), 0);
  EXPECT_EQ(take_fault("enqueueV3"), 17);
  EXPECT_EQ(take_fault("enqueueV3"), 0);
  EXPECT_EQ(counters().calls_of("enqueueV3"), 3);
}

TEST_F(Faults, WrongAnswersComeOnTheirCallOnly) {
  answer_call("getTensorShape", 2, {1, 256, 12, 11});
  std::vector<std::int64_t> values;
  EXPECT_EQ(take_fault("getTensorShape"), 0);
  EXPECT_FALSE(take_answer("getTensorShape", &values));
  EXPECT_EQ(take_fault("getTensorShape"), 0);
  EXPECT_TRUE(take_answer("getTensorShape", &values));
  EXPECT_EQ(values, (std::vector<std::int64_t>{1, 256, 12, 11}));
  EXPECT_EQ(take_fault("getTensorShape"), 0);
  EXPECT_FALSE(take_answer("getTensorShape", &values));
  EXPECT_FALSE(take_answer("another", &values));
}

}  // namespace
}  // namespace host_cuda_test
