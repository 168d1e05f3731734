#include "layers.h"

namespace ostrel::tensorrt_parts {
namespace {

class LayerMaker {
 public:
  LayerMaker(const Graph& graph, const std::vector<Sizes>& sizes)
      : graph_(graph),
        sizes_(sizes),
        uses_(use_counts(graph)),
        joined_(graph.nodes.size(), false),
        available_(graph.values.size(), false) {
    for (const Port& port : graph.inputs) available_[static_cast<std::size_t>(port.value)] = true;
  }

  std::vector<Layer> make() {
    for (std::size_t i = 0; i < graph_.nodes.size(); ++i) {
      if (joined_[i]) continue;
      Layer layer{&graph_.nodes[i], graph_.nodes[i].output, -1, false};
      if (layer.node->op == Operator::kConvolution) {
        join_addition(&layer);
        join_relu(&layer);
      }
      available_[static_cast<std::size_t>(layer.target)] = true;
      layers_.push_back(layer);
    }
    return std::move(layers_);
  }

 private:
  // The one node that reads the value, or the node count when there is another reader.
  std::size_t only_reader(int value) const {
    if (uses_[static_cast<std::size_t>(value)] != 1) return graph_.nodes.size();
    for (std::size_t i = 0; i < graph_.nodes.size(); ++i) {
      for (const int input : graph_.nodes[i].inputs) {
        if (input == value) return i;
      }
    }
    return graph_.nodes.size();
  }

  void join(Layer* layer, std::size_t reader) {
    joined_[reader] = true;
    layer->target = graph_.nodes[reader].output;
  }

  void join_addition(Layer* layer) {
    const std::size_t reader = only_reader(layer->target);
    if (reader == graph_.nodes.size() || graph_.nodes[reader].op != Operator::kAdd) return;
    const Node& sum = graph_.nodes[reader];
    const int other = sum.inputs[0] == layer->target ? sum.inputs[1] : sum.inputs[0];
    const auto index = static_cast<std::size_t>(other);
    if (!available_[index] || sizes_[index] != sizes_[static_cast<std::size_t>(layer->target)]) return;
    layer->residual = other;
    join(layer, reader);
  }

  void join_relu(Layer* layer) {
    const std::size_t reader = only_reader(layer->target);
    if (reader == graph_.nodes.size() || graph_.nodes[reader].op != Operator::kRelu) return;
    layer->rectify = true;
    join(layer, reader);
  }

  const Graph& graph_;
  const std::vector<Sizes>& sizes_;
  std::vector<int> uses_;
  std::vector<bool> joined_;
  std::vector<bool> available_;
  std::vector<Layer> layers_;
};

}  // namespace

std::vector<Layer> make_layers(const Graph& graph, const std::vector<Sizes>& sizes) {
  return LayerMaker(graph, sizes).make();
}

}  // namespace ostrel::tensorrt_parts
