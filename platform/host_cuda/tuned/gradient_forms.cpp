// Adjoints of the correlation.

#include <host_cuda/parallel.h>
#include <host_cuda/tuned.h>

#include <algorithm>

#include "dense_product.h"
#include "tap_maps.h"
#include "work_split.h"

namespace ostrel::host_cuda::tuned {
namespace {

// Taps rounded up to whole vectors.
int padded(int taps) {
  return (taps + 7) / 8 * 8;
}

// out (c, tap) += scale * sum over samples and positions of feature times the gradient that it meets.
void accumulate_filter_gradient(const TunedLaunch& launch, const float* features, const float* gradient,
                                float scale, float* out, int samples, int channels, int height, int width,
                                int filter_height, int filter_width) {
  constexpr int kChannelsPerPiece = 64;
  const MapSize map{height, width};
  const FilterSize filter{filter_height, filter_width};
  const int positions = map.positions();
  const int taps = filter.taps();
  const int stride = padded(taps);
  float* columns = scratch(Scratch::kTapMaps, samples * positions * stride);
  for (int n = 0; n < samples; ++n) {
    spread_over_tap_columns(map, filter, gradient + n * positions, columns + n * positions * stride, stride);
  }
  float* sums = scratch(Scratch::kSums, channels * stride);
  const int pieces = (channels + kChannelsPerPiece - 1) / kChannelsPerPiece;
  const int threads = threads_worth(launch, pieces, kChannelsPerPiece * samples * positions * taps);
  parallel_for(pieces, threads, [&](int piece) {
    const int first = piece * kChannelsPerPiece;
    const int last = std::min(first + kChannelsPerPiece, channels);
    for (int n = 0; n < samples; ++n) {
      multiply(last - first, stride, positions, {features + (n * channels + first) * positions, positions},
               {columns + n * positions * stride, stride}, {sums + first * stride, stride},
               n == 0 ? Store::kOverwrite : Store::kAdd);
    }
    for (int c = first; c < last; ++c) {
      for (int tap = 0; tap < taps; ++tap) out[c * taps + tap] += scale * sums[c * stride + tap];
    }
  });
}

// out (n, c, position) = sum over taps of filter (c, tap) * the gradient that the position meets through the
// tap.
void backprop(const TunedLaunch& launch, const float* gradient, const float* filter_values, float* out,
              int samples, int channels, int height, int width, int filter_height, int filter_width) {
  const MapSize map{height, width};
  const FilterSize filter{filter_height, filter_width};
  const int positions = map.positions();
  const int taps = filter.taps();
  const int threads = threads_worth(launch, samples, channels * positions * taps);
  parallel_for(samples, threads, [&](int n) {
    float* rows = scratch(Scratch::kTapMaps, taps * positions);
    spread_over_tap_rows(map, filter, gradient + n * positions, rows);
    multiply(channels, positions, taps, {filter_values, taps}, {rows, positions},
             {out + n * channels * positions, positions}, Store::kOverwrite);
  });
}

void backprop_fixed(const TunedLaunch& launch, const float* gradient, const float* filter, float* out,
                    int samples, int channels, int height, int width) {
  backprop(launch, gradient, filter, out, samples, channels, height, width, 4, 4);
}

using In = const float*;
using Out = float*;
using FilterGradient = void(In, In, float, Out, int, int, int, int, int, int);
using Backprop = void(In, In, Out, int, int, int, int, int, int);
using BackpropFixed = void(In, In, Out, int, int, int, int);

[[maybe_unused]] const bool kRegistered =
    register_tuned_kernel<FilterGradient>("accumulate_filter_gradient_kernel", accumulate_filter_gradient) &&
    register_tuned_kernel<Backprop>("backprop_to_projected_feature_kernel", backprop) &&
    register_tuned_kernel<BackpropFixed>("backprop_to_projected_feature_fixed_filter_kernel<4,4>",
                                         backprop_fixed);

}  // namespace
}  // namespace ostrel::host_cuda::tuned
