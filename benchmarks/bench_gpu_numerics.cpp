// Milliseconds of the numerics: a filter training, projection with classification, the image preprocess and the
// joint optimiser's operators, on fixed random input. The training's stream has the least priority, so that it takes
// one core on the host; `plain` runs the kernels without their tuned host forms.

#include <bench_device.h>
#include <benchmark/benchmark.h>
#include <cuda_runtime.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "tracking_runtime/tracker/atom/gpu/cuda_filter_trainer.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_handles.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_image_preprocess.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_joint_optimizer_ops.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_projection_classifier.h"

namespace {

namespace atom = ostrel_tracker::tracking_runtime::tracker::atom;

constexpr int kSide = 12;
constexpr int kFilterSide = 4;

std::vector<float> random_values(int count, std::uint32_t seed, float size) {
  std::mt19937 generator(seed);
  std::uniform_real_distribution<float> distribution(-size, size);
  std::vector<float> values(static_cast<std::size_t>(count));
  for (float& value : values) value = distribution(generator);
  return values;
}

/// A device array of random values, with a word for the benchmark when there is no memory.
atom::DeviceBuffer<float> device_values(benchmark::State& state, int count, std::uint32_t seed) {
  atom::DeviceBuffer<float> buffer;
  const std::vector<float> values = random_values(count, seed, 1.0F);
  if (buffer.ensure(values.size()) != cudaSuccess ||
      cudaMemcpy(buffer.get(), values.data(), buffer.bytes(), cudaMemcpyHostToDevice) != cudaSuccess) {
    state.SkipWithError("no device memory");
  }
  return buffer;
}

atom::CudaStream make_stream(benchmark::State& state) {
  atom::CudaStream stream;
  if (stream.create_with_flags(cudaStreamNonBlocking) != cudaSuccess) state.SkipWithError("no stream");
  return stream;
}

/// Arguments: samples, channels, iterations, tuned forms on.
void filter_training(benchmark::State& state) {
  const int samples = static_cast<int>(state.range(0)), channels = static_cast<int>(state.range(1));
  ostrel_bench::set_tuned_kernels(state.range(3) != 0);
  const auto features = random_values(samples * channels * kSide * kSide, 1, 0.3F);
  const auto labels = random_values(samples * kSide * kSide, 2, 0.5F);
  const auto filter = random_values(channels * kFilterSide * kFilterSide, 3, 0.01F);
  const std::vector<float> weights(static_cast<std::size_t>(samples), 1.0F / static_cast<float>(samples));
  atom::CudaFilterTrainer trainer;
  std::vector<float> out;
  std::string error;
  for (auto _ : state) {
    if (!trainer.optimize_filter(features, labels, weights, samples, channels, kSide, kSide, filter,
                                 kFilterSide, kFilterSide, 0.1F, static_cast<int>(state.range(2)), &out,
                                 &error)) {
      state.SkipWithError(error.c_str());
    }
  }
  ostrel_bench::set_tuned_kernels(true);
}
BENCHMARK(filter_training)
    ->ArgNames({"samples", "channels", "iterations", "tuned"})
    ->Args({10, 256, 45, 1})
    ->Args({10, 64, 45, 1})
    ->Args({10, 256, 5, 1})
    ->Args({10, 256, 5, 0})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

/// Arguments: samples, channels before and after the projection, tuned forms on.
void projection_and_classification(benchmark::State& state) {
  const int batch = static_cast<int>(state.range(0));
  const int in_channels = static_cast<int>(state.range(1)), out_channels = static_cast<int>(state.range(2));
  ostrel_bench::set_tuned_kernels(state.range(3) != 0);
  const auto features = device_values(state, batch * in_channels * kSide * kSide, 4);
  const atom::CudaStream stream = make_stream(state);
  atom::CudaProjectionClassifier classifier;
  std::vector<float> responses;
  std::string error;
  if (!classifier.ensure_capacity(batch, in_channels, out_channels, kSide, kSide, kFilterSide, kFilterSide,
                                  &error) ||
      !classifier.upload_weights(random_values(in_channels * out_channels, 5, 0.1F), true, in_channels,
                                 out_channels,
                                 random_values(out_channels * kFilterSide * kFilterSide, 6, 0.1F),
                                 kFilterSide, kFilterSide, &error)) {
    state.SkipWithError(error.c_str());
  }
  for (auto _ : state) {
    if (!classifier.project_and_classify(features.get(), batch, stream.get(), &error) ||
        !classifier.download_responses(batch, &responses, stream.get(), &error)) {
      state.SkipWithError(error.c_str());
    }
  }
  ostrel_bench::set_tuned_kernels(true);
}
BENCHMARK(projection_and_classification)
    ->ArgNames({"samples", "in", "out", "tuned"})
    ->Args({3, 256, 64, 1})
    ->Args({3, 256, 256, 1})
    ->Args({3, 256, 64, 0})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

/// Arguments: samples, tuned forms on.
void back_propagation(benchmark::State& state) {
  const int samples = static_cast<int>(state.range(0)), channels = 64;
  ostrel_bench::set_tuned_kernels(state.range(1) != 0);
  const auto gradient = device_values(state, samples * kSide * kSide, 7);
  const auto filter = device_values(state, channels * kFilterSide * kFilterSide, 8);
  const auto out = device_values(state, samples * channels * kSide * kSide, 9);
  const atom::CudaStream stream = make_stream(state);
  std::string error;
  for (auto _ : state) {
    if (!atom::detail::launch_backprop_to_projected_feature(gradient.get(), filter.get(), out.get(), samples,
                                                            channels, kSide, kSide, kFilterSide, kFilterSide,
                                                            stream.get(), &error) ||
        cudaStreamSynchronize(stream.get()) != cudaSuccess) {
      state.SkipWithError(error.c_str());
    }
  }
  ostrel_bench::set_tuned_kernels(true);
}
BENCHMARK(back_propagation)
    ->ArgNames({"samples", "tuned"})
    ->Args({9, 1})
    ->Args({9, 0})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

/// Argument: samples of 192 x 192.
void image_preprocess(benchmark::State& state) {
  const int batch = static_cast<int>(state.range(0));
  constexpr int kInput = 192;
  constexpr std::size_t kRowPitch = 3 * kInput;
  atom::DeviceBuffer<std::uint8_t> source;
  if (source.ensure(static_cast<std::size_t>(batch) * kRowPitch * kInput) != cudaSuccess) {
    state.SkipWithError("no device memory");
  }
  const auto target = device_values(state, batch * 3 * kInput * kInput, 10);
  const atom::CudaStream stream = make_stream(state);
  std::string error;
  for (auto _ : state) {
    if (!atom::launch_bgr8_to_rgb_planar_float(source.get(), kRowPitch * kInput, kRowPitch, target.get(),
                                               batch, kInput, kInput, stream.get(), &error) ||
        cudaStreamSynchronize(stream.get()) != cudaSuccess) {
      state.SkipWithError(error.c_str());
    }
  }
}
BENCHMARK(image_preprocess)->ArgName("samples")->Arg(3)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
