#include <cublas_v2.h>
#include <cuda_launch.h>

#include "platform/host_cuda/host_cuda_test.h"
#include "support/heap_counter.h"

namespace host_cuda_test {
namespace {

using ostrel::launch::Block;
using ostrel::launch::launch_kernel;
using ostrel::launch::this_block;

__global__ void copy_through_shared_kernel(const float* source, float* target) {
  const Block block = this_block();
  float* staged = block.dynamic_shared<float>();
  const int first = block.index() * block.threads();
  block.for_each_thread([&](int thread) { staged[thread] = source[first + thread]; });
  block.for_each_thread([&](int thread) { target[first + thread] = staged[thread]; });
}

// One round of what a frame does, with two sizes of shared memory.
class Round {
 public:
  void run() {
    float back[4] = {};
    EXPECT_EQ(cudaEventRecord(start_, stream_), cudaSuccess);
    EXPECT_EQ(cudaMemcpyAsync(source_.data(), back, sizeof(back), cudaMemcpyHostToDevice, stream_),
              cudaSuccess);
    EXPECT_EQ(cudaMemsetAsync(source_.data(), 0, 64, stream_), cudaSuccess);
    launch(64);
    launch(32);
    EXPECT_EQ(cudaStreamWaitEvent(other_, start_, 0), cudaSuccess);
    EXPECT_EQ(enqueue(other_, "network", [values = Large()] { (void)values; }), cudaSuccess);
    EXPECT_EQ(cudaEventRecord(stop_, other_), cudaSuccess);
    EXPECT_EQ(cudaMemcpyAsync(back, target_.data(), sizeof(back), cudaMemcpyDeviceToHost, stream_),
              cudaSuccess);
    EXPECT_EQ(cudaStreamSynchronize(stream_), cudaSuccess);
    float ms = 0.0F;
    EXPECT_EQ(cudaEventElapsedTime(&ms, start_, stop_), cudaSuccess);
  }

 private:
  void launch(unsigned block) {
    EXPECT_EQ(launch_kernel("copy_through_shared_kernel", copy_through_shared_kernel, 256 / block, block,
                            block * sizeof(float), stream_, source_.data(), target_.data()),
              cudaSuccess);
  }

  struct Large {
    char bytes[200];
  };
  TestStream stream_;
  TestStream other_;
  TestEvent start_;
  TestEvent stop_;
  DeviceArray<float> source_{256};
  DeviceArray<float> target_{256};
};

using SteadyRun = HostCudaTest;

TEST_F(SteadyRun, AllocatesNothingOnTheHeapWithEagerStreams) {
  ASSERT_TRUE(set_stream_mode(StreamMode::kEager));
  set_worker_count(1);  // a pool thread that joins late would bring its own shared memory late
  Round round;
  const long at_start = ostrel_test::heap_allocations();
  round.run();
  EXPECT_GT(ostrel_test::heap_allocations(), at_start) << "the first round makes what later ones use again";
  reset_counters();
  const long before = ostrel_test::heap_allocations();
  for (int i = 0; i < 10; ++i) round.run();
  EXPECT_EQ(ostrel_test::heap_allocations(), before);
  EXPECT_EQ(counters().calls_of("cudaMalloc"), 0);
}

}  // namespace
}  // namespace host_cuda_test
