// The joint optimiser's operators and its whole fit, on fixed random input, against what this machine can do in
// the same run: a plain large product on the same cores, and a plain copy. `of_peak` is the share of that
// product's multiply-adds per second, `of_copy` the share of the copy's bytes per second; the operator's bytes
// are those of its arrays, once for each read and once for each write.

#include <bench_device.h>
#include <benchmark/benchmark.h>
#include <cublas_v2.h>
#include <cuda_runtime.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "tracking_runtime/tracker/atom/gpu/cublas_handle.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_handles.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_joint_optimizer.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_joint_optimizer_ops.h"

namespace {

namespace atom = ostrel_tracker::tracking_runtime::tracker::atom;
namespace ops = atom::detail;

constexpr int kFilterSide = 4;
constexpr int kTaps = kFilterSide * kFilterSide;

std::vector<float> random_values(std::size_t count, std::uint32_t seed, float low, float high) {
  std::mt19937 generator(seed);
  std::uniform_real_distribution<float> distribution(low, high);
  std::vector<float> values(count);
  for (float& value : values) value = distribution(generator);
  return values;
}

atom::DeviceBuffer<float> device_values(std::size_t count, std::uint32_t seed) {
  atom::DeviceBuffer<float> buffer;
  const std::vector<float> values = random_values(count, seed, -1.0F, 1.0F);
  if (buffer.ensure(count) != cudaSuccess ||
      cudaMemcpy(buffer.get(), values.data(), buffer.bytes(), cudaMemcpyHostToDevice) != cudaSuccess) {
    std::abort();
  }
  return buffer;
}

class Stopwatch {
 public:
  double seconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  }

 private:
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

double best_seconds(const std::function<void()>& work) {
  double best = 1e9;
  for (int round = 0; round < 25; ++round) {
    const Stopwatch watch;
    work();
    best = std::min(best, watch.seconds());
  }
  return best;
}

/// A stream with a cuBLAS handle on it.
struct Queue {
  atom::CudaStream stream;
  atom::CublasHandle cublas;

  Queue() {
    if (stream.create_with_flags(cudaStreamNonBlocking) != cudaSuccess ||
        cublas.create() != CUBLAS_STATUS_SUCCESS ||
        cublasSetStream(cublas.get(), stream.get()) != CUBLAS_STATUS_SUCCESS) {
      std::abort();
    }
  }
};

/// What this machine can do: multiply-adds per second of a product that fills every core, and bytes per second,
/// read and written, of a copy between large arrays.
struct Machine {
  double multiply_adds;
  double bytes;

  static const Machine& measured() {
    static const Machine machine = {measure_product(), measure_copy()};
    return machine;
  }

 private:
  static double measure_product() {
    constexpr int kSide = 512;
    const int batch = ostrel_bench::parallel_products();
    const auto matrix = static_cast<std::size_t>(kSide) * kSide;
    const auto a = device_values(matrix * static_cast<std::size_t>(batch), 1), b = device_values(matrix, 2);
    const auto c = device_values(matrix * static_cast<std::size_t>(batch), 3);
    const Queue queue;
    const float one = 1.0F, zero = 0.0F;
    const double seconds = best_seconds([&] {
      cublasSgemmStridedBatched(queue.cublas.get(), CUBLAS_OP_N, CUBLAS_OP_N, kSide, kSide, kSide, &one,
                                a.get(), kSide, static_cast<long long>(matrix), b.get(), kSide, 0, &zero,
                                c.get(), kSide, static_cast<long long>(matrix), batch);
      cudaStreamSynchronize(queue.stream.get());
    });
    return static_cast<double>(matrix) * kSide * batch / seconds;
  }
  static double measure_copy() {
    const std::vector<char> source(std::size_t{64} << 20U, 1);
    std::vector<char> target(source.size());
    const double seconds = best_seconds([&] {
      std::memcpy(target.data(), source.data(), source.size());
      benchmark::DoNotOptimize(target.data());
    });
    return 2.0 * static_cast<double>(source.size()) / seconds;
  }
};

/// The arrays of one operator: samples, channels before and after the projection, side of the map.
struct Operands {
  int samples, in_channels, out_channels, side;
  std::size_t positions, raw_size, projected_size, projection_size, filter_size;
  atom::DeviceBuffer<float> raw, projected, projected_work, projection, filter, filter_work, response,
      response_aux, batch;
  Queue queue;
  std::string error;

