// Frames per second of several plug-in objects in one process, and the device memory that each takes:
//   bench_channels MODEL [flags of Google Benchmark]
// MODEL is an ONNX trunk with input 192 x 192, loaded once and shared by all. Each object is driven by a thread of its
// own, as a host drives its cameras, but without a pause between frames, with the default settings, on one picture in
// device memory that all share. Every object tracks as many frames as the others; `Time` is the clock's mean, shared
// out among the frames of all. Counters:
//   frames_per_second   frames of all objects over the time until the slowest of them was through
//   first_device_MiB    memory that the first object took, with the engine and what the libraries keep for themselves
//   further_device_MiB  memory that each further object took, with what frames at the same time need
// Memory is what the device lacks afterwards, whoever took it: nothing else may use a GPU meanwhile.

#include <benchmark/benchmark.h>
#include <cuda_runtime.h>
#include <device_memory_in_use.h>
#include <optrix/optrix_picture.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "bench_scene.h"
#include "ostrel_plugin/src/ostrel_algo.h"

namespace {

using PicturePtr = std::shared_ptr<optrix::OptrixPicture>;

// Frames until buffers that grow have grown and a training has run.
constexpr int kFramesBefore = 20;
constexpr auto kLongestStart = std::chrono::seconds(120);

std::string model_path;

// At once: objects may live whose trainings still run, so nothing is torn down.
[[noreturn]] void end(const std::string& why) {
  std::fprintf(stderr, "bench_channels: %s\n", why.c_str());
  std::_Exit(2);
}

PicturePtr picture() {
  static const PicturePtr uploaded = [] {
    const cv::Mat image = ostrel_bench::scene();
    return optrix::OptrixPicture::fromBgr({image.data, image.cols, image.rows, image.step});
  }();
  return uploaded;
}

// A plug-in object that tracks.
class Channel {
 public:
  Channel() {
    algo_.setConfig(nlohmann::json{{"engine", {{"tracker_engine_path", model_path}}}}.dump());
    const BBox target{ostrel_bench::kTarget_px.x, ostrel_bench::kTarget_px.y, ostrel_bench::kTarget_px.width,
                      ostrel_bench::kTarget_px.height};
    bool ok = false;
    algo_.init({picture()}, target, &ok);
    if (!ok) end("init was refused");
    wait_until_ready();
    for (int i = 0; i < kFramesBefore; ++i) track();
    if (!has_target()) end("no target: " + algo_.property(""));
  }

  void track() {
    bool ok = false;
    benchmark::DoNotOptimize(algo_.update({picture()}, &ok));
  }

  bool has_target() { return property("runtime_status") == "track_ok"; }

 private:
  std::string property(const char* name) {
    return nlohmann::json::parse(algo_.property("")).at(name).get<std::string>();
  }
  void wait_until_ready() {
    const auto give_up = std::chrono::steady_clock::now() + kLongestStart;
    for (track(); property("init_phase") == "warming_up"; track()) {
      if (std::chrono::steady_clock::now() > give_up) end("the start did not end");
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    if (property("init_phase") != "ready") end("no start: " + algo_.property(""));
  }

  OstrelAlgo algo_;
};

// The objects of every run so far; a larger run adds to them.
struct Channels {
  std::vector<std::unique_ptr<Channel>> all;
  std::int64_t before_bytes = 0;  // in use with the picture alone
  std::int64_t first_bytes = 0;   // and with the first object

  void have(std::size_t count) {
    if (all.empty()) {
      picture();  // the device is up and the picture is there
      before_bytes = ostrel_test::device_memory_in_use_bytes();
      all.push_back(std::make_unique<Channel>());
      first_bytes = ostrel_test::device_memory_in_use_bytes();
    }
    while (all.size() < count) all.push_back(std::make_unique<Channel>());
  }
  double first_mib() const { return mib(first_bytes - before_bytes); }
  // After a run, since the picture library makes buffers for as many frames as are under way at once.
  double further_mib() const {
    const std::int64_t bytes = ostrel_test::device_memory_in_use_bytes() - first_bytes;
    return mib(bytes) / static_cast<double>(all.size() - 1);
  }

 private:
  static double mib(std::int64_t bytes) { return static_cast<double>(bytes) / (1 << 20); }
};

Channels& channels() {
  static Channels every_one;
  return every_one;
}

void start_channels(const benchmark::State& state) {
  channels().have(static_cast<std::size_t>(state.threads()));
}

void BM_Channels(benchmark::State& state) {
  Channel& channel = *channels().all[static_cast<std::size_t>(state.thread_index())];
  const auto begin = std::chrono::steady_clock::now();
  for (auto _ : state) channel.track();
  // The threads begin the loop together, and none leaves it before the last has come to its end.
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - begin;
  if (!channel.has_target())
    state.SkipWithError("the target was lost: other work than tracking was measured");
  if (state.thread_index() != 0) return;  // counters of the threads are added up
  const auto frames = static_cast<double>(state.iterations()) * state.threads();
  state.counters["frames_per_second"] = frames / seconds.count();
  state.counters["first_device_MiB"] = channels().first_mib();
  if (channels().all.size() > 1) state.counters["further_device_MiB"] = channels().further_mib();
}

BENCHMARK(BM_Channels)
    ->Setup(start_channels)
    ->Threads(1)
    ->Threads(4)
    ->Threads(16)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MinTime(3.0);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (argc != 2) {
    std::fprintf(stderr, "usage: bench_channels MODEL [flags of Google Benchmark]\n");
    return 2;
  }
  model_path = argv[1];
  benchmark::RunSpecifiedBenchmarks();
  channels().all.clear();  // while the device's own objects live
  return 0;
}
