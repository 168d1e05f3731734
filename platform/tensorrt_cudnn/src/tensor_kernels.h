// Kernels for what cuDNN has no general form of, on the caller's stream. Each call queues one launch, does not wait
// and returns the launch's status. Pointers are device memory of the sizes given.
#pragma once

#include <cuda_runtime.h>

#include <cstdint>

#include <operator_maps.h>

namespace ostrel::tensorrt_cudnn {

// kPlainFloat32: row-major 32-bit floats (N, C, H, W). kChannelsLastFloat16: 16-bit floats (N, H, W, C), maps of four
// dimensions alone, their channels filled up with zeros to a multiple of kChannelBlock, as tensor cores want them.
enum class Format { kPlainFloat32, kChannelsLastFloat16 };

constexpr std::size_t element_bytes(Format format) {
  return format == Format::kPlainFloat32 ? 4 : 2;
}

struct MapSizes {
  int samples = 1;
  int channels = 1;
  int rows = 1;
  int columns = 1;

  constexpr std::int64_t count() const { return std::int64_t{samples} * channels * rows * columns; }
};

constexpr int kChannelBlock = 8;

constexpr int filled_channels(Format format, int channels) {
  if (format == Format::kPlainFloat32) return channels;
  return (channels + kChannelBlock - 1) / kChannelBlock * kChannelBlock;
}

// A map as it lies in memory, which is what the kernels and cuDNN take for its sizes.
constexpr MapSizes stored_sizes(Format format, MapSizes map) {
  map.channels = filled_channels(format, map.channels);
  return map;
}

struct PoolWindow {
  int rows = 1;
  int columns = 1;
  int stride_rows = 1;
  int stride_columns = 1;
  int dilation_rows = 1;
  int dilation_columns = 1;
  int top = 0;  // padding, which no maximum sees
  int left = 0;
};

cudaError_t launch_max_pool(Format format, const void* source, const MapSizes& source_sizes, void* target,
                            const MapSizes& target_sizes, const PoolWindow& window, cudaStream_t stream);

// Zeros around the map; the target's sizes say how many lie below and on the right.
cudaError_t launch_pad(Format format, const void* source, const MapSizes& source_sizes, void* target,
                       const MapSizes& target_sizes, int top, int left, cudaStream_t stream);

// The target may be the source.
cudaError_t launch_relu(Format format, const void* source, void* target, std::int64_t count,
                        cudaStream_t stream);

// From one format into the other; the formats differ. `sizes` without filled up channels.
cudaError_t launch_reorder(Format from, const void* source, void* target, const MapSizes& sizes,
                           cudaStream_t stream);

constexpr int kMostAxes = 8;

// Element-wise arithmetic of plain tensors; `axes` as arithmetic_axes() gives them, outermost first.
struct ArithmeticShape {
  tensorrt_parts::Operator op = tensorrt_parts::Operator::kAdd;
  int axis_count = 0;
  tensorrt_parts::ArithmeticAxis axes[kMostAxes];
  std::int64_t count = 0;
};

// The target may be an operand of its own size.
cudaError_t launch_arithmetic(const ArithmeticShape& shape, const float* first, const float* second,
                              float* target, cudaStream_t stream);

// Resampling of plain maps; the taps lie in device memory, one per target row and column.
struct ResizeShape {
  int planes = 1;
  int source_rows = 1;
  int source_columns = 1;
  int target_rows = 1;
  int target_columns = 1;
  const tensorrt_parts::ResizeTap* rows = nullptr;
  const tensorrt_parts::ResizeTap* columns = nullptr;
};

cudaError_t launch_resize(const ResizeShape& shape, const float* source, float* target, cudaStream_t stream);

}  // namespace ostrel::tensorrt_cudnn
