#pragma once

#include <cuda_launch.h>

/// Device functions of the correlations and their adjoints, shared by the classifier, the trainer and the
/// joint optimiser. Features are N, C, H, W; a filter is C, fh, fw; a response is N, H, W. Tap (i, j) of a
/// filter meets the feature at row y + i - fh / 2, column x + j - fw / 2; what lies outside the map counts as
/// zero and is not read.

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// A filter size that is known at run time only.
struct AnyFilter {
  int height;
  int width;
};

/// A filter size that the compiler knows, so that it unrolls the taps.
template <int kHeight, int kWidth>
struct FixedFilter {
  static constexpr int height = kHeight;
  static constexpr int width = kWidth;
};

struct MapSize {
  int height;
  int width;
};

__device__ inline bool inside(MapSize map, int y, int x) {
  return y >= 0 && y < map.height && x >= 0 && x < map.width;
}

/// Copies `count` floats into shared memory. All threads of the block take part, also those beyond the last
/// element.
__device__ inline void stage(const ostrel::launch::Block& block, const float* source, float* staged,
                             int count) {
  block.for_each_thread([&](int thread) {
    for (int i = thread; i < count; i += block.threads()) staged[i] = source[i];
  });
}

/// Sum over the taps of one channel at (y, x), added to `sum` in row order.
template <typename Filter>
__device__ inline float add_channel_taps(float sum, const float* plane, const float* taps, MapSize map,
                                         Filter filter, int y, int x) {
  for (int i = 0; i < filter.height; ++i) {
    for (int j = 0; j < filter.width; ++j) {
      const int row = y + i - filter.height / 2;
      const int column = x + j - filter.width / 2;
      if (inside(map, row, column)) sum += taps[i * filter.width + j] * plane[row * map.width + column];
    }
  }
  return sum;
}

/// Response of element t of N, H, W, channel by channel.
template <typename Filter>
__device__ inline float correlate_at(const float* features, const float* taps, int t, int channels,
                                     MapSize map, Filter filter) {
  const int plane_size = map.height * map.width;
  const int position = t % plane_size;
  const float* plane = features + t / plane_size * channels * plane_size;
  float sum = 0.0F;
  for (int c = 0; c < channels; ++c) {
    sum = add_channel_taps(sum, plane, taps, map, filter, position / map.width, position % map.width);
    plane += plane_size;
    taps += filter.height * filter.width;
  }
  return sum;
}

/// Sum over samples and positions of the feature that tap t of C, fh, fw meets times the gradient there.
__device__ inline float filter_gradient_at(const float* features, const float* gradient, int t, int samples,
                                           int channels, MapSize map, AnyFilter filter) {
  const int plane_size = map.height * map.width;
  const int row_shift = t / filter.width % filter.height - filter.height / 2;
  const int column_shift = t % filter.width - filter.width / 2;
  const float* plane = features + t / (filter.height * filter.width) * plane_size;
  float sum = 0.0F;
  for (int n = 0; n < samples; ++n) {
    for (int y = 0; y < map.height; ++y) {
      for (int x = 0; x < map.width; ++x) {
        const int row = y + row_shift;
        const int column = x + column_shift;
        if (inside(map, row, column)) sum += plane[row * map.width + column] * gradient[y * map.width + x];
      }
    }
    plane += channels * plane_size;
    gradient += plane_size;
  }
  return sum;
}

/// Adjoint of the correlation: element t of N, C, H, W of the gradient with regard to the features.
template <typename Filter>
__device__ inline float backprop_at(const float* gradient, const float* taps, int t, int channels,
                                    MapSize map, Filter filter) {
  const int plane_size = map.height * map.width;
  const int y = t % plane_size / map.width;
  const int x = t % map.width;
  const float* plane = gradient + t / (channels * plane_size) * plane_size;
  taps += t / plane_size % channels * filter.height * filter.width;
  float sum = 0.0F;
  for (int i = 0; i < filter.height; ++i) {
    for (int j = 0; j < filter.width; ++j) {
      const int row = y - i + filter.height / 2;
      const int column = x - j + filter.width / 2;
      if (inside(map, row, column)) sum += taps[i * filter.width + j] * plane[row * map.width + column];
    }
  }
  return sum;
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
