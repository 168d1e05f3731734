#pragma once

#include <cuda_runtime.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// Enqueues the conversion of interleaved bytes in blue, green, red order to planar floats in red, green,
/// blue order, values unchanged from 0 to 255, and returns without waiting. `src`: device bytes; pixel (row,
/// column) of a sample starts at sample * sample_pitch + row * row_pitch + column * 3, pitches in bytes.
/// `dst`: device floats, batch x 3 x height x width, contiguous. Failures: "invalid CUDA image preprocess
/// arguments" for a null pointer or a size below 1; "launch bgr8_to_rgb_planar_float kernel", ": " and the
/// CUDA text for a failed launch.
bool launch_bgr8_to_rgb_planar_float(const std::uint8_t* src, std::size_t sample_pitch, std::size_t row_pitch,
                                     float* dst, int batch, int width, int height, cudaStream_t stream,
                                     std::string* error);

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
