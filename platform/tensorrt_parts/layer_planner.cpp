#include "layer_planner.h"

#include <onnx_graph/shape_inference.h>

namespace ostrel::tensorrt_parts {
namespace {

// Calls visit(value) for every value that the layer reads.
template <typename Visit>
void for_each_read(const Layer& layer, Visit visit) {
  for (const int input : layer.node->inputs) visit(input);
  if (layer.residual >= 0) visit(layer.residual);
}

}  // namespace

LayerPlanner::LayerPlanner(const Graph& graph, const std::vector<Sizes>& input_sizes)
    : graph_(graph), sizes_(infer_sizes(graph, input_sizes)), reads_left_(graph.values.size(), 0) {
  for (const Node& node : graph.nodes) element_count(sizes_of(node.output));
}

void LayerPlanner::plan_layers() {
  const std::vector<Layer> layers = make_layers(graph_, sizes_);
  count_reads(layers);
  for (std::size_t i = 0; i < graph_.inputs.size(); ++i) place_input(graph_.inputs[i].value, port_buffer(i));
  for (const Port& port : graph_.inputs) write_outputs(port.value);
  for (const Layer& layer : layers) add_layer(layer);
}

void LayerPlanner::count_reads(const std::vector<Layer>& layers) {
  for (const Layer& layer : layers) {
    for_each_read(layer, [this](int value) { ++reads_left_[static_cast<std::size_t>(value)]; });
  }
}

void LayerPlanner::add_layer(const Layer& layer) {
  for_each_read(layer, [this](int value) { --reads_left_[static_cast<std::size_t>(value)]; });
  switch (layer.node->op) {
    case Operator::kConvolution:
      add_convolution(layer);
      break;
    case Operator::kMaxPool:
      add_max_pool(layer);
      break;
    case Operator::kRelu:
      add_relu(layer);
      break;
    case Operator::kResize:
      add_resize(layer);
      break;
    default:
      add_arithmetic(layer);
      break;
  }
  write_outputs(layer.target);
}

void LayerPlanner::write_outputs(int value) {
  for (std::size_t i = 0; i < graph_.outputs.size(); ++i) {
    if (graph_.outputs[i].value == value) write_output(value, port_buffer(graph_.inputs.size() + i));
  }
}

bool LayerPlanner::may_overwrite(int value, int buffer) const {
  return reads_left_[static_cast<std::size_t>(value)] == 0 && port_of(buffer) < 0;
}

int LayerPlanner::new_buffer(std::size_t bytes) {
  Buffer buffer;
  buffer.lifetime.bytes = bytes;
  buffers_.push_back(buffer);
  return static_cast<int>(buffers_.size()) - 1;
}

int LayerPlanner::port_buffer(std::size_t port) {
  Buffer buffer;
  buffer.port = static_cast<int>(port);
  buffers_.push_back(buffer);
  return static_cast<int>(buffers_.size()) - 1;
}

void LayerPlanner::touch(int buffer, std::size_t step) {
  if (buffer < 0) return;
  Buffer& touched = buffers_[static_cast<std::size_t>(buffer)];
  if (!touched.touched) touched.lifetime.first_step = step;
  touched.touched = true;
  touched.lifetime.last_step = step;
}

std::size_t LayerPlanner::place_touched_buffers(std::size_t alignment) {
  std::vector<Lifetime> lifetimes;
  std::vector<Buffer*> owners;
  for (Buffer& buffer : buffers_) {
    if (buffer.port >= 0 || !buffer.touched) continue;
    lifetimes.push_back(buffer.lifetime);
    owners.push_back(&buffer);
  }
  const std::size_t bytes = place_buffers(&lifetimes, alignment);
  for (std::size_t i = 0; i < owners.size(); ++i) owners[i]->lifetime = lifetimes[i];
  return bytes;
}

}  // namespace ostrel::tensorrt_parts
