// Projection and correlations.

#include <host_cuda/parallel.h>
#include <host_cuda/tuned.h>

#include <algorithm>

#include "dense_product.h"
#include "tap_maps.h"
#include "work_split.h"

namespace ostrel::host_cuda::tuned {
namespace {

// out (n, o, position) = sum over c of projection (o, c) * features (n, c, position).
void project_features(const TunedLaunch& launch, const float* features, const float* projection, float* out,
                      int samples, int in_channels, int out_channels, int height, int width) {
  constexpr int kRowsPerPiece = 32;
  const int positions = height * width;
  const int pieces_per_sample = (out_channels + kRowsPerPiece - 1) / kRowsPerPiece;
  const int pieces = samples * pieces_per_sample;
  const int threads = threads_worth(launch, pieces, kRowsPerPiece * in_channels * positions);
  parallel_for(pieces, threads, [&](int piece) {
    const int sample = piece / pieces_per_sample;
    const int first_row = piece % pieces_per_sample * kRowsPerPiece;
    multiply(std::min(kRowsPerPiece, out_channels - first_row), positions, in_channels,
             {projection + first_row * in_channels, in_channels},
             {features + sample * in_channels * positions, positions},
             {out + (sample * out_channels + first_row) * positions, positions}, Store::kOverwrite);
  });
}

// The filter C, taps as taps, C.
const float* transpose_filter(const float* filter, int channels, int taps) {
  float* transposed = scratch(Scratch::kFilter, channels * taps);
  for (int c = 0; c < channels; ++c) {
    for (int tap = 0; tap < taps; ++tap) transposed[tap * channels + c] = filter[c * taps + tap];
  }
  return transposed;
}

// One product gives each tap's map, taps x positions, of a sample; the response is the sum of the shifted
// maps.
void correlate_sample(const float* features, const float* transposed_filter, float* response, int channels,
                      MapSize map, FilterSize filter) {
  const int positions = map.positions();
  float* tap_maps = scratch(Scratch::kTapMaps, filter.taps() * positions);
  multiply(filter.taps(), positions, channels, {transposed_filter, channels}, {features, positions},
           {tap_maps, positions}, Store::kOverwrite);
  std::fill_n(response, positions, 0.0F);
  for (int tap = 0; tap < filter.taps(); ++tap) {
    add_shifted(map, filter.row_shift(tap), filter.column_shift(tap), tap_maps + tap * positions, response);
  }
}

void correlate(const TunedLaunch& launch, const float* features, const float* filter_values, float* out,
               int samples, int channels, MapSize map, FilterSize filter) {
  const float* transposed = transpose_filter(filter_values, channels, filter.taps());
  const int positions = map.positions();
  const int threads = threads_worth(launch, samples, filter.taps() * channels * positions);
  parallel_for(samples, threads, [&](int sample) {
    correlate_sample(features + sample * channels * positions, transposed, out + sample * positions, channels,
                     map, filter);
  });
}

void classify(const TunedLaunch& launch, const float* features, const float* filter, float* out, int samples,
              int channels, int height, int width, int filter_height, int filter_width) {
  correlate(launch, features, filter, out, samples, channels, {height, width}, {filter_height, filter_width});
}

void classify_fixed(const TunedLaunch& launch, const float* features, const float* filter, float* out,
                    int samples, int channels, int height, int width) {
  correlate(launch, features, filter, out, samples, channels, {height, width}, {4, 4});
}

void classify_pair(const TunedLaunch& launch, const float* features_a, const float* filter_a, float* out_a,
                   const float* features_b, const float* filter_b, float* out_b, int samples, int channels,
                   int height, int width, int filter_height, int filter_width) {
  const MapSize map{height, width};
  const FilterSize filter{filter_height, filter_width};
  correlate(launch, features_a, filter_a, out_a, samples, channels, map, filter);
  correlate(launch, features_b, filter_b, out_b, samples, channels, map, filter);
}

void classify_pair_fixed(const TunedLaunch& launch, const float* features_a, const float* filter_a,
                         float* out_a, const float* features_b, const float* filter_b, float* out_b,
                         int samples, int channels, int height, int width) {
  classify_pair(launch, features_a, filter_a, out_a, features_b, filter_b, out_b, samples, channels, height,
                width, 4, 4);
}

using In = const float*;
using Out = float*;
using Classify = void(In, In, Out, int, int, int, int, int, int);
using ClassifyFixed = void(In, In, Out, int, int, int, int);
using Project = void(In, In, Out, int, int, int, int, int);
using Pair = void(In, In, Out, In, In, Out, int, int, int, int, int, int);
using PairFixed = void(In, In, Out, In, In, Out, int, int, int, int);

[[maybe_unused]] const bool kRegistered =
    register_tuned_kernel<Project>("project_features_kernel", project_features) &&
    register_tuned_kernel<Classify>("classify_kernel", classify) &&
    register_tuned_kernel<Classify>("classify_samples_kernel", classify) &&
    register_tuned_kernel<ClassifyFixed>("classify_samples_fixed_filter_kernel<4,4>", classify_fixed) &&
    register_tuned_kernel<Pair>("classify_sample_pair_kernel", classify_pair) &&
    register_tuned_kernel<PairFixed>("classify_sample_pair_fixed_filter_kernel<4,4>", classify_pair_fixed);

}  // namespace
}  // namespace ostrel::host_cuda::tuned
