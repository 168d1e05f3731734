#include "device_constants.h"

#include <cuda_fp16.h>

#include <cstring>

namespace ostrel::tensorrt_cudnn {
namespace {

constexpr std::size_t kAlignment = 256;

// Bytes on their way to the device, each piece at an aligned offset.
class Pieces {
 public:
  std::size_t add(const void* source, std::size_t bytes) {
    const std::size_t offset = (bytes_.size() + kAlignment - 1) / kAlignment * kAlignment;
    bytes_.resize(offset + bytes);
    if (bytes > 0) std::memcpy(bytes_.data() + offset, source, bytes);
    return offset;
  }
  std::size_t add(const std::vector<float>& values, Format format) {
    if (format == Format::kPlainFloat32) return add(values.data(), values.size() * sizeof(float));
    std::vector<__half> halves;
    halves.reserve(values.size());
    for (const float value : values) halves.push_back(__float2half(value));
    return add(halves.data(), halves.size() * sizeof(__half));
  }
  DeviceMemory upload() const { return {bytes_.data(), bytes_.size()}; }

 private:
  std::vector<char> bytes_;
};

// From (out, in, rows, columns) to (out, rows, columns, in), with zeros for the channels that both sides are filled up
// with.
std::vector<float> channels_last(const std::vector<float>& weights, const Sizes& sizes) {
  const MapSizes stored = stored_weights(Format::kChannelsLastFloat16, sizes);
  const auto channels = static_cast<std::size_t>(sizes[1]);
  const auto stored_channels = static_cast<std::size_t>(stored.channels);
  const auto taps = static_cast<std::size_t>(sizes[2] * sizes[3]);
  std::vector<float> turned(static_cast<std::size_t>(stored.count()), 0.0F);
  for (std::size_t i = 0; i < weights.size(); ++i) {
    const std::size_t tap = i % taps;
    const std::size_t channel = i / taps % channels;
    turned[(i / taps / channels * taps + tap) * stored_channels + channel] = weights[i];
  }
  return turned;
}

// One value per output channel as stored; zeros without any.
std::vector<float> filled_bias(const std::vector<float>& bias, int channels) {
  std::vector<float> filled = bias;
  filled.resize(static_cast<std::size_t>(channels), 0.0F);
  return filled;
}

const Value& value_of(const Graph& graph, int value) {
  return graph.values[static_cast<std::size_t>(value)];
}

}  // namespace

DeviceConstants::DeviceConstants(const Graph& graph, Format format)
    : weights_(graph.values.size()), biases_(graph.values.size()), plain_(graph.values.size()) {
  Pieces pieces;
  for (const Node& node : graph.nodes) {
    if (node.op == Operator::kConvolution) {
      const Value& weights = value_of(graph, node.inputs[1]);
      const Format own = convolution_format(format, node);
      const bool plain = own == Format::kPlainFloat32;
      const auto output = static_cast<std::size_t>(node.output);
      weights_[output] = pieces.add(plain ? weights.reals : channels_last(weights.reals, weights.sizes), own);
      const bool biased = node.inputs.size() == 3;
      biases_[output] =
          pieces.add(filled_bias(biased ? value_of(graph, node.inputs[2]).reals : std::vector<float>(),
                                 stored_weights(own, weights.sizes).samples),
                     own);
      continue;
    }
    for (const int input : node.inputs) {
      const Value& operand = value_of(graph, input);
      if (operand.constant)
        plain_[static_cast<std::size_t>(input)] = pieces.add(operand.reals, Format::kPlainFloat32);
    }
  }
  memory_ = pieces.upload();
}

Format convolution_format(Format network, const Node& convolution) {
  return convolution.window.groups == 1 ? network : Format::kPlainFloat32;
}

MapSizes stored_weights(Format format, const Sizes& sizes) {
  MapSizes stored = stored_sizes(format, map_sizes(sizes));
  stored.samples = filled_channels(format, stored.samples);
  return stored;
}

MapSizes map_sizes(const Sizes& sizes) {
  if (sizes.size() != 4) throw ModelError("a map of " + std::to_string(sizes.size()) + " dimensions");
  const auto size = [&sizes](std::size_t i) { return static_cast<int>(sizes[i]); };  // at most kLargestSize
  return {size(0), size(1), size(2), size(3)};
}

}  // namespace ostrel::tensorrt_cudnn
