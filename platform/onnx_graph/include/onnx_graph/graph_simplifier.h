// Rewrites a graph into one with fewer operators and the same results.
#pragma once

#include <onnx_graph/graph.h>

namespace ostrel::onnx_graph {

// Afterwards no Identity and no BatchNormalization is left: the latter are folded into the convolution before them
// where nothing else reads that, and become a product and a sum elsewhere. Nodes that nothing reads are dropped.
// `sizes`: what infer_sizes gave for the graph.
void simplify(Graph* graph, const std::vector<Sizes>& sizes);

}  // namespace ostrel::onnx_graph
