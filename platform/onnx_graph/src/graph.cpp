#include <onnx_graph/graph.h>

namespace ostrel::onnx_graph {

std::int64_t element_count(const Sizes& sizes) {
  constexpr std::int64_t kLargestCount = std::int64_t{1} << 40;
  std::int64_t count = 1;
  for (const std::int64_t size : sizes) {
    if (size < 0 || size > kLargestSize)
      throw ModelError("shape " + to_text(sizes) + " has no element count");
    count *= size;
    if (count > kLargestCount) throw ModelError("shape " + to_text(sizes) + " is too large");
  }
  return count;
}

std::vector<int> use_counts(const Graph& graph) {
  std::vector<int> counts(graph.values.size(), 0);
  for (const Node& node : graph.nodes) {
    for (const int value : node.inputs) ++counts[static_cast<std::size_t>(value)];
  }
  for (const Port& port : graph.outputs) ++counts[static_cast<std::size_t>(port.value)];
  return counts;
}

std::string to_text(const Sizes& sizes) {
  std::string text = "[";
  for (std::size_t i = 0; i < sizes.size(); ++i) {
    if (i != 0) text += ", ";
    text += sizes[i] < 0 ? std::string("?") : std::to_string(sizes[i]);
  }
  return text + "]";
}

}  // namespace ostrel::onnx_graph
