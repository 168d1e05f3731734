// What a launch on the stand-in refuses, notes and shows beyond what a device does.

#include <vector>

#include "platform/host_cuda/host_cuda_test.h"
#include "platform/launch/launch_test_kernels.h"
#include "platform/launch/ramp.h"

namespace host_cuda_test {
namespace {

using StrictLaunch = HostCudaTest;
using launch_test::ramp;

// Reads of a left neighbour without a barrier: right by luck in ascending order, caught in the others.
TEST_F(StrictLaunch, ForgottenBarrierShowsInOtherOrdersOfThreads) {
  const unsigned block = 64;
  const DeviceArray<float> source(ramp(block));
  const TestStream stream;
  const auto wrong_values = [&](ThreadOrder order) {
    set_thread_order(order);
    const DeviceArray<float> target(block);
    EXPECT_EQ(launch_test::shift_without_barrier(source.data(), target.data(), 1, block, stream),
              cudaSuccess);
    EXPECT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
    const std::vector<float> result = target.on_host();
    int wrong = 0;
    for (std::size_t t = 0; t < block; ++t) wrong += result[t] != static_cast<float>(t > 0 ? t : 1);
    return wrong;
  };
  EXPECT_EQ(wrong_values(ThreadOrder::kForward), 0);
  EXPECT_GT(wrong_values(ThreadOrder::kReverse), 0);
  EXPECT_GT(wrong_values(ThreadOrder::kShuffled), 0);
}

TEST_F(StrictLaunch, FillsFreshSharedMemoryWithOnes) {
  const DeviceArray<unsigned char> target(std::vector<unsigned char>(100, 0));
  const TestStream stream;
  ASSERT_EQ(launch_test::copy_fresh_shared(target.data(), 100, stream), cudaSuccess);
  ASSERT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
  EXPECT_EQ(target.on_host(), std::vector<unsigned char>(100, 0xFF));
}

TEST_F(StrictLaunch, RefusesPointersThatAKernelCannotReach) {
  const DeviceArray<float> device(ramp(16));
  const PinnedArray<float> pinned(16);
  std::vector<float> host(16);
  void* freed = nullptr;
  ASSERT_EQ(cudaMalloc(&freed, 64), cudaSuccess);
  ASSERT_EQ(cudaFree(freed), cudaSuccess);
  const TestStream stream;
  const auto launch = [&](const float* source, float* target, int n) {
    return launch_test::scale(source, 1.0F, target, n, 16, stream);
  };
  EXPECT_EQ(launch(host.data(), device.data(), 16), cudaErrorIllegalAddress) << "pageable source";
  EXPECT_EQ(launch(device.data(), host.data(), 16), cudaErrorIllegalAddress) << "pageable target";
  EXPECT_EQ(launch(static_cast<float*>(freed), device.data(), 16), cudaErrorIllegalAddress) << "freed source";
  EXPECT_EQ(launch(device.data(), pinned.data(), 16), cudaSuccess) << "the device reaches pinned memory";
  EXPECT_EQ(launch(device.data() + 4, device.data() + 8, 4), cudaSuccess) << "the inside of an allocation";
  const DeviceArray<double> out(std::vector<double>{1.0});
  EXPECT_EQ(launch_test::sum(device.data() + 16, 0, out.data(), 1, stream), cudaSuccess)
      << "an empty range at the end";
  EXPECT_EQ(launch_test::sum(nullptr, 0, out.data(), 1, stream), cudaSuccess)
      << "null, of which nothing is read";
  EXPECT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
}

TEST_F(StrictLaunch, RefusesAStreamThatIsGone) {
  cudaStream_t gone = nullptr;
  ASSERT_EQ(cudaStreamCreateWithFlags(&gone, cudaStreamNonBlocking), cudaSuccess);
  ASSERT_EQ(cudaStreamDestroy(gone), cudaSuccess);
  const DeviceArray<int> target(3);
  EXPECT_EQ(launch_test::describe_blocks(target.data(), 1, 32, gone), cudaErrorInvalidResourceHandle);
  EXPECT_EQ(counters().launches_of("describe_blocks_kernel"), 0);
}

TEST_F(StrictLaunch, CanBeMadeToFailByKernelName) {
  const DeviceArray<int> target(std::vector<int>(3, -1));
  const DeviceArray<float> values(std::vector<float>(4, 1.0F));
  const TestStream stream;
  fail_call("describe_blocks_kernel", 2, cudaErrorLaunchFailure);
  EXPECT_EQ(launch_test::scale(values.data(), 1.0F, values.data(), 4, 4, stream), cudaSuccess)
      << "another kernel";
  EXPECT_EQ(launch_test::describe_blocks(target.data(), 1, 32, stream), cudaSuccess);
  EXPECT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
  ASSERT_EQ(cudaMemsetAsync(target.data(), 0, target.bytes(), stream), cudaSuccess);
  EXPECT_EQ(launch_test::describe_blocks(target.data(), 1, 32, stream), cudaErrorLaunchFailure);
  EXPECT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
  EXPECT_EQ(target.on_host(), std::vector<int>(3, 0)) << "the failed launch ran nothing";
  EXPECT_EQ(launch_test::describe_blocks(target.data(), 1, 32, stream), cudaSuccess);
  EXPECT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
}

TEST_F(StrictLaunch, CanBeMadeToFailWhateverTheKernel) {
  const DeviceArray<int> target(3);
  const TestStream stream;
  fail_call("cudaLaunchKernel", 1, cudaErrorLaunchOutOfResources);
  EXPECT_EQ(launch_test::describe_blocks(target.data(), 1, 32, stream), cudaErrorLaunchOutOfResources);
  EXPECT_EQ(cudaGetLastError(), cudaSuccess) << "the launch took the error out";
}

TEST_F(StrictLaunch, IsCountedByKernelName) {
  const DeviceArray<int> target(3);
  const TestStream stream;
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(launch_test::describe_blocks(target.data(), 1, 32, stream), cudaSuccess);
  }
  EXPECT_EQ(counters().launches_of("describe_blocks_kernel"), 3);
  EXPECT_EQ(counters().calls_of("cudaLaunchKernel"), 3);
  EXPECT_EQ(counters().null_stream_work, 0);
  ASSERT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
  ASSERT_EQ(launch_test::describe_blocks(target.data(), 1, 32, nullptr), cudaSuccess);
  EXPECT_EQ(counters().null_stream_work, 1);
  EXPECT_EQ(cudaDeviceSynchronize(), cudaSuccess);
}

using DeferredLaunch = DeferredStreamTest;

TEST_F(DeferredLaunch, CopiesItsArgumentsAtTheCall) {
  const DeviceArray<float> source(std::vector<float>{2.0F});
  const DeviceArray<float> target(std::vector<float>{0.0F});
  const TestStream stream;
  Gate gate;
  gate.hold(stream);
  float factor = 3.0F;
  ASSERT_EQ(launch_test::scale(source.data(), factor, target.data(), 1, 32, stream), cudaSuccess);
  factor = 100.0F;
  EXPECT_EQ(target.on_host()[0], 0.0F) << "not run yet";
  gate.open();
  ASSERT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
  EXPECT_EQ(target.on_host()[0], 6.0F);
}

}  // namespace
}  // namespace host_cuda_test
