#include "loaded_graph.h"

#include <onnx_graph/graph_simplifier.h>
#include <onnx_graph/onnx_reader.h>
#include <onnx_graph/shape_inference.h>

namespace ostrel::tensorrt_parts {
namespace {

std::vector<Sizes> declared_input_sizes(const Graph& graph) {
  std::vector<Sizes> sizes;
  for (const Port& port : graph.inputs)
    sizes.push_back(graph.values[static_cast<std::size_t>(port.value)].sizes);
  return sizes;
}

// A constant can stretch a tensor that is an operand, but a whole output from constants alone has no use.
void check_identity_outputs(const Graph& graph) {
  for (const Port& port : graph.outputs) {
    if (graph.values[static_cast<std::size_t>(port.value)].constant) {
      throw ModelError("output \"" + port.name + "\" is a constant");
    }
  }
}

}  // namespace

void load_graph(const void* bytes, std::size_t size, LoadedGraph* loaded) {
  loaded->graph = read_onnx(bytes, size);
  const std::vector<Sizes> inputs = declared_input_sizes(loaded->graph);
  simplify(&loaded->graph, infer_sizes(loaded->graph, inputs));
  check_identity_outputs(loaded->graph);
  loaded->sizes = infer_sizes(loaded->graph, inputs);
}

}  // namespace ostrel::tensorrt_parts
