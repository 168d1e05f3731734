// The resampling kernels and what their plain and their tuned form share.
#pragma once

#include <cuda_runtime.h>
#include <optrix/optrix_picture.h>

#include <cstdint>

#include "picture_pixels.h"

namespace optrix::detail {

// Crops travel as a kernel argument, so that no upload is needed; longer lists take several launches.
constexpr int kMaxCropsPerLaunch = 16;
struct CropTable {
  AffineCrop crops[kMaxCropsPerLaunch];
};

// Where and how a launch writes: planes of out_width x out_height floats, three per crop.
struct CropTarget {
  float* data;
  int out_width;
  int out_height;
  int red_plane;  // 0, or 2 for blue, green, red
  float scale;    // applied to values of 0 to 255
};

// The picture as the kernels see it.
struct PictureView {
  const std::uint8_t* luma;
  const std::uint8_t* chroma;
  int width;
  int height;
};

// ITU-R BT.709, limited range, to 0..255.
constexpr float kLumaGain = 255.0F / 219.0F;
constexpr float kRedFromCr = 1.5748F * 255.0F / 224.0F;
constexpr float kGreenFromCb = -0.1873243F * 255.0F / 224.0F;
constexpr float kGreenFromCr = -0.4681243F * 255.0F / 224.0F;
constexpr float kBlueFromCb = 1.8556F * 255.0F / 224.0F;

// The two neighbours of a coordinate and the weight of the second.
struct Taps {
  int first;
  int second;
  float weight;
};

// Coordinates beyond the edge read the edge; a NaN reads index 0.
__host__ __device__ inline float clamped_coordinate(float coordinate, int extent) {
  const float last = static_cast<float>(extent - 1);
  const float above_zero = coordinate > 0.0F ? coordinate : 0.0F;
  return above_zero < last ? above_zero : last;
}

__host__ __device__ inline Taps taps_at(float coordinate, int extent) {
  const float inside = clamped_coordinate(coordinate, extent);
  const int first = static_cast<int>(inside);
  return {first, first + 1 < extent ? first + 1 : first, inside - static_cast<float>(first)};
}

// A chroma sample stands at the centre of its 2 x 2 luma block.
__host__ __device__ inline float chroma_coordinate(float luma_coordinate, int luma_extent) {
  return (clamped_coordinate(luma_coordinate, luma_extent) - 0.5F) * 0.5F;
}

__host__ __device__ inline float limited_to_byte(float value) {
  const float above_zero = value > 0.0F ? value : 0.0F;
  return above_zero < 255.0F ? above_zero : 255.0F;
}

// Queue the resampling of `count` crops, at most kMaxCropsPerLaunch, in one launch.
cudaError_t launch_affine_crop(PixelFormat format, const PictureView& picture, const CropTable& table,
                               int count, const CropTarget& target, cudaStream_t stream);

}  // namespace optrix::detail
