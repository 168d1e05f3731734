#include <cuda_launch.h>
#include <nvtx3/nvToolsExt.h>

#include <string>
#include <thread>
#include <vector>

#include "platform/host_cuda/host_cuda_test.h"

namespace host_cuda_test {
namespace {

using ostrel::launch::launch_kernel;

using CounterRules = HostCudaTest;

__global__ void noop_kernel(int* /*value*/) {}

TEST_F(CounterRules, CountCallsByNameFailedOnesToo) {
  int device = -1;
  EXPECT_EQ(cudaGetDevice(&device), cudaSuccess);
  EXPECT_EQ(cudaGetDevice(nullptr), cudaErrorInvalidValue);
  EXPECT_EQ(counters().calls_of("cudaGetDevice"), 2);
  EXPECT_EQ(counters().calls_of("cudaSetDevice"), 0);
  reset_counters();
  EXPECT_EQ(counters().calls_of("cudaGetDevice"), 0);
  EXPECT_TRUE(counters().calls.empty());
}

TEST_F(CounterRules, CountSynchronisations) {
  const TestStream stream;
  const TestEvent event;
  ASSERT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
  ASSERT_EQ(cudaEventSynchronize(event), cudaSuccess);
  ASSERT_EQ(cudaDeviceSynchronize(), cudaSuccess);
  EXPECT_EQ(counters().synchronisations, 3);
  EXPECT_EQ(cudaStreamSynchronize(reinterpret_cast<cudaStream_t>(1)), cudaErrorInvalidResourceHandle);
  EXPECT_EQ(counters().synchronisations, 3) << "a refused call waits for nothing";
  reset_counters();
  EXPECT_EQ(counters().synchronisations, 0);
}

TEST_F(CounterRules, CountWorkOnTheNullStreamButNotTheBlockingCopy) {
  const DeviceArray<char> device(4);
  const TestEvent event;
  const char host[4] = {};
  EXPECT_EQ(cudaMemcpy(device.data(), host, 4, cudaMemcpyHostToDevice), cudaSuccess);
  EXPECT_EQ(counters().null_stream_work, 0);
  EXPECT_EQ(counters().blocking_copies, 1);
  EXPECT_EQ(cudaMemsetAsync(device.data(), 0, 4), cudaSuccess);
  EXPECT_EQ(counters().null_stream_work, 1);
  EXPECT_EQ(cudaMemcpyAsync(device.data(), host, 4, cudaMemcpyHostToDevice), cudaSuccess);
  EXPECT_EQ(counters().null_stream_work, 2);
  EXPECT_EQ(cudaMemcpy2DAsync(device.data(), 2, host, 2, 2, 2, cudaMemcpyHostToDevice), cudaSuccess);
  EXPECT_EQ(counters().null_stream_work, 3);
  EXPECT_EQ(cudaEventRecord(event), cudaSuccess);
  EXPECT_EQ(counters().null_stream_work, 4);
  EXPECT_EQ(cudaStreamWaitEvent(nullptr, event), cudaSuccess);
  EXPECT_EQ(counters().null_stream_work, 5);
  EXPECT_EQ(enqueue(nullptr, "other", [] {}), cudaSuccess);
  EXPECT_EQ(counters().null_stream_work, 6);
}

TEST_F(CounterRules, CountWorkOfOtherStandInsByName) {
  const TestStream stream;
  EXPECT_EQ(enqueue(stream, "network", [] {}), cudaSuccess);
  EXPECT_EQ(enqueue(stream, "network", [] {}), cudaSuccess);
  EXPECT_EQ(counters().enqueued.at("network"), 2);
  EXPECT_EQ(counters().null_stream_work, 0);
  EXPECT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
}

TEST_F(CounterRules, CountLiveStreamsAndEvents) {
  {
    const TestStream first;
    const TestStream second;
    const TestEvent event;
    reset_counters();
    EXPECT_EQ(counters().live_streams, 2);
    EXPECT_EQ(counters().live_events, 1);
  }
  EXPECT_EQ(counters().live_streams, 0);
  EXPECT_EQ(counters().live_events, 0);
}

TEST_F(CounterRules, TraceKeepsTheOrderOfCallsAndLaunches) {
  const DeviceArray<int> value(1);
  const TestStream stream;
  EXPECT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
  start_trace();
  EXPECT_EQ(cudaMemsetAsync(value.data(), 0, sizeof(int), stream), cudaSuccess);
  EXPECT_EQ(launch_kernel("noop_kernel", noop_kernel, 1, 1, 0, stream, value.data()), cudaSuccess);
  EXPECT_EQ(enqueue(stream, "network", [] {}), cudaSuccess);
  EXPECT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
  const std::vector<std::string> expected = {"cudaMemsetAsync", "noop_kernel", "network",
                                             "cudaStreamSynchronize"};
  EXPECT_EQ(stop_trace(), expected);
  EXPECT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
  EXPECT_TRUE(stop_trace().empty()) << "nothing is noted any more";
}

TEST_F(CounterRules, ProfilerRangesCountNothingAndAnswerAsWithoutAProfiler) {
  EXPECT_EQ(nvtxRangePushA("range"), NVTX_NO_PUSH_POP_TRACKING);
  EXPECT_EQ(nvtxRangePop(), NVTX_NO_PUSH_POP_TRACKING);
  EXPECT_TRUE(counters().calls.empty());
}

TEST_F(CounterRules, NotesProfilerRangesOfEveryThreadOnDemand) {
  nvtxRangePushA("before");
  start_range_notes();
  nvtxRangePop();
  nvtxRangePushA("here");
  std::thread::id other;
  std::thread([&other] {
    other = std::this_thread::get_id();
    nvtxRangePushA("there");
  }).join();
  nvtxRangePop();
  const std::vector<RangeNote> notes = stop_range_notes();
  nvtxRangePushA("after");
  nvtxRangePop();

  ASSERT_EQ(notes.size(), 4U);
  EXPECT_TRUE(notes[0].is_pop);
  EXPECT_EQ(notes[0].thread, std::this_thread::get_id());
  EXPECT_FALSE(notes[1].is_pop);
  EXPECT_EQ(notes[1].name, "here");
  EXPECT_EQ(notes[2].name, "there");
  EXPECT_EQ(notes[2].thread, other);
  EXPECT_TRUE(notes[3].is_pop);
  EXPECT_TRUE(stop_range_notes().empty()) << "handed out once";
}

TEST_F(CounterRules, DeviceQueriesKnowOneDevice) {
  int count = 0;
  int device = -1;
  EXPECT_EQ(cudaGetDeviceCount(&count), cudaSuccess);
  EXPECT_EQ(count, 1);
  EXPECT_EQ(cudaGetDeviceCount(nullptr), cudaErrorInvalidValue);
  EXPECT_EQ(cudaSetDevice(0), cudaSuccess);
  EXPECT_EQ(cudaSetDevice(1), cudaErrorInvalidDevice);
  EXPECT_EQ(cudaSetDevice(-1), cudaErrorInvalidDevice);
  EXPECT_EQ(cudaGetDevice(&device), cudaSuccess);
  EXPECT_EQ(device, 0);
}

}  // namespace
}  // namespace host_cuda_test
