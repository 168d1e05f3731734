#include "tensor_kernels.h"

#include <cuda_fp16.h>
#include <cuda_launch.h>

#include <algorithm>

namespace ostrel::tensorrt_cudnn {
namespace {

using launch::Block;
using launch::launch_kernel;
using launch::this_block;
using tensorrt_parts::Operator;
using tensorrt_parts::ResizeTap;

constexpr int kThreads = 256;
// Larger tensors are walked over in strides.
constexpr std::int64_t kMostBlocks = 1 << 20;

unsigned blocks_for(std::int64_t count) {
  return static_cast<unsigned>(std::clamp<std::int64_t>((count + kThreads - 1) / kThreads, 1, kMostBlocks));
}

// The arithmetic of all kernels is that of 32-bit floats.
__device__ __forceinline__ float to_float(float value) {
  return value;
}
__device__ __forceinline__ float to_float(__half value) {
  return __half2float(value);
}
__device__ __forceinline__ void store(float value, float* target) {
  *target = value;
}
__device__ __forceinline__ void store(float value, __half* target) {
  *target = __float2half(value);
}

struct Place {
  int sample;
  int channel;
  int row;
  int column;
};

// Where an element lies and which one lies there: plain 32-bit floats or channels-last 16-bit floats.
template <typename Element>
struct Order;

template <>
struct Order<float> {
  __device__ static __forceinline__ std::int64_t index(const MapSizes& sizes, const Place& at) {
    return ((std::int64_t{at.sample} * sizes.channels + at.channel) * sizes.rows + at.row) * sizes.columns +
           at.column;
  }
  __device__ static __forceinline__ Place place(const MapSizes& sizes, std::int64_t index) {
    Place at{};
    at.column = static_cast<int>(index % sizes.columns);
    index /= sizes.columns;
    at.row = static_cast<int>(index % sizes.rows);
    index /= sizes.rows;
    at.channel = static_cast<int>(index % sizes.channels);
    at.sample = static_cast<int>(index / sizes.channels);
    return at;
  }
};

template <>
struct Order<__half> {
  __device__ static __forceinline__ std::int64_t index(const MapSizes& sizes, const Place& at) {
    return ((std::int64_t{at.sample} * sizes.rows + at.row) * sizes.columns + at.column) * sizes.channels +
           at.channel;
  }
  __device__ static __forceinline__ Place place(const MapSizes& sizes, std::int64_t index) {
    Place at{};
    at.channel = static_cast<int>(index % sizes.channels);
    index /= sizes.channels;
    at.column = static_cast<int>(index % sizes.columns);
    index /= sizes.columns;
    at.row = static_cast<int>(index % sizes.rows);
    at.sample = static_cast<int>(index / sizes.rows);
    return at;
  }
};

__device__ __forceinline__ std::int64_t count_of(const MapSizes& sizes) {
  return std::int64_t{sizes.samples} * sizes.channels * sizes.rows * sizes.columns;
}

// Calls body(t) for each t below `count`, spread over all threads of the launch.
template <typename Body>
__device__ __forceinline__ void for_each_element(std::int64_t count, Body body) {
  const Block block = this_block();
  block.for_each_thread([&](int thread) {
    const std::int64_t step = std::int64_t{block.threads()} * block.grid();
    for (std::int64_t t = std::int64_t{block.index()} * block.threads() + thread; t < count; t += step)
      body(t);
  });
}

template <typename Element>
__device__ __forceinline__ float window_maximum(const Element* source, const MapSizes& sizes,
                                                const Place& target, const PoolWindow& window) {
  float best = 0.0F;
  bool found = false;
  for (int i = 0; i < window.rows; ++i) {
    const int row = target.row * window.stride_rows + i * window.dilation_rows - window.top;
    if (row < 0 || row >= sizes.rows) continue;
    for (int j = 0; j < window.columns; ++j) {
      const int column = target.column * window.stride_columns + j * window.dilation_columns - window.left;
      if (column < 0 || column >= sizes.columns) continue;
      const Place at{target.sample, target.channel, row, column};
      const float value = to_float(source[Order<Element>::index(sizes, at)]);
      if (!found || value > best) best = value;
      found = true;
    }
  }
  return best;
}

template <typename Element>
__global__ void max_pool_kernel(const Element* source, MapSizes source_sizes, Element* target,
                                MapSizes target_sizes, PoolWindow window) {
  for_each_element(count_of(target_sizes), [&](std::int64_t t) {
    const Place at = Order<Element>::place(target_sizes, t);
    store(window_maximum(source, source_sizes, at, window), target + t);
  });
}

template <typename Element>
__global__ void pad_kernel(const Element* source, MapSizes source_sizes, Element* target,
                           MapSizes target_sizes, int top, int left) {
  for_each_element(count_of(target_sizes), [&](std::int64_t t) {
    Place at = Order<Element>::place(target_sizes, t);
    at.row -= top;
    at.column -= left;
    const bool inside =
        at.row >= 0 && at.row < source_sizes.rows && at.column >= 0 && at.column < source_sizes.columns;
    store(inside ? to_float(source[Order<Element>::index(source_sizes, at)]) : 0.0F, target + t);
  });
}

template <typename Element>
__global__ void relu_kernel(const Element* source, Element* target, std::int64_t count) {
  for_each_element(count, [&](std::int64_t t) {
    const float value = to_float(source[t]);
    store(value > 0.0F ? value : 0.0F, target + t);
  });
}

template <typename From, typename To>
__global__ void reorder_kernel(const From* source, MapSizes source_sizes, To* target, MapSizes target_sizes) {
  for_each_element(count_of(target_sizes), [&](std::int64_t t) {
    const Place at = Order<To>::place(target_sizes, t);
    const bool inside = at.channel < source_sizes.channels;
    store(inside ? to_float(source[Order<From>::index(source_sizes, at)]) : 0.0F, target + t);
  });
}

__device__ __forceinline__ float combine(Operator op, float first, float second) {
  switch (op) {
    case Operator::kAdd:
      return first + second;
    case Operator::kSubtract:
      return first - second;
    case Operator::kMultiply:
      return first * second;
    default:
      return first / second;
  }
}

__global__ void arithmetic_kernel(ArithmeticShape shape, const float* first, const float* second,
                                  float* target) {
  for_each_element(shape.count, [&](std::int64_t t) {
    std::int64_t rest = t;
    std::int64_t first_at = 0;
    std::int64_t second_at = 0;
    for (int i = shape.axis_count - 1; i >= 0; --i) {
      const tensorrt_parts::ArithmeticAxis& axis = shape.axes[i];
      const std::int64_t position = rest % axis.size;
      rest /= axis.size;
      first_at += position * axis.first_step;
      second_at += position * axis.second_step;
    }
    target[t] = combine(shape.op, first[first_at], second[second_at]);
  });
}

// A share of 0 must not let an infinite neighbour in.
__device__ __forceinline__ float blend(float first, float second, float second_share) {
  return second_share == 0.0F ? first : first + (second - first) * second_share;
}

__device__ __forceinline__ float blend(const float* line, const ResizeTap& tap) {
  return blend(line[tap.first], line[tap.second], tap.second_share);
}

// The taps stand beside the shape so that the launch sees every pointer.
__global__ void resize_kernel(ResizeShape shape, const ResizeTap* rows, const ResizeTap* columns,
                              const float* source, float* target) {
  const std::int64_t count = std::int64_t{shape.planes} * shape.target_rows * shape.target_columns;
  for_each_element(count, [&](std::int64_t t) {
    const ResizeTap column = columns[t % shape.target_columns];
    const std::int64_t line = t / shape.target_columns;
    const ResizeTap row = rows[line % shape.target_rows];
    const float* plane = source + line / shape.target_rows * shape.source_rows * shape.source_columns;
    target[t] = blend(blend(plane + row.first * shape.source_columns, column),
                      blend(plane + row.second * shape.source_columns, column), row.second_share);
  });
}

template <typename T>
struct ElementType {
  using Element = T;
};

// Calls body with the format's ElementType.
template <typename Body>
cudaError_t with_element(Format format, Body&& body) {
  return format == Format::kPlainFloat32 ? body(ElementType<float>()) : body(ElementType<__half>());
}

}  // namespace

cudaError_t launch_max_pool(Format format, const void* source, const MapSizes& source_sizes, void* target,
                            const MapSizes& target_sizes, const PoolWindow& window, cudaStream_t stream) {
  return with_element(format, [&](auto type) {
    using Element = typename decltype(type)::Element;
    return launch_kernel("max_pool_kernel", max_pool_kernel<Element>, blocks_for(target_sizes.count()),
                         kThreads, 0, stream, static_cast<const Element*>(source), source_sizes,
                         static_cast<Element*>(target), target_sizes, window);
  });
}

cudaError_t launch_pad(Format format, const void* source, const MapSizes& source_sizes, void* target,
                       const MapSizes& target_sizes, int top, int left, cudaStream_t stream) {
  return with_element(format, [&](auto type) {
    using Element = typename decltype(type)::Element;
    return launch_kernel("pad_kernel", pad_kernel<Element>, blocks_for(target_sizes.count()), kThreads, 0,
                         stream, static_cast<const Element*>(source), source_sizes,
                         static_cast<Element*>(target), target_sizes, top, left);
  });
}

cudaError_t launch_relu(Format format, const void* source, void* target, std::int64_t count,
                        cudaStream_t stream) {
  return with_element(format, [&](auto type) {
    using Element = typename decltype(type)::Element;
    return launch_kernel("relu_kernel", relu_kernel<Element>, blocks_for(count), kThreads, 0, stream,
                         static_cast<const Element*>(source), static_cast<Element*>(target), count);
  });
}

cudaError_t launch_reorder(Format from, const void* source, void* target, const MapSizes& sizes,
                           cudaStream_t stream) {
  const MapSizes half = stored_sizes(Format::kChannelsLastFloat16, sizes);
  if (from == Format::kPlainFloat32) {
    return launch_kernel("reorder_kernel", reorder_kernel<float, __half>, blocks_for(half.count()), kThreads,
                         0, stream, static_cast<const float*>(source), sizes, static_cast<__half*>(target),
                         half);
  }
  return launch_kernel("reorder_kernel", reorder_kernel<__half, float>, blocks_for(sizes.count()), kThreads,
                       0, stream, static_cast<const __half*>(source), half, static_cast<float*>(target),
                       sizes);
}

cudaError_t launch_arithmetic(const ArithmeticShape& shape, const float* first, const float* second,
                              float* target, cudaStream_t stream) {
  return launch_kernel("arithmetic_kernel", arithmetic_kernel, blocks_for(shape.count), kThreads, 0, stream,
                       shape, first, second, target);
}

cudaError_t launch_resize(const ResizeShape& shape, const float* source, float* target, cudaStream_t stream) {
  const std::int64_t count = std::int64_t{shape.planes} * shape.target_rows * shape.target_columns;
  return launch_kernel("resize_kernel", resize_kernel, blocks_for(count), kThreads, 0, stream, shape,
                       shape.rows, shape.columns, source, target);
}

}  // namespace ostrel::tensorrt_cudnn
