#include <cuda_launch.h>
#include <host_cuda/tuned.h>

#include <vector>

#include "platform/host_cuda/host_cuda_test.h"

namespace host_cuda_test {
namespace {

using ostrel::launch::Block;
using ostrel::launch::launch_kernel;
using ostrel::launch::this_block;

__global__ void add_one_kernel(int* values, int n) {
  const Block block = this_block();
  block.for_each_thread([&](int thread) {
    const int t = block.index() * block.threads() + thread;
    if (t < n) ++values[t];
  });
}

// The same name with another function type.
__global__ void add_float_kernel(float* values, int n) {
  const Block block = this_block();
  block.for_each_thread([&](int thread) {
    const int t = block.index() * block.threads() + thread;
    if (t < n) values[t] += 1.0F;
  });
}

struct Seen {
  int calls = 0;
  TunedLaunch launch{};
};

class Tuned : public HostCudaTest {
 protected:
  void SetUp() override {
    HostCudaTest::SetUp();
    register_tuned_kernel<decltype(add_one_kernel)>(kName,
                                                    [this](const TunedLaunch& launch, int* values, int n) {
                                                      ++seen_.calls;
                                                      seen_.launch = launch;
                                                      for (int i = 0; i < n; ++i) ++values[i];
                                                    });
  }

  cudaError_t launch(int* values, int n, cudaStream_t stream) {
    return launch_kernel(kName, add_one_kernel, 2, 64, 32, stream, values, n);
  }

  static constexpr const char* kName = "tuned_test_add_kernel";
  Seen seen_;
};

TEST_F(Tuned, FormStandsInForTheWholeLaunch) {
  set_worker_count(3);
  const DeviceArray<int> values(std::vector<int>(100, 5));
  const TestStream stream;
  ASSERT_EQ(launch(values.data(), 100, stream), cudaSuccess);
  ASSERT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
  EXPECT_EQ(values.on_host(), std::vector<int>(100, 6));
  EXPECT_EQ(seen_.calls, 1);
  EXPECT_EQ(seen_.launch.grid, 2U);
  EXPECT_EQ(seen_.launch.block, 64U);
  EXPECT_EQ(seen_.launch.shared_bytes, 32U);
  EXPECT_EQ(seen_.launch.threads_allowed, 3);
  EXPECT_EQ(counters().launches_of(kName), 1);
}

TEST_F(Tuned, FormOnALeastPriorityStreamGetsOneCore) {
  set_worker_count(3);
  const DeviceArray<int> values(std::vector<int>(100, 5));
  cudaStream_t stream = nullptr;
  ASSERT_EQ(cudaStreamCreateWithPriority(&stream, cudaStreamNonBlocking, 0), cudaSuccess);
  ASSERT_EQ(launch(values.data(), 100, stream), cudaSuccess);
  ASSERT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
  EXPECT_EQ(seen_.launch.threads_allowed, 1);
  ASSERT_EQ(cudaStreamDestroy(stream), cudaSuccess);
}

TEST_F(Tuned, FormsCanBeTurnedOff) {
  set_tuned_kernels(false);
  EXPECT_FALSE(tuned_kernels());
  const DeviceArray<int> values(std::vector<int>(100, 5));
  const TestStream stream;
  ASSERT_EQ(launch(values.data(), 100, stream), cudaSuccess);
  ASSERT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
  EXPECT_EQ(seen_.calls, 0);
  EXPECT_EQ(values.on_host(), std::vector<int>(100, 6));
}

TEST_F(Tuned, FormsGiveWayToAnotherOrderOfThreads) {
  for (const ThreadOrder order : {ThreadOrder::kReverse, ThreadOrder::kShuffled}) {
    set_thread_order(order);
    const DeviceArray<int> values(std::vector<int>(100, 5));
    const TestStream stream;
    ASSERT_EQ(launch(values.data(), 100, stream), cudaSuccess);
    ASSERT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
    EXPECT_EQ(values.on_host(), std::vector<int>(100, 6));
  }
  EXPECT_EQ(seen_.calls, 0);
}

TEST_F(Tuned, FormIsFoundByNameAndFunctionType) {
  const DeviceArray<float> values(std::vector<float>(100, 5.0F));
  const DeviceArray<int> others(std::vector<int>(100, 5));
  const TestStream stream;
  ASSERT_EQ(launch_kernel(kName, add_float_kernel, 2, 64, 0, stream, values.data(), 100), cudaSuccess);
  ASSERT_EQ(launch_kernel("another_name", add_one_kernel, 2, 64, 0, stream, others.data(), 100), cudaSuccess);
  ASSERT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
  EXPECT_EQ(seen_.calls, 0);
  EXPECT_EQ(values.on_host(), std::vector<float>(100, 6.0F));
  EXPECT_EQ(others.on_host(), std::vector<int>(100, 6));
}

TEST_F(Tuned, ChecksOfALaunchHoldForFormsToo) {
  const TestStream stream;
  int local = 0;
  fail_call(kName, 1, cudaErrorLaunchFailure);
  const DeviceArray<int> values(std::vector<int>(100, 5));
  EXPECT_EQ(launch(values.data(), 100, stream), cudaErrorLaunchFailure);
  EXPECT_EQ(launch(&local, 1, stream), cudaErrorIllegalAddress);
  EXPECT_EQ(seen_.calls, 0);
}

}  // namespace
}  // namespace host_cuda_test
