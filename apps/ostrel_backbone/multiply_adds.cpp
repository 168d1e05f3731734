#include "multiply_adds.h"

#include <onnx_graph/onnx_reader.h>
#include <onnx_graph/shape_inference.h>

namespace ostrel::backbone {
namespace {

using onnx_graph::Graph;
using onnx_graph::Node;
using onnx_graph::Sizes;

std::vector<Sizes> one_sample(const Graph& graph, int side) {
  std::vector<Sizes> inputs;
  for (const auto& port : graph.inputs) {
    Sizes sizes = graph.values[static_cast<std::size_t>(port.value)].sizes;
    for (std::size_t i = 0; i < sizes.size(); ++i) {
      if (i == 0) sizes[i] = 1;
      if (sizes[i] < 0) sizes[i] = i == 1 ? 3 : side;
    }
    inputs.push_back(std::move(sizes));
  }
  return inputs;
}

// Every element of the target is a sum over one filter.
double node_work(const Graph& graph, const Node& node, const std::vector<Sizes>& sizes) {
  if (node.op != onnx_graph::Operator::kConvolution) return 0.0;
  const Sizes& weights = graph.values[static_cast<std::size_t>(node.inputs[1])].sizes;
  double work = static_cast<double>(weights[1] * weights[2] * weights[3]);
  for (const std::int64_t size : sizes[static_cast<std::size_t>(node.output)])
    work *= static_cast<double>(size);
  return work;
}

// Backwards from the value; a node that several paths lead to counts once.
double work_behind(const Graph& graph, int value, const std::vector<Sizes>& sizes) {
  std::vector<bool> needed(graph.values.size(), false);
  needed[static_cast<std::size_t>(value)] = true;
  double work = 0.0;
  for (std::size_t i = graph.nodes.size(); i-- > 0;) {
    const Node& node = graph.nodes[i];
    if (!needed[static_cast<std::size_t>(node.output)]) continue;
    work += node_work(graph, node, sizes);
    for (const int input : node.inputs) {
      if (input >= 0) needed[static_cast<std::size_t>(input)] = true;
    }
  }
  return work;
}

double layer_work(const Convolution& layer, int target_side) {
  const double filters = static_cast<double>(layer.weights_per_output()) * layer.out_channels;
  return filters * target_side * target_side;
}

}  // namespace

CountedModel count_multiply_adds(const std::string& bytes, int side) {
  const Graph graph = onnx_graph::read_onnx(bytes.data(), bytes.size());
  const std::vector<Sizes> sizes = infer_sizes(graph, one_sample(graph, side));
  CountedModel counted;
  for (const Node& node : graph.nodes) counted.multiply_adds += node_work(graph, node, sizes);
  for (const auto& port : graph.outputs) {
    counted.outputs.push_back(
        {port.name, sizes[static_cast<std::size_t>(port.value)], work_behind(graph, port.value, sizes)});
  }
  return counted;
}

double trunk_multiply_adds(const TrunkNetwork& trunk, int side) {
  double work = layer_work(trunk.stem, strided_size(side, trunk.stem.kernel, trunk.stem.stride));
  for (std::size_t i = 0; i < trunk.stages.size(); ++i) {
    const int target_side = map_side(trunk, i, side);
    for (const ResidualBlock& block : trunk.stages[i].blocks) {
      work += layer_work(block.first, target_side) + layer_work(block.second, target_side);
      if (block.has_shortcut) work += layer_work(block.shortcut, target_side);
    }
  }
  return work;
}

}  // namespace ostrel::backbone
