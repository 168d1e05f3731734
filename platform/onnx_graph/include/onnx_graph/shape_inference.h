// Sizes of every value of a graph from those of its inputs.
#pragma once

#include <onnx_graph/graph.h>

namespace ostrel::onnx_graph {

// `input_sizes` has the order of graph.inputs; unknown sizes spread. One entry per value is returned. Throws
// ModelError where sizes contradict each other or an output would have no element.
std::vector<Sizes> infer_sizes(const Graph& graph, const std::vector<Sizes>& input_sizes);

// The window's padding for a map of these sizes (rows, columns), automatic padding resolved: top, left, bottom,
// right. The last two are what the windows really reach beyond the map, so they grow where sizes round up.
Sizes resolved_padding(const Window& window, const Sizes& map_sizes);

// Rows or columns that the window gives.
std::int64_t window_output(const Window& window, std::size_t axis, std::int64_t size);

}  // namespace ostrel::onnx_graph
