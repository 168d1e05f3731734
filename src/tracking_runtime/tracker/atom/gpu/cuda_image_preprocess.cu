#include "tracking_runtime/tracker/atom/gpu/cuda_image_preprocess.h"

#include "tracking_runtime/tracker/atom/gpu/kernel_launch.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

__global__ void bgr8_to_rgb_planar_float_kernel(const std::uint8_t* source, std::size_t sample_pitch,
                                                std::size_t row_pitch, float* target, int samples, int width,
                                                int height) {
  const ostrel::launch::Block block = ostrel::launch::this_block();
  const int plane_size = width * height;
  block.for_each_thread([&](int thread) {
    const int t = block.index() * block.threads() + thread;
    if (t >= samples * plane_size) return;
    const int sample = t / plane_size;
    const int position = t % plane_size;
    const std::uint8_t* pixel = source + static_cast<std::size_t>(sample) * sample_pitch +
                                static_cast<std::size_t>(position / width) * row_pitch +
                                static_cast<std::size_t>(position % width) * 3;
    float* plane =
        target + static_cast<std::size_t>(sample) * 3 * static_cast<std::size_t>(plane_size) + position;
    plane[0] = static_cast<float>(pixel[2]);
    plane[plane_size] = static_cast<float>(pixel[1]);
    plane[2 * plane_size] = static_cast<float>(pixel[0]);
  });
}

}  // namespace

bool launch_bgr8_to_rgb_planar_float(const std::uint8_t* src, std::size_t sample_pitch, std::size_t row_pitch,
                                     float* dst, int batch, int width, int height, cudaStream_t stream,
                                     std::string* error) {
  if (src == nullptr || dst == nullptr || batch < 1 || width < 1 || height < 1) {
    return refuse("invalid CUDA image preprocess arguments", error);
  }
  return launch_over({"bgr8_to_rgb_planar_float_kernel", "launch bgr8_to_rgb_planar_float kernel"},
                     bgr8_to_rgb_planar_float_kernel, batch * width * height, 0, stream, error, src,
                     sample_pitch, row_pitch, dst, batch, width, height);
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
