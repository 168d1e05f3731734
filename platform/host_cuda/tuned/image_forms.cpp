// Image preprocess.

#include <host_cuda/parallel.h>
#include <host_cuda/tuned.h>

#include <cstddef>
#include <cstdint>

#include "work_split.h"

namespace ostrel::host_cuda::tuned {
namespace {

// Interleaved blue, green, red bytes of one row to three rows of floats.
void split_row(const std::uint8_t* __restrict source, int width, float* __restrict red,
               float* __restrict green, float* __restrict blue) {
  for (int x = 0; x < width; ++x) {
    blue[x] = static_cast<float>(source[3 * x]);
    green[x] = static_cast<float>(source[3 * x + 1]);
    red[x] = static_cast<float>(source[3 * x + 2]);
  }
}

void bgr8_to_rgb_planar_float(const TunedLaunch& launch, const std::uint8_t* source, std::size_t sample_pitch,
                              std::size_t row_pitch, float* target, int samples, int width, int height) {
  const std::size_t plane_size = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
  const int threads = threads_worth(launch, samples, 3 * width * height);
  parallel_for(samples, threads, [&](int sample) {
    const std::uint8_t* source_row = source + static_cast<std::size_t>(sample) * sample_pitch;
    float* red = target + static_cast<std::size_t>(sample) * 3 * plane_size;
    for (int y = 0; y < height; ++y) {
      split_row(source_row, width, red, red + plane_size, red + 2 * plane_size);
      source_row += row_pitch;
      red += width;
    }
  });
}

using Preprocess = void(const std::uint8_t*, std::size_t, std::size_t, float*, int, int, int);

[[maybe_unused]] const bool kRegistered =
    register_tuned_kernel<Preprocess>("bgr8_to_rgb_planar_float_kernel", bgr8_to_rgb_planar_float);

}  // namespace
}  // namespace ostrel::host_cuda::tuned
