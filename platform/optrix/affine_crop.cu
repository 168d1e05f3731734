#include <cuda_launch.h>

#include "affine_crop.h"
#include "affine_crop_kernels.h"

namespace optrix::detail {
namespace {

constexpr unsigned kThreadsPerBlock = 256;

__device__ inline float blend(float first, float second, float weight) {
  return first + weight * (second - first);
}

// Bilinear value of one byte channel of an interleaved plane.
__device__ inline float sample(const std::uint8_t* plane, int row_bytes, int pixel_bytes, int channel, Taps x,
                               Taps y) {
  const std::uint8_t* top = plane + static_cast<std::ptrdiff_t>(y.first) * row_bytes + channel;
  const std::uint8_t* bottom = plane + static_cast<std::ptrdiff_t>(y.second) * row_bytes + channel;
  const float upper = blend(top[x.first * pixel_bytes], top[x.second * pixel_bytes], x.weight);
  const float lower = blend(bottom[x.first * pixel_bytes], bottom[x.second * pixel_bytes], x.weight);
  return blend(upper, lower, y.weight);
}

struct Rgb {
  float red;
  float green;
  float blue;
};

__device__ inline Rgb rgb_from_nv12(PictureView picture, float x, float y) {
  const int chroma_width = chroma_extent(picture.width);
  const Taps cx = taps_at(chroma_coordinate(x, picture.width), chroma_width);
  const Taps cy = taps_at(chroma_coordinate(y, picture.height), chroma_extent(picture.height));
  const float luma =
      sample(picture.luma, picture.width, 1, 0, taps_at(x, picture.width), taps_at(y, picture.height));
  const float cb = sample(picture.chroma, 2 * chroma_width, 2, 0, cx, cy) - 128.0F;
  const float cr = sample(picture.chroma, 2 * chroma_width, 2, 1, cx, cy) - 128.0F;
  const float grey = kLumaGain * (luma - 16.0F);
  return {limited_to_byte(grey + kRedFromCr * cr),
          limited_to_byte(grey + kGreenFromCb * cb + kGreenFromCr * cr),
          limited_to_byte(grey + kBlueFromCb * cb)};
}

__device__ inline Rgb rgb_from_bgr(PictureView picture, float x, float y) {
  const Taps tx = taps_at(x, picture.width);
  const Taps ty = taps_at(y, picture.height);
  const int row_bytes = 3 * picture.width;
  return {sample(picture.luma, row_bytes, 3, 2, tx, ty), sample(picture.luma, row_bytes, 3, 1, tx, ty),
          sample(picture.luma, row_bytes, 3, 0, tx, ty)};
}

// One thread per output pixel of all crops; `colour` reads the picture at a coordinate.
template <typename Colour>
__device__ inline void write_crops(CropTable table, int count, CropTarget target, Colour colour) {
  const ostrel::launch::Block block = ostrel::launch::this_block();
  block.for_each_thread([&](int thread) {
    const long long plane = static_cast<long long>(target.out_width) * target.out_height;
    const long long index = static_cast<long long>(block.index()) * block.threads() + thread;
    if (index >= plane * count) return;
    const int crop_index = static_cast<int>(index / plane);
    const int pixel = static_cast<int>(index % plane);
    const AffineCrop crop = table.crops[crop_index];
    const float x = crop.offset_x + crop.scale_x * static_cast<float>(pixel % target.out_width);
    const float y = crop.offset_y + crop.scale_y * static_cast<float>(pixel / target.out_width);
    const Rgb value = colour(x, y);
    float* planes = target.data + crop_index * 3 * plane + pixel;
    planes[target.red_plane * plane] = target.scale * value.red;
    planes[plane] = target.scale * value.green;
    planes[(2 - target.red_plane) * plane] = target.scale * value.blue;
  });
}

}  // namespace

__global__ void affine_crop_nv12_kernel(const std::uint8_t* luma, const std::uint8_t* chroma, int width,
                                        int height, CropTable table, int count, float* data, int out_width,
                                        int out_height, int red_plane, float scale) {
  const PictureView picture{luma, chroma, width, height};
  write_crops(table, count, {data, out_width, out_height, red_plane, scale},
              [&](float x, float y) { return rgb_from_nv12(picture, x, y); });
}

__global__ void affine_crop_bgr_kernel(const std::uint8_t* pixels, int width, int height, CropTable table,
                                       int count, float* data, int out_width, int out_height, int red_plane,
                                       float scale) {
  const PictureView picture{pixels, nullptr, width, height};
  write_crops(table, count, {data, out_width, out_height, red_plane, scale},
              [&](float x, float y) { return rgb_from_bgr(picture, x, y); });
}

cudaError_t launch_affine_crop(PixelFormat format, const PictureView& picture, const CropTable& table,
                               int count, const CropTarget& target, cudaStream_t stream) {
  const long long pixels = static_cast<long long>(target.out_width) * target.out_height * count;
  const long long blocks = (pixels + kThreadsPerBlock - 1) / kThreadsPerBlock;
  if (blocks > 0x7fffffffLL) return cudaErrorInvalidValue;
  const unsigned grid = static_cast<unsigned>(blocks);
  if (format == PixelFormat::kNv12) {
    return ostrel::launch::launch_kernel("affine_crop_nv12_kernel", affine_crop_nv12_kernel, grid,
                                         kThreadsPerBlock, 0, stream, picture.luma, picture.chroma,
                                         picture.width, picture.height, table, count, target.data,
                                         target.out_width, target.out_height, target.red_plane, target.scale);
  }
  return ostrel::launch::launch_kernel("affine_crop_bgr_kernel", affine_crop_bgr_kernel, grid,
                                       kThreadsPerBlock, 0, stream, picture.luma, picture.width,
                                       picture.height, table, count, target.data, target.out_width,
                                       target.out_height, target.red_plane, target.scale);
}

}  // namespace optrix::detail
