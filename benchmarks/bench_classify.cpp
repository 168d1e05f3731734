// Milliseconds from a batch of network inputs on the device to responses and projected samples on the host:
//   bench_classify MODEL [flags of Google Benchmark]
// MODEL is an ONNX trunk with a dynamic batch. Three samples, a projection to 64 channels, a 4 x 4 filter.
// Counters: milliseconds of network with classifier and of the two downloads; heap and device allocations per
// call.

#include <bench_device.h>
#include <benchmark/benchmark.h>

#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "support/heap_counter.h"
#include "tracking_runtime/tracker/atom/gpu/trt_classify.h"
#include "tracking_runtime/tracker/atom/gpu/trt_worker_set.h"

namespace {

namespace atom = ostrel_tracker::tracking_runtime::tracker::atom;

constexpr int kSearchSize = 192;
constexpr int kScales = 3;
constexpr int kProjectedChannels = 64;
constexpr int kFilterSide = 4;

std::string model_path;

struct Setting {
  std::unique_ptr<atom::TrtBackbone> trt;
  std::vector<std::unique_ptr<atom::TrtBackbone>> trt_workers;
  std::mutex state_mutex;
  atom::ClassifierState weights;
  atom::ClassifyScratch scratch;
  std::vector<cv::Mat> responses;
  std::vector<atom::FeatureMap> features;
  atom::GpuTrackTimings timings;
  std::string error;

  bool start() {
    if (!atom::make_trt_workers({model_path, kSearchSize, kScales}, &trt, &trt_workers, &error)) return false;
    const int channels = trt->feature_tensor().channels;
    weights.proj_in_channels = channels;
    weights.proj_out_channels = kProjectedChannels;
    weights.projection_matrix.assign(static_cast<std::size_t>(channels * kProjectedChannels), 0.01F);
    weights.projection_version = 1;
    weights.filter_channels = kProjectedChannels;
    weights.filter_height = weights.filter_width = kFilterSide;
    weights.filter_weights.assign(kProjectedChannels * kFilterSide * kFilterSide, 0.01F);
    weights.filter_version = 1;
    return true;
  }
  atom::GuardedClassifier classifier() { return {state_mutex, weights, true}; }
  atom::ClassifyOutputs outputs() { return {&responses, &features, &timings}; }
};

void run(benchmark::State& state, Setting& setting, bool (*classify)(Setting&)) {
  if (!classify(setting)) return state.SkipWithError(setting.error.c_str());
  const long heap_before = ostrel_test::heap_allocations();
  const ostrel_bench::DeviceAllocations device_allocations;
  double network_ms = 0.0;
  double download_ms = 0.0;
  for (auto _ : state) {
    if (!classify(setting)) return state.SkipWithError(setting.error.c_str());
    network_ms += static_cast<double>(setting.timings.trt_wait_ms);
    download_ms += static_cast<double>(setting.timings.d2h_response_ms);
  }
  const auto calls = static_cast<double>(state.iterations());
  state.counters["network_ms"] = network_ms / calls;
  state.counters["d2h_response_ms"] = download_ms / calls;
  state.counters["heap"] = static_cast<double>(ostrel_test::heap_allocations() - heap_before) / calls;
  state.counters["device_heap"] = device_allocations.count();
}

void classify_tensor_batch(benchmark::State& state) {
  static atom::DeviceBuffer<float> memory;
  Setting setting;
  if (!setting.start()) return state.SkipWithError(setting.error.c_str());
  const std::size_t values = atom::element_count({kScales, 3, kSearchSize, kSearchSize});
  const std::vector<float> grey(values, 127.0F);
  if (memory.ensure(values) != cudaSuccess ||
      cudaMemcpy(memory.get(), grey.data(), values * sizeof(float), cudaMemcpyHostToDevice) != cudaSuccess) {
    return state.SkipWithError("no device memory");
  }
  run(state, setting, [](Setting& warm) {
    const atom::TrtInputBatch batch{memory.get(), kScales, 3, kSearchSize, kSearchSize, 0, 0, nullptr};
    return atom::classify_tensor_batch(warm.trt.get(), batch, warm.classifier(), &warm.scratch,
                                       warm.outputs(), &warm.error);
  });
}

void classify_patches(benchmark::State& state) {
  Setting setting;
  if (!setting.start()) return state.SkipWithError(setting.error.c_str());
  run(state, setting, [](Setting& warm) {
    static const std::vector<cv::Mat> patches(
        kScales, cv::Mat(kSearchSize, kSearchSize, CV_8UC3, cv::Scalar::all(127)));
    return atom::classify_patches(warm.trt, warm.trt_workers, patches, warm.classifier(), &warm.scratch,
                                  warm.outputs(), &warm.error);
  });
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (argc != 2) {
    std::fprintf(stderr, "usage: bench_classify MODEL\n");
    return 2;
  }
  model_path = argv[1];
  benchmark::RegisterBenchmark("classify_tensor_batch", classify_tensor_batch)
      ->Unit(benchmark::kMillisecond)
      ->UseRealTime();
  benchmark::RegisterBenchmark("classify_patches", classify_patches)
      ->Unit(benchmark::kMillisecond)
      ->UseRealTime();
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
