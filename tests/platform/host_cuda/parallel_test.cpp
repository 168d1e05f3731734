#include <host_cuda/parallel.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "platform/host_cuda/host_cuda_test.h"

namespace host_cuda_test {
namespace {

using Parallel = HostCudaTest;

TEST_F(Parallel, CallsEachIndexOnce) {
  for (const int threads : {1, 2, 5}) {
    std::vector<std::atomic<int>> calls(997);
    parallel_for(997, threads, [&](int index) { ++calls[static_cast<std::size_t>(index)]; });
    EXPECT_TRUE(std::all_of(calls.begin(), calls.end(), [](const std::atomic<int>& n) { return n == 1; }))
        << threads;
  }
}

TEST_F(Parallel, OfNothingCallsNothing) {
  bool called = false;
  parallel_for(0, 4, [&](int) { called = true; });
  parallel_for(-3, 4, [&](int) { called = true; });
  EXPECT_FALSE(called);
}

TEST_F(Parallel, OneThreadIsTheCaller) {
  const std::thread::id here = std::this_thread::get_id();
  parallel_for(10, 1, [&](int) { EXPECT_EQ(std::this_thread::get_id(), here); });
}

TEST_F(Parallel, SpreadsOverAtMostTheThreadsAllowed) {
  std::mutex mutex;
  std::set<std::thread::id> seen;
  std::atomic<int> inside{0};
  std::atomic<int> most_inside{0};
  Rendezvous rendezvous(3);
  parallel_for(40, 3, [&](int index) {
    const int now = ++inside;
    int most = most_inside;
    while (now > most && !most_inside.compare_exchange_weak(most, now)) {
    }
    if (index < 3) {
      EXPECT_TRUE(rendezvous.meet());
    }
    {
      const std::lock_guard<std::mutex> lock(mutex);
      seen.insert(std::this_thread::get_id());
    }
    --inside;
  });
  EXPECT_EQ(seen.size(), 3U);
  EXPECT_EQ(most_inside, 3);
}

TEST_F(Parallel, MayBeNested) {
  std::atomic<int> sum{0};
  parallel_for(8, 3, [&](int) { parallel_for(8, 3, [&](int inner) { sum += inner; }); });
  EXPECT_EQ(sum, 8 * 28);
}

TEST_F(Parallel, ServesSeveralCallersAtOnce) {
  std::vector<int> sums(4, 0);
  std::vector<std::thread> callers;
  for (int& sum : sums) {
    callers.emplace_back([&sum] {
      for (int round = 0; round < 50; ++round) {
        std::atomic<int> total{0};
        parallel_for(16, 2, [&](int index) { total += index; });
        sum += total;
      }
    });
  }
  for (std::thread& caller : callers) caller.join();
  for (const int sum : sums) EXPECT_EQ(sum, 50 * 120);
}

TEST_F(Parallel, MakesTheBodysWritesVisibleToTheCaller) {
  std::vector<int> values(1000, 0);
  parallel_for(1000, 3, [&](int index) { values[static_cast<std::size_t>(index)] = index; });
  for (int i = 0; i < 1000; ++i) EXPECT_EQ(values[static_cast<std::size_t>(i)], i);
}

TEST_F(Parallel, WorkerCountIsAtLeastOne) {
  set_worker_count(0);
  EXPECT_EQ(worker_count(), 1);
  set_worker_count(7);
  EXPECT_EQ(worker_count(), 7);
}

}  // namespace
}  // namespace host_cuda_test
