// What an engine keeps on the device, shared by its contexts: weights as convolutions want them, operands of the
// arithmetic. Not changed after it was made.
#pragma once

#include "device_memory.h"
#include "graph_names.h"
#include "tensor_kernels.h"

namespace ostrel::tensorrt_cudnn {

class DeviceConstants {
 public:
  DeviceConstants() = default;
  // Convolutions run in what convolution_format() says for `format`. Throws ModelError.
  DeviceConstants(const Graph& graph, Format format);

  const void* weights(const Node& convolution) const { return at(weights_, convolution.output); }
  // Zeros where the convolution has none.
  const void* bias(const Node& convolution) const { return at(biases_, convolution.output); }
  // A constant as plain floats.
  const float* plain(int value) const { return static_cast<const float*>(at(plain_, value)); }

 private:
  const void* at(const std::vector<std::size_t>& offsets, int value) const {
    return memory_.at(offsets[static_cast<std::size_t>(value)]);
  }

  DeviceMemory memory_;
  std::vector<std::size_t> weights_;  // offset in bytes by the value that the convolution gives
  std::vector<std::size_t> biases_;
  std::vector<std::size_t> plain_;  // by the constant's value
};

// What a convolution runs in where the network's convolutions run in `network`: 32 bits with groups, whose channels
// cannot be filled up to what tensor cores want.
Format convolution_format(Format network, const Node& convolution);

// A shape of four dimensions as the kernels take it.
MapSizes map_sizes(const Sizes& sizes);

// Weights (out, in / groups, rows, columns) as they lie in memory, both kinds of channels filled up.
MapSizes stored_weights(Format format, const Sizes& sizes);

}  // namespace ostrel::tensorrt_cudnn
