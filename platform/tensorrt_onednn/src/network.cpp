#include "network.h"

#include <onnx_graph/graph_simplifier.h>
#include <onnx_graph/onnx_reader.h>
#include <onnx_graph/shape_inference.h>

namespace ostrel::tensorrt_onednn {
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

bool processor_has_bfloat16() {
  const dnnl::cpu_isa isa = dnnl::get_effective_cpu_isa();
  return isa == dnnl::cpu_isa::avx512_core_bf16 || isa == dnnl::cpu_isa::avx512_core_amx;
}

void load_network(const void* bytes, std::size_t size, Network* network) {
  network->graph = read_onnx(bytes, size);
  const std::vector<Sizes> inputs = declared_input_sizes(network->graph);
  simplify(&network->graph, infer_sizes(network->graph, inputs));
  check_identity_outputs(network->graph);
  network->sizes = infer_sizes(network->graph, inputs);
  network->bfloat16 = network->graph.precision == Precision::kBfloat16 && processor_has_bfloat16();
}

}  // namespace ostrel::tensorrt_onednn
