// Milliseconds of the whole frame call on a picture in device memory, and of a start:
//   bench_update MODEL [flags of Google Benchmark]
// MODEL is an ONNX trunk with input 192 x 192. The default settings, three scales; the periodic timing line on
// standard error tells the share of each stage. Counters: the median and the 99th percentile of the calls, heap and device
// allocations per frame.

#include <benchmark/benchmark.h>
#include <cuda_runtime.h>
#include <optrix/optrix_picture.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "bench_device.h"
#include "bench_scene.h"
#include "ostrel_plugin/src/ostrel_config.h"
#include "ostrel_plugin/src/tracker_runtime_config.h"
#include "support/heap_counter.h"
#include "tracking_runtime/tracker/atom/atom.h"

namespace {

namespace atom = ostrel_tracker::tracking_runtime::tracker::atom;

using ostrel_bench::kHeight_px;
using ostrel_bench::kTarget_px;
using ostrel_bench::kWidth_px;
using Clock = std::chrono::steady_clock;
constexpr int kNever = 1 << 30;

std::string model_path;

atom::NativeCppBackend::Config settings(int frames_between_learning) {
  OstrelConfig config;
  atom::NativeCppBackend::Config tracker = ostrel_algo_internal::buildTrackerRuntimeConfig(config);
  tracker.trt_engine_path = model_path;
  tracker.frames_between_learning = frames_between_learning;
  return tracker;
}

std::unique_ptr<atom::ATOM> started(const cv::Mat& image, int frames_between_learning) {
  auto tracker = std::make_unique<atom::ATOM>(settings(frames_between_learning));
  const auto result = tracker->initialize(
      image, {static_cast<float>(kTarget_px.x), static_cast<float>(kTarget_px.y),
              static_cast<float>(kTarget_px.width), static_cast<float>(kTarget_px.height)});
  if (result.ok) return tracker;
  std::fprintf(stderr, "%s\n", result.message.c_str());
  std::exit(2);
}

/// The value below which a share of the calls lies; the calls are left in another order.
double percentile(std::vector<double>& calls_ms, double share) {
  if (calls_ms.empty()) return 0.0;
  const auto rank = static_cast<std::ptrdiff_t>(share * static_cast<double>(calls_ms.size() - 1));
  std::nth_element(calls_ms.begin(), calls_ms.begin() + rank, calls_ms.end());
  return calls_ms[static_cast<std::size_t>(rank)];
}

void frame_call(benchmark::State& state, int frames_between_learning) {
  const cv::Mat image = ostrel_bench::scene();
  const auto picture = optrix::OptrixPicture::fromBgr({image.data, image.cols, image.rows, image.step});
  const auto tracker = started(image, frames_between_learning);
  for (int i = 0; i < 10; ++i) tracker->trackViewWithOffset(picture, 1.0F, 1.0F, kWidth_px, kHeight_px, 0, 0);
  std::vector<double> calls_ms;
  calls_ms.reserve(static_cast<std::size_t>(state.max_iterations));
  const ostrel_bench::DeviceAllocations device_allocations;
  const long heap_before = ostrel_test::heap_allocations();
  for (auto _ : state) {
    const auto begin = Clock::now();
    benchmark::DoNotOptimize(tracker->trackViewWithOffset(picture, 1.0F, 1.0F, kWidth_px, kHeight_px, 0, 0));
    calls_ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - begin).count());
  }
  const auto frames = static_cast<double>(state.iterations());
  state.counters["heap_per_frame"] =
      static_cast<double>(ostrel_test::heap_allocations() - heap_before) / frames;
  state.counters["device_per_frame"] = device_allocations.count() / frames;
  state.counters["p50_ms"] = percentile(calls_ms, 0.50);
  state.counters["p99_ms"] = percentile(calls_ms, 0.99);
}

void BM_FrameCallWhileNoTrainingRuns(benchmark::State& state) {
  frame_call(state, kNever);
}
void BM_FrameCallWithDefaultTraining(benchmark::State& state) {
  frame_call(state, settings(0).frames_between_learning);
}

void BM_Start(benchmark::State& state) {
  const cv::Mat image = ostrel_bench::scene();
  for (auto _ : state) benchmark::DoNotOptimize(started(image, kNever));
}

BENCHMARK(BM_FrameCallWhileNoTrainingRuns)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(3.0);
BENCHMARK(BM_FrameCallWithDefaultTraining)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(3.0);
BENCHMARK(BM_Start)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (argc != 2) {
    std::fprintf(stderr, "usage: bench_update MODEL [flags of Google Benchmark]\n");
    return 2;
  }
  model_path = argv[1];
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
