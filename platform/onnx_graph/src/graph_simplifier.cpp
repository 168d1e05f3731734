#include <onnx_graph/graph_simplifier.h>

#include <cmath>

namespace ostrel::onnx_graph {
namespace {

// y = scale * x + shift, per channel.
struct ChannelLine {
  std::vector<float> scale;
  std::vector<float> shift;
};

ChannelLine channel_line(const Graph& graph, const Node& node) {
  const auto parameter = [&](std::size_t index) -> const std::vector<float>& {
    return graph.values[static_cast<std::size_t>(node.inputs[index])].reals;
  };
  ChannelLine line;
  for (std::size_t i = 0; i < parameter(1).size(); ++i) {
    const double scale = parameter(1)[i] / std::sqrt(static_cast<double>(parameter(4)[i]) + node.epsilon);
    line.scale.push_back(static_cast<float>(scale));
    line.shift.push_back(static_cast<float>(parameter(2)[i] - scale * parameter(3)[i]));
  }
  return line;
}

int add_constant(Graph* graph, const std::string& name, const Sizes& sizes, std::vector<float> reals) {
  Value value;
  value.name = name;
  value.constant = true;
  value.sizes = sizes;
  value.reals = std::move(reals);
  graph->values.push_back(std::move(value));
  return static_cast<int>(graph->values.size()) - 1;
}

void replace_value(Graph* graph, int old_value, int new_value) {
  for (Node& node : graph->nodes) {
    for (int& input : node.inputs) {
      if (input == old_value) input = new_value;
    }
  }
  for (Port& port : graph->outputs) {
    if (port.value == old_value) port.value = new_value;
  }
}

void drop_identities(Graph* graph) {
  for (std::size_t i = 0; i < graph->nodes.size();) {
    if (graph->nodes[i].op != Operator::kIdentity) {
      ++i;
      continue;
    }
    const Node node = graph->nodes[i];
    graph->nodes.erase(graph->nodes.begin() + static_cast<std::ptrdiff_t>(i));
    replace_value(graph, node.output, node.inputs[0]);
  }
}

// Backwards, so that what only dropped nodes read goes too.
void drop_unread(Graph* graph) {
  std::vector<int> uses = use_counts(*graph);
  for (std::size_t i = graph->nodes.size(); i-- > 0;) {
    if (uses[static_cast<std::size_t>(graph->nodes[i].output)] != 0) continue;
    for (const int input : graph->nodes[i].inputs) --uses[static_cast<std::size_t>(input)];
    graph->nodes.erase(graph->nodes.begin() + static_cast<std::ptrdiff_t>(i));
  }
}

Node* producer(Graph* graph, int value) {
  for (Node& node : graph->nodes) {
    if (node.output == value) return &node;
  }
  return nullptr;
}

void fold_into(Graph* graph, const ChannelLine& line, Node* convolution) {
  const Value weights = graph->values[static_cast<std::size_t>(convolution->inputs[1])];
  const std::size_t channels = line.scale.size();
  const std::size_t per_channel = weights.reals.size() / channels;
  std::vector<float> scaled = weights.reals;
  std::vector<float> bias(channels, 0.0F);
  if (convolution->inputs.size() == 3)
    bias = graph->values[static_cast<std::size_t>(convolution->inputs[2])].reals;
  for (std::size_t channel = 0; channel < channels; ++channel) {
    for (std::size_t i = 0; i < per_channel; ++i) scaled[channel * per_channel + i] *= line.scale[channel];
    bias[channel] = bias[channel] * line.scale[channel] + line.shift[channel];
  }
  const int new_weights = add_constant(graph, weights.name + "_folded", weights.sizes, std::move(scaled));
  const int new_bias = add_constant(graph, weights.name + "_bias_folded",
                                    {static_cast<std::int64_t>(channels)}, std::move(bias));
  convolution->inputs = {convolution->inputs[0], new_weights, new_bias};
}

// Replaces the node by Mul and Add; `rank` is that of its input.
void replace_by_arithmetic(Graph* graph, const ChannelLine& line, std::size_t rank, std::size_t position) {
  const Node node = graph->nodes[position];
  Sizes sizes(rank, 1);
  sizes[1] = static_cast<std::int64_t>(line.scale.size());
  Value scaled;
  scaled.name = node.name + "_scaled";
  graph->values.push_back(scaled);
  Node product;
  product.op = Operator::kMultiply;
  product.name = node.name;
  product.output = static_cast<int>(graph->values.size()) - 1;
  product.inputs = {node.inputs[0], add_constant(graph, node.name + "_scale", sizes, line.scale)};
  Node sum;
  sum.op = Operator::kAdd;
  sum.name = node.name;
  sum.output = node.output;
  sum.inputs = {product.output, add_constant(graph, node.name + "_shift", sizes, line.shift)};
  graph->nodes[position] = std::move(product);
  graph->nodes.insert(graph->nodes.begin() + static_cast<std::ptrdiff_t>(position) + 1, std::move(sum));
}

void remove_batch_normalizations(Graph* graph, const std::vector<Sizes>& sizes) {
  for (std::size_t i = 0; i < graph->nodes.size();) {
    if (graph->nodes[i].op != Operator::kBatchNormalization) {
      ++i;
      continue;
    }
    const Node node = graph->nodes[i];
    const ChannelLine line = channel_line(*graph, node);
    Node* convolution = producer(graph, node.inputs[0]);
    const bool alone = use_counts(*graph)[static_cast<std::size_t>(node.inputs[0])] == 1;
    if (convolution != nullptr && convolution->op == Operator::kConvolution && alone) {
      fold_into(graph, line, convolution);
      graph->nodes.erase(graph->nodes.begin() + static_cast<std::ptrdiff_t>(i));
      replace_value(graph, node.output, convolution->output);
    } else {
      replace_by_arithmetic(graph, line, sizes[static_cast<std::size_t>(node.inputs[0])].size(), i);
      i += 2;
    }
  }
}

}  // namespace

void simplify(Graph* graph, const std::vector<Sizes>& sizes) {
  drop_identities(graph);
  remove_batch_normalizations(graph, sizes);
  drop_unread(graph);
}

}  // namespace ostrel::onnx_graph
