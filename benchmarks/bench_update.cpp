// Milliseconds of the whole frame call on a picture in device memory, and of a start:
//   bench_update MODEL [flags of Google Benchmark]
// MODEL is an ONNX trunk with input 192 x 192. The default settings, three scales; the periodic timing line on
// standard error tells the share of each stage. Counters: heap and device allocations per frame.

#include <benchmark/benchmark.h>
#include <cuda_runtime.h>
#include <optrix/optrix_picture.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <string>

#include "bench_device.h"
#include "ostrel_plugin/src/ostrel_config.h"
#include "ostrel_plugin/src/tracker_runtime_config.h"
#include "support/heap_counter.h"
#include "tracking_runtime/tracker/atom/atom.h"

namespace {

namespace atom = ostrel_tracker::tracking_runtime::tracker::atom;

constexpr int kWidth = 1280;
constexpr int kHeight = 720;
const cv::Rect_<int> kTarget{600, 320, 64, 48};
constexpr int kNever = 1 << 30;

std::string model_path;

cv::Mat scene() {
  cv::Mat image(kHeight, kWidth, CV_8UC3);
  cv::RNG random(7);
  random.fill(image, cv::RNG::UNIFORM, 0, 256);
  cv::GaussianBlur(image, image, {0, 0}, 3.0);
  cv::Mat target = image(kTarget);
  random.fill(target, cv::RNG::UNIFORM, 0, 256);
  cv::GaussianBlur(target, target, {0, 0}, 2.0);
  target.convertTo(target, -1, 2.0, -60.0);
  return image;
}

atom::NativeCppBackend::Config settings(int frames_between_learning) {
  OstrelConfig config;
  atom::NativeCppBackend::Config tracker = ostrel_algo_internal::buildTrackerRuntimeConfig(config);
  tracker.trt_engine_path = model_path;
  tracker.frames_between_learning = frames_between_learning;
  return tracker;
}

std::unique_ptr<atom::ATOM> started(const cv::Mat& image, int frames_between_learning) {
  auto tracker = std::make_unique<atom::ATOM>(settings(frames_between_learning));
  const auto result =
      tracker->initialize(image, {static_cast<float>(kTarget.x), static_cast<float>(kTarget.y),
                                  static_cast<float>(kTarget.width), static_cast<float>(kTarget.height)});
  if (result.ok) return tracker;
  std::fprintf(stderr, "%s\n", result.message.c_str());
  std::exit(2);
}

void frame_call(benchmark::State& state, int frames_between_learning) {
  const cv::Mat image = scene();
  const auto picture = optrix::OptrixPicture::fromBgr({image.data, image.cols, image.rows, image.step});
  const auto tracker = started(image, frames_between_learning);
  for (int i = 0; i < 10; ++i) tracker->trackViewWithOffset(picture, 1.0F, 1.0F, kWidth, kHeight, 0, 0);
  const ostrel_bench::DeviceAllocations device_allocations;
  const long heap_before = ostrel_test::heap_allocations();
  for (auto _ : state) {
    benchmark::DoNotOptimize(tracker->trackViewWithOffset(picture, 1.0F, 1.0F, kWidth, kHeight, 0, 0));
  }
  const auto frames = static_cast<double>(state.iterations());
  state.counters["heap_per_frame"] =
      static_cast<double>(ostrel_test::heap_allocations() - heap_before) / frames;
  state.counters["device_per_frame"] = device_allocations.count() / frames;
}

void BM_FrameCallWhileNoTrainingRuns(benchmark::State& state) {
  frame_call(state, kNever);
}
void BM_FrameCallWithDefaultTraining(benchmark::State& state) {
  frame_call(state, settings(0).frames_between_learning);
}

void BM_Start(benchmark::State& state) {
  const cv::Mat image = scene();
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
