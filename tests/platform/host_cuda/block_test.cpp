#include <cuda_launch.h>

#include <chrono>
#include <functional>
#include <set>
#include <thread>
#include <vector>

#include "platform/host_cuda/host_cuda_test.h"

namespace host_cuda_test {
namespace {

using ostrel::launch::Block;
using ostrel::launch::launch_kernel;
using ostrel::launch::this_block;

// The first `cores` blocks meet, which they can only do on as many threads.
struct Meeting {
  int cores;
  Rendezvous* rendezvous;
};

// Which thread of the machine ran each block, and which block came at which place.
__global__ void trace_blocks_kernel(std::size_t* ran_by, int* next_place, int* place, Meeting meeting) {
  const Block block = this_block();
  block.for_each_thread([&](int thread) {
    if (thread != 0) return;
    if (block.index() < meeting.cores) {
      EXPECT_TRUE(meeting.rendezvous->meet());
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));  // time for others to come in
    ran_by[block.index()] = std::hash<std::thread::id>()(std::this_thread::get_id());
    place[block.index()] = __atomic_fetch_add(next_place, 1, __ATOMIC_RELAXED);
  });
}

struct Trace {
  std::set<std::size_t> threads;
  std::vector<int> places;
};

class Blocks : public HostCudaTest {
 protected:
  static constexpr unsigned kGrid = 24;

  Trace trace(cudaStream_t stream, int cores) {
    Rendezvous rendezvous(cores);
    const DeviceArray<std::size_t> ran_by(kGrid);
    const DeviceArray<int> next_place(std::vector<int>{0});
    const DeviceArray<int> place(kGrid);
    EXPECT_EQ(launch_kernel("trace_blocks_kernel", trace_blocks_kernel, kGrid, 8, 0, stream, ran_by.data(),
                            next_place.data(), place.data(), Meeting{cores, &rendezvous}),
              cudaSuccess);
    EXPECT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
    const std::vector<std::size_t> ids = ran_by.on_host();
    return {std::set<std::size_t>(ids.begin(), ids.end()), place.on_host()};
  }

  std::vector<int> places_in(ThreadOrder order) {
    set_thread_order(order);
    set_worker_count(1);
    const TestStream stream;
    return trace(stream, 1).places;
  }
};

TEST_F(Blocks, SpreadOverTheCores) {
  const TestStream stream;
  for (const int cores : {1, 3}) {
    set_worker_count(cores);
    EXPECT_EQ(trace(stream, cores).threads.size(), static_cast<std::size_t>(cores));
  }
}

TEST_F(Blocks, OfALeastPriorityStreamUseOneCore) {
  set_worker_count(3);
  cudaStream_t stream = nullptr;
  ASSERT_EQ(cudaStreamCreateWithPriority(&stream, cudaStreamNonBlocking, 0), cudaSuccess);
  EXPECT_EQ(trace(stream, 1).threads.size(), 1U);
  ASSERT_EQ(cudaStreamDestroy(stream), cudaSuccess);
}

TEST_F(Blocks, RunInTheOrderOfTheTestMode) {
  std::vector<int> ascending(kGrid);
  for (std::size_t i = 0; i < kGrid; ++i) ascending[i] = static_cast<int>(i);
  const std::vector<int> descending(ascending.rbegin(), ascending.rend());
  EXPECT_EQ(places_in(ThreadOrder::kForward), ascending);
  EXPECT_EQ(places_in(ThreadOrder::kReverse), descending);
  const std::vector<int> shuffled = places_in(ThreadOrder::kShuffled);
  EXPECT_NE(shuffled, ascending);
  EXPECT_NE(shuffled, descending);
}

}  // namespace
}  // namespace host_cuda_test
