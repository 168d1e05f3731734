#include <onnx_graph/shape_inference.h>

#include <algorithm>
#include <cmath>

namespace ostrel::onnx_graph {
namespace {

[[noreturn]] void refuse(const Node& node, const std::string& reason) {
  throw ModelError("node \"" + node.name + "\": " + reason);
}

std::int64_t reach(const Window& window, std::size_t axis) {
  return (window.kernel[axis] - 1) * window.dilations[axis] + 1;
}

bool same_padding(const Window& window) {
  return window.auto_pad == AutoPad::kSameUpper || window.auto_pad == AutoPad::kSameLower;
}

// Padding of both sides together.
std::int64_t total_padding(const Window& window, std::size_t axis) {
  return window.auto_pad == AutoPad::kValid ? 0 : window.pads[axis] + window.pads[axis + 2];
}

Sizes window_sizes(const Node& node, const Sizes& source, std::int64_t channels) {
  Sizes sizes{source[0], channels, kUnknown, kUnknown};
  for (std::size_t axis = 0; axis < 2; ++axis) {
    if (source[axis + 2] < 0) continue;
    sizes[axis + 2] = window_output(node.window, axis, source[axis + 2]);
    if (sizes[axis + 2] < 1) refuse(node, "the map " + to_text(source) + " is smaller than the window");
  }
  return sizes;
}

void require_maps(const Node& node, const Sizes& source) {
  if (source.size() != 4) refuse(node, "needs four dimensions, has " + to_text(source));
}

Sizes convolution_sizes(const Graph& graph, const Node& node, const Sizes& source) {
  require_maps(node, source);
  const Sizes& weights = graph.values[static_cast<std::size_t>(node.inputs[1])].sizes;
  if (source[1] >= 0 && source[1] != weights[1] * node.window.groups) {
    refuse(node, "weights " + to_text(weights) + " do not fit the channels of " + to_text(source));
  }
  return window_sizes(node, source, weights[0]);
}

Sizes resize_sizes(const Node& node, const Sizes& source) {
  require_maps(node, source);
  Sizes sizes = node.resize.sizes;
  if (sizes.empty()) {
    for (std::size_t i = 0; i < 4; ++i) {
      const double scaled =
          std::floor(static_cast<double>(source[i]) * static_cast<double>(node.resize.scales[i]));
      sizes.push_back(source[i] < 0 ? kUnknown : static_cast<std::int64_t>(scaled));
    }
    if (node.resize.scales[0] != 1.0F || node.resize.scales[1] != 1.0F)
      refuse(node, "scales batch or channels");
  }
  for (std::size_t i = 0; i < 4; ++i) {
    if (sizes[i] == 0) refuse(node, "gives a map without elements");
    if (i < 2 && source[i] >= 0 && sizes[i] != source[i]) refuse(node, "resizes batch or channels");
  }
  return sizes;
}

// Sizes align at their ends; a size of 1 stretches.
Sizes broadcast_sizes(const Node& node, const Sizes& first, const Sizes& second) {
  Sizes sizes(std::max(first.size(), second.size()), 1);
  const auto at = [&sizes](const Sizes& given, std::size_t i) {
    const std::size_t missing = sizes.size() - given.size();
    return i < missing ? 1 : given[i - missing];
  };
  for (std::size_t i = 0; i < sizes.size(); ++i) {
    const std::int64_t a = at(first, i);
    const std::int64_t b = at(second, i);
    if (a > 1 && b > 1 && a != b)
      refuse(node, "shapes " + to_text(first) + " and " + to_text(second) + " do not match");
    sizes[i] = (a > 1 || b > 1) ? std::max(a, b) : (a < 0 || b < 0) ? kUnknown : 1;
  }
  return sizes;
}

Sizes batch_normalization_sizes(const Graph& graph, const Node& node, const Sizes& source) {
  const Sizes& parameters = graph.values[static_cast<std::size_t>(node.inputs[1])].sizes;
  if (source.size() < 2 || (source[1] >= 0 && source[1] != parameters[0])) {
    refuse(node, "parameters " + to_text(parameters) + " do not fit " + to_text(source));
  }
  return source;
}

Sizes node_sizes(const Graph& graph, const Node& node, const std::vector<Sizes>& known) {
  const Sizes& source = known[static_cast<std::size_t>(node.inputs[0])];
  switch (node.op) {
    case Operator::kConvolution:
      return convolution_sizes(graph, node, source);
    case Operator::kMaxPool:
      require_maps(node, source);
      return window_sizes(node, source, source[1]);
    case Operator::kResize:
      return resize_sizes(node, source);
    case Operator::kBatchNormalization:
      return batch_normalization_sizes(graph, node, source);
    case Operator::kRelu:
    case Operator::kIdentity:
      return source;
    default:
      return broadcast_sizes(node, source, known[static_cast<std::size_t>(node.inputs[1])]);
  }
}

}  // namespace

std::int64_t window_output(const Window& window, std::size_t axis, std::int64_t size) {
  const std::int64_t stride = window.strides[axis];
  if (same_padding(window)) return (size + stride - 1) / stride;
  const std::int64_t padding = total_padding(window, axis);
  const std::int64_t room = size + padding - reach(window, axis);
  if (room < 0) return 0;
  if (!window.round_up) return room / stride + 1;
  const std::int64_t output = (room + stride - 1) / stride + 1;
  // A window that would start behind the map and its leading padding is left out.
  const std::int64_t leading = window.auto_pad == AutoPad::kValid ? 0 : window.pads[axis];
  return (output - 1) * stride >= size + leading ? output - 1 : output;
}

Sizes resolved_padding(const Window& window, const Sizes& map_sizes) {
  Sizes pads(4, 0);
  for (std::size_t axis = 0; axis < 2; ++axis) {
    const std::int64_t output = window_output(window, axis, map_sizes[axis]);
    const std::int64_t covered = (output - 1) * window.strides[axis] + reach(window, axis);
    const std::int64_t needed = covered - map_sizes[axis];
    std::int64_t leading = window.auto_pad == AutoPad::kExplicit ? window.pads[axis] : 0;
    if (same_padding(window)) {
      const std::int64_t total = std::max<std::int64_t>(needed, 0);
      leading = window.auto_pad == AutoPad::kSameUpper ? total / 2 : (total + 1) / 2;
    }
    pads[axis] = leading;
    pads[axis + 2] = std::max<std::int64_t>(needed - leading, 0);
  }
  return pads;
}

std::vector<Sizes> infer_sizes(const Graph& graph, const std::vector<Sizes>& input_sizes) {
  std::vector<Sizes> known(graph.values.size());
  for (std::size_t i = 0; i < graph.values.size(); ++i) {
    if (graph.values[i].constant) known[i] = graph.values[i].sizes;
  }
  for (std::size_t i = 0; i < graph.inputs.size(); ++i) {
    known[static_cast<std::size_t>(graph.inputs[i].value)] = input_sizes[i];
  }
  for (const Node& node : graph.nodes) {
    known[static_cast<std::size_t>(node.output)] = node_sizes(graph, node, known);
  }
  return known;
}

}  // namespace ostrel::onnx_graph