  explicit Operands(const benchmark::State& state)
      : samples(static_cast<int>(state.range(0))),
        in_channels(static_cast<int>(state.range(1))),
        out_channels(static_cast<int>(state.range(2))),
        side(static_cast<int>(state.range(3))),
        positions(atom::element_count({samples, side, side})),
        raw_size(atom::element_count({samples, in_channels, side, side})),
        projected_size(atom::element_count({samples, out_channels, side, side})),
        projection_size(atom::element_count({in_channels, out_channels})),
        filter_size(atom::element_count({out_channels, kTaps})),
        raw(device_values(raw_size, 1)),
        projected(device_values(projected_size, 2)),
        projected_work(device_values(projected_size, 3)),
        projection(device_values(projection_size, 4)),
        filter(device_values(filter_size, 5)),
        filter_work(device_values(filter_size, 6)),
        response(device_values(positions, 7)),
        response_aux(device_values(positions, 8)),
        batch(device_values(projection_size * static_cast<std::size_t>(samples), 9)) {}

  double projection_products() const {
    return static_cast<double>(raw_size) * static_cast<double>(out_channels);
  }
  double correlation_products() const { return static_cast<double>(projected_size) * kTaps; }
};

/// Runs an operator, and tells its multiply-adds, its bytes, and how they compare with the machine's.
template <typename Operator>
void measure(benchmark::State& state, Operands& o, double multiply_adds, std::size_t floats, Operator&& run) {
  const Stopwatch watch;
  for (auto _ : state) {
    if (!run() || cudaStreamSynchronize(o.queue.stream.get()) != cudaSuccess) {
      state.SkipWithError(o.error.c_str());
    }
  }
  const double seconds = watch.seconds() / static_cast<double>(state.iterations());
  const double bytes = static_cast<double>(floats) * sizeof(float);
  state.counters["madds"] = multiply_adds;
  state.counters["bytes"] = bytes;
  state.counters["of_peak"] = multiply_adds / seconds / Machine::measured().multiply_adds;
  state.counters["of_copy"] = bytes / seconds / Machine::measured().bytes;
}

void projection(benchmark::State& state) {
  Operands o(state);
  measure(state, o, o.projection_products(), o.raw_size + o.projection_size + o.projected_size, [&] {
    return ops::gemm_project_features(o.queue.cublas.get(), o.raw.get(), o.projection.get(),
                                      o.projected.get(), o.samples, o.in_channels, o.out_channels, o.side,
                                      o.side, &o.error);
  });
}

void projection_gradient(benchmark::State& state) {
  Operands o(state);
  const std::size_t batch = o.projection_size * static_cast<std::size_t>(o.samples);
  measure(state, o, o.projection_products(),
          o.raw_size + o.projected_size + 2 * batch + 2 * o.projection_size, [&] {
            return ops::gemm_accumulate_projection_gradient(
                o.queue.cublas.get(), o.queue.stream.get(), o.raw.get(), o.projected.get(), 1e-9F,
                o.batch.get(), o.projection.get(), o.samples, o.in_channels, o.out_channels, o.side, o.side,
                &o.error);
          });
}

void correlation(benchmark::State& state) {
  Operands o(state);
  measure(state, o, o.correlation_products(), o.projected_size + o.filter_size + o.positions, [&] {
    return ops::launch_classify_samples(o.projected.get(), o.filter.get(), o.response.get(), o.samples,
                                        o.out_channels, o.side, o.side, kFilterSide, kFilterSide,
                                        o.queue.stream.get(), &o.error);
  });
}

void correlation_pair(benchmark::State& state) {
  Operands o(state);
  measure(state, o, 2 * o.correlation_products(), 2 * (o.projected_size + o.filter_size + o.positions), [&] {
    return ops::launch_classify_sample_pair(o.projected.get(), o.filter.get(), o.response.get(),
                                            o.projected_work.get(), o.filter_work.get(), o.response_aux.get(),
                                            o.samples, o.out_channels, o.side, o.side, kFilterSide,
                                            kFilterSide, o.queue.stream.get(), &o.error);
  });
}

void filter_gradient(benchmark::State& state) {
  Operands o(state);
  measure(state, o, o.correlation_products(), o.projected_size + 2 * o.filter_size + o.positions, [&] {
    return ops::launch_accumulate_filter_gradient(o.projected.get(), o.response.get(), 1e-9F, o.filter.get(),
                                                  o.samples, o.out_channels, o.side, o.side, kFilterSide,
                                                  kFilterSide, o.queue.stream.get(), &o.error);
  });
}

void back_propagation(benchmark::State& state) {
  Operands o(state);
  measure(state, o, o.correlation_products(), o.projected_size + o.filter_size + o.positions, [&] {
    return ops::launch_backprop_to_projected_feature(o.response.get(), o.filter.get(), o.projected_work.get(),
                                                     o.samples, o.out_channels, o.side, o.side, kFilterSide,
                                                     kFilterSide, o.queue.stream.get(), &o.error);
  });
}

void dot_product(benchmark::State& state) {
  Operands o(state);
  atom::DeviceBuffer<double> out;
  if (out.ensure(1) != cudaSuccess) state.SkipWithError("no device memory");
  const int n = static_cast<int>(o.projection_size);
  measure(state, o, n, 2 * o.projection_size, [&] {
    return ops::launch_dot_product(o.projection.get(), o.batch.get(), n, out.get(), o.queue.stream.get(),
                                   &o.error);
  });
}

void operator_sizes(benchmark::internal::Benchmark* row) {
  row->ArgNames({"samples", "in", "out", "side"})
      ->Args({9, 256, 256, 12})
      ->Args({9, 512, 256, 12})
      ->Args({9, 128, 128, 24})
      ->Unit(benchmark::kMicrosecond)
      ->UseRealTime();
}
BENCHMARK(projection)->Apply(operator_sizes);
BENCHMARK(projection_gradient)->Apply(operator_sizes);
BENCHMARK(correlation)->Apply(operator_sizes);
BENCHMARK(correlation_pair)->Apply(operator_sizes);
BENCHMARK(filter_gradient)->Apply(operator_sizes);
BENCHMARK(back_propagation)->Apply(operator_sizes);
BENCHMARK(dot_product)->Apply(operator_sizes);

/// Arguments: samples, channels before and after the projection, side, Gauss-Newton steps, conjugate gradient
/// iterations of each. The fit's own lines on standard error tell its stages.
void joint_fit(benchmark::State& state) {
  const int samples = static_cast<int>(state.range(0)), in = static_cast<int>(state.range(1));
  const int out = static_cast<int>(state.range(2)), side = static_cast<int>(state.range(3));
  const int steps = static_cast<int>(state.range(4)), iterations = static_cast<int>(state.range(5));
  const auto size = [](std::initializer_list<int> sizes) { return atom::element_count(sizes); };
  const auto raw = random_values(size({samples, in, side, side}), 1, 0.0F, 0.6F);
  const auto labels = random_values(size({samples, side, side}), 2, 0.0F, 1.0F);
  const auto filter = random_values(size({out, kTaps}), 3, -0.01F, 0.01F);
  const auto matrix = random_values(size({out, in}), 4, -0.05F, 0.05F);
  atom::CudaJointOptimizer optimizer;
  std::vector<float> out_filter, out_projection;
  std::string error;
  if (!optimizer.ensure_capacity(samples, in, out, side, side, kFilterSide, kFilterSide, &error) ||
      !optimizer.preload_raw_feature_spans({{raw.data(), nullptr, 0, samples, nullptr}}, &error)) {
    state.SkipWithError(error.c_str());
  }
  const Stopwatch watch;
  for (auto _ : state) {
    if (!optimizer.optimize_preloaded_raw_features(labels, samples, filter, matrix, 3.0F, 1e-4F,
                                                   1.0F / static_cast<float>(samples), steps, iterations,
                                                   &out_filter, &out_projection, &error)) {
      state.SkipWithError(error.c_str());
    }
  }
  const double projection_products = static_cast<double>(raw.size()) * out;
  const double correlation_products = static_cast<double>(size({samples, out, side, side})) * kTaps;
  const double multiply_adds = steps * (2 * projection_products + 3 * correlation_products +
                                        iterations * (2 * projection_products + 4 * correlation_products));
  state.counters["madds"] = multiply_adds;
  const double seconds = watch.seconds() / static_cast<double>(state.iterations());
  state.counters["of_peak"] = multiply_adds / seconds / Machine::measured().multiply_adds;
}
BENCHMARK(joint_fit)
    ->ArgNames({"samples", "in", "out", "side", "steps", "iterations"})
    ->Args({9, 256, 256, 12, 20, 3})
    ->Args({9, 128, 128, 24, 20, 3})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3)
    ->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  const Machine& machine = Machine::measured();
  benchmark::AddCustomContext("multiply_adds_per_second", std::to_string(machine.multiply_adds));
  benchmark::AddCustomContext("copied_bytes_per_second", std::to_string(machine.bytes));
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
