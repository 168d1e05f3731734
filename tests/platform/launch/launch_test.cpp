#include <cmath>
#include <limits>
#include <numeric>
#include <vector>

#include "platform/host_cuda/host_cuda_test.h"
#include "platform/launch/launch_test_kernels.h"

namespace host_cuda_test {
namespace {

using Launch = HostCudaTest;

std::vector<float> ramp(std::size_t n) {
  std::vector<float> values(n);
  std::iota(values.begin(), values.end(), 1.0F);
  return values;
}

TEST_F(Launch, RunsEveryThreadOnceAndStopsAtTheEnd) {
  const DeviceArray<float> source(ramp(1000));
  const DeviceArray<float> target(std::vector<float>(1024, -1.0F));
  const TestStream stream;
  ASSERT_EQ(launch_test::scale(source.data(), 3.0F, target.data(), 1000, 256, stream), cudaSuccess);
  ASSERT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
  const std::vector<float> result = target.on_host();
  for (std::size_t t = 0; t < 1024; ++t)
    EXPECT_EQ(result[t], t < 1000 ? 3.0F * static_cast<float>(t + 1) : -1.0F);
}

TEST_F(Launch, TellsEachBlockItsPlace) {
  const unsigned grid = 5;
  const DeviceArray<int> target(std::size_t{3} * grid);
  const TestStream stream;
  ASSERT_EQ(launch_test::describe_blocks(target.data(), grid, 96, stream), cudaSuccess);
  ASSERT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
  const std::vector<int> seen = target.on_host();
  for (int i = 0; i < static_cast<int>(grid); ++i) {
    const std::size_t place = static_cast<std::size_t>(3 * i);
    EXPECT_EQ(seen[place], 96) << "threads";
    EXPECT_EQ(seen[place + 1], 5) << "grid";
    EXPECT_EQ(seen[place + 2], i) << "index";
  }
}

TEST_F(Launch, SumsThroughStaticSharedMemoryAndAtomicAdd) {
  const int n = 10000;
  const DeviceArray<float> source(ramp(n));
  const TestStream stream;
  for (const ThreadOrder order : {ThreadOrder::kForward, ThreadOrder::kReverse, ThreadOrder::kShuffled}) {
    set_thread_order(order);
    const DeviceArray<double> out(std::vector<double>{0.5});
    ASSERT_EQ(launch_test::sum(source.data(), n, out.data(), 7, stream), cudaSuccess);
    ASSERT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
    EXPECT_EQ(out.on_host()[0], 0.5 + n * (n + 1) / 2.0);
  }
}

TEST_F(Launch, AtomicAddLosesNothingAmongBlocks) {
  set_worker_count(4);
  const int blocks = 2000;
  const DeviceArray<float> source(std::vector<float>(256, 1.0F));
  const DeviceArray<double> out(std::vector<double>{0.0});
  const TestStream stream;
  ASSERT_EQ(launch_test::sum(source.data(), 1, out.data(), blocks, stream), cudaSuccess);
  for (int i = 0; i < 20; ++i) {
    ASSERT_EQ(launch_test::sum(source.data(), 256, out.data(), blocks, stream), cudaSuccess);
  }
  ASSERT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
  EXPECT_EQ(out.on_host()[0], 1.0 + 20 * 256.0);
}

TEST_F(Launch, StagesThroughDynamicSharedMemoryInAnyOrderOfThreads) {
  const unsigned block = 64;
  const unsigned grid = 3;
  const DeviceArray<float> source(ramp(block * grid));
  const TestStream stream;
  for (const ThreadOrder order : {ThreadOrder::kForward, ThreadOrder::kReverse, ThreadOrder::kShuffled}) {
    set_thread_order(order);
    const DeviceArray<float> target(block * grid);
    ASSERT_EQ(
        launch_test::reverse_blocks(source.data(), target.data(), grid, block, block * sizeof(float), stream),
        cudaSuccess);
    ASSERT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
    const std::vector<float> result = target.on_host();
    for (std::size_t t = 0; t < result.size(); ++t) {
      const std::size_t first = t / block * block;
      EXPECT_EQ(result[t], static_cast<float>(first + (block - 1 - t % block) + 1));
    }
  }
}

// Reads of a left neighbour without a barrier: right by luck in ascending order, caught in the others.
TEST_F(Launch, ForgottenBarrierShowsInOtherOrdersOfThreads) {
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

TEST_F(Launch, FillsFreshSharedMemoryWithOnes) {
  const DeviceArray<unsigned char> target(std::vector<unsigned char>(100, 0));
  const TestStream stream;
  ASSERT_EQ(launch_test::copy_fresh_shared(target.data(), 100, stream), cudaSuccess);
  ASSERT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
  EXPECT_EQ(target.on_host(), std::vector<unsigned char>(100, 0xFF));
}

TEST_F(Launch, ConvertsArgumentsToTheParametersTypes) {
  const DeviceArray<float> target(2);
  const TestStream stream;
  ASSERT_EQ(launch_test::store_converted(target.data(), 'A', 1000000U, stream), cudaSuccess);
  ASSERT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
  EXPECT_EQ(target.on_host(), (std::vector<float>{65.0F, 1e6F}));
}

TEST_F(Launch, FastExponentialIsCloseAndHandlesTheEnds) {
  const float infinity = std::numeric_limits<float>::infinity();
  std::vector<float> inputs;
  for (float x = -120.0F; x <= 120.0F; x += 0.37F) inputs.push_back(x);
  const DeviceArray<float> source(inputs);
  const DeviceArray<float> target(inputs.size());
  const DeviceArray<float> ends(std::vector<float>{-infinity, infinity, std::nanf(""), 0.0F});
  const TestStream stream;
  ASSERT_EQ(launch_test::exp2_all(source.data(), target.data(), static_cast<int>(inputs.size()), stream),
            cudaSuccess);
  ASSERT_EQ(launch_test::exp2_all(ends.data(), ends.data(), 4, stream), cudaSuccess);
  ASSERT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
  const std::vector<float> result = target.on_host();
  const double relative_tolerance =
      4.0 * std::numeric_limits<float>::epsilon();  // the device's promise is 2 ulp
  for (std::size_t i = 0; i < inputs.size(); ++i) {
    const double expected = std::exp2(static_cast<double>(inputs[i]));
    EXPECT_NEAR(static_cast<double>(result[i]), expected, relative_tolerance * expected) << inputs[i];
  }
  const std::vector<float> end_values = ends.on_host();
  EXPECT_EQ(end_values[0], 0.0F);
  EXPECT_EQ(end_values[1], infinity);
  EXPECT_TRUE(std::isnan(end_values[2]));
  EXPECT_EQ(end_values[3], 1.0F);
}

TEST_F(Launch, RefusesShapesThatTheDeviceCannotRun) {
  const DeviceArray<int> target(12);
  const DeviceArray<float> values(2048);
  const TestStream stream;
  const auto describe = [&](unsigned grid, unsigned block) {
    return launch_test::describe_blocks(target.data(), grid, block, stream);
  };
  EXPECT_EQ(describe(0, 32), cudaErrorInvalidConfiguration) << "no block";
  EXPECT_EQ(describe(1, 0), cudaErrorInvalidConfiguration) << "no thread";
  EXPECT_EQ(describe(1, 1025), cudaErrorInvalidConfiguration) << "more threads than a block can have";
  EXPECT_EQ(describe(0x80000000U, 32), cudaErrorInvalidConfiguration) << "more blocks than a grid can have";
  EXPECT_EQ(describe(1, 1024), cudaSuccess);
  EXPECT_EQ(launch_test::reverse_blocks(values.data(), values.data(), 1, 32, 48 * 1024 + 1, stream),
            cudaErrorInvalidValue)
      << "more shared memory than a block has";
  EXPECT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
}

TEST_F(Launch, RefusesPointersThatAKernelCannotReach) {
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

TEST_F(Launch, RefusesAStreamThatIsGone) {
  cudaStream_t gone = nullptr;
  ASSERT_EQ(cudaStreamCreateWithFlags(&gone, cudaStreamNonBlocking), cudaSuccess);
  ASSERT_EQ(cudaStreamDestroy(gone), cudaSuccess);
  const DeviceArray<int> target(3);
  EXPECT_EQ(launch_test::describe_blocks(target.data(), 1, 32, gone), cudaErrorInvalidResourceHandle);
  EXPECT_EQ(counters().launches_of("describe_blocks_kernel"), 0);
}

TEST_F(Launch, CanBeMadeToFailByKernelName) {
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

TEST_F(Launch, CanBeMadeToFailWhateverTheKernel) {
  const DeviceArray<int> target(3);
  const TestStream stream;
  fail_call("cudaLaunchKernel", 1, cudaErrorLaunchOutOfResources);
  EXPECT_EQ(launch_test::describe_blocks(target.data(), 1, 32, stream), cudaErrorLaunchOutOfResources);
  EXPECT_EQ(cudaGetLastError(), cudaSuccess) << "the launch took the error out";
}

TEST_F(Launch, ShowsAnErrorThatAnEarlierCallLeftBehind) {
  const DeviceArray<int> target(3);
  const TestStream stream;
  EXPECT_EQ(cudaSetDevice(9), cudaErrorInvalidDevice);
  EXPECT_EQ(launch_test::describe_blocks(target.data(), 1, 32, stream), cudaErrorInvalidDevice);
  EXPECT_EQ(launch_test::describe_blocks(target.data(), 1, 32, stream), cudaSuccess);
  EXPECT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
}

TEST_F(Launch, IsCountedByKernelName) {
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
