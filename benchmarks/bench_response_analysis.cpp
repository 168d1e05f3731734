// Microseconds of the host work around a classification: what each search scale of a frame costs after the
// network, and what a start makes of its frame. One thread.

#include <benchmark/benchmark.h>

#include <opencv2/core.hpp>
#include <vector>

#include "tracking_runtime/tracker/atom/augmentation.h"
#include "tracking_runtime/tracker/atom/response_analysis.h"
#include "tracking_runtime/tracker/atom/sample_labels.h"
#include "tracking_runtime/tracker/atom/square_patch.h"

namespace {

namespace atom = ostrel_tracker::tracking_runtime::tracker::atom;

constexpr int kMapSide = 12;
constexpr int kFilterSide = 4;
constexpr int kSearchSize = 192;
constexpr int kChannels = 256;
const cv::Rect_<int> kTarget{600, 320, 64, 48};

cv::Mat noise(int rows, int columns, int type, double high) {
  cv::Mat map(rows, columns, type);
  cv::RNG(7).fill(map, cv::RNG::UNIFORM, 0.0, high);
  return map;
}

cv::Mat upsampled_noise() {
  return atom::upsample_response_fft(noise(kMapSide, kMapSide, CV_32F, 1.0), kFilterSide, kFilterSide,
                                     kSearchSize);
}

atom::TargetState target_state() {
  atom::NativeCppBackend::Config config;
  config.search_size = kSearchSize;
  config.search_area_factor = 7.0F;
  config.filter_size = kFilterSide;
  atom::TargetState state(config);
  state.image_size = {1280, 720};
  state.place_at_start_(kTarget);
  state.derive_scale_at_start_(kTarget);
  return state;
}

void upsample(benchmark::State& state) {
  const cv::Mat map = noise(kMapSide, kMapSide, CV_32F, 1.0);
  for (auto _ : state) {
    benchmark::DoNotOptimize(atom::upsample_response_fft(map, kFilterSide, kFilterSide, kSearchSize));
  }
}
BENCHMARK(upsample)->Unit(benchmark::kMicrosecond);

/// The inverse transform that no upsampling can do without.
void inverse_transform_alone(benchmark::State& state) {
  const cv::Mat spectrum = noise(kSearchSize, kSearchSize, CV_32FC2, 1.0);
  for (auto _ : state) {
    cv::Mat map;
    cv::idft(spectrum, map, cv::DFT_REAL_OUTPUT);
    benchmark::DoNotOptimize(map.data);
  }
}
BENCHMARK(inverse_transform_alone)->Unit(benchmark::kMicrosecond);

void centring_roll(benchmark::State& state) {
  const cv::Mat map = upsampled_noise();
  for (auto _ : state) {
    benchmark::DoNotOptimize(atom::roll_mat(map, (map.rows + 1) / 2, (map.cols + 1) / 2));
  }
}
BENCHMARK(centring_roll)->Unit(benchmark::kMicrosecond);

void soft_argmax(benchmark::State& state) {
  const cv::Mat map = upsampled_noise();
  for (auto _ : state) benchmark::DoNotOptimize(atom::soft_argmax_2d(map, {90, 100}, 2, 10.0F));
}
BENCHMARK(soft_argmax)->Unit(benchmark::kMicrosecond);

void host_correlation(benchmark::State& state) {
  const atom::FeatureMap feature{1, kChannels, kMapSide, kMapSide,
                                 std::vector<float>(kChannels * kMapSide * kMapSide, 0.1F)};
  atom::ClassifierState weights;
  weights.filter_weights.assign(kChannels * kFilterSide * kFilterSide, 0.1F);
  weights.filter_channels = kChannels;
  weights.filter_height = weights.filter_width = kFilterSide;
  for (auto _ : state) benchmark::DoNotOptimize(atom::classify_feature(feature, weights));
}
BENCHMARK(host_correlation)->Unit(benchmark::kMicrosecond);

void label(benchmark::State& state) {
  const atom::TargetState target = target_state();
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        atom::build_label(target, kMapSide, kMapSide, target.target_pos, target.target_scale));
  }
}
BENCHMARK(label)->Unit(benchmark::kMicrosecond);

void square_patch(benchmark::State& state) {
  const cv::Mat frame = noise(720, 1280, CV_8UC3, 256.0);
  const atom::TargetState target = target_state();
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        atom::cut_square_patch(frame, target.target_pos, 64.0F, 48.0F, 7.0F, kSearchSize));
  }
}
BENCHMARK(square_patch)->Unit(benchmark::kMicrosecond);

void augmented_set(benchmark::State& state) {
  const cv::Mat frame = noise(720, 1280, CV_8UC3, 256.0);
  const atom::TargetState target = target_state();
  const cv::Mat patch = atom::cut_square_patch(frame, target.target_pos, 64.0F, 48.0F, 7.0F, kSearchSize);
  for (auto _ : state) {
    atom::InitTimings timings;
    benchmark::DoNotOptimize(atom::augmented_patches(frame, patch, kTarget, target, &timings));
  }
}
BENCHMARK(augmented_set)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  cv::setNumThreads(1);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  benchmark::RunSpecifiedBenchmarks();
}
