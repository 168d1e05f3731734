// What a launch does on every device.

#include <cmath>
#include <limits>
#include <vector>

#include "platform/host_cuda/host_cuda_test.h"
#include "platform/launch/launch_test_kernels.h"
#include "platform/launch/ramp.h"

namespace host_cuda_test {
namespace {

using Launch = HostCudaTest;
using launch_test::ramp;

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

TEST_F(Launch, ShowsAnErrorThatAnEarlierCallLeftBehind) {
  const DeviceArray<int> target(3);
  const TestStream stream;
  EXPECT_EQ(cudaSetDevice(9), cudaErrorInvalidDevice);
  EXPECT_EQ(launch_test::describe_blocks(target.data(), 1, 32, stream), cudaErrorInvalidDevice);
  EXPECT_EQ(launch_test::describe_blocks(target.data(), 1, 32, stream), cudaSuccess);
  EXPECT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
}

}  // namespace
}  // namespace host_cuda_test
