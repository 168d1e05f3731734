// Nodes of an ONNX model: operators and their attributes.
#pragma once

#include <onnx/onnx_pb.h>
#include <onnx_graph/graph.h>

namespace ostrel::onnx_graph {

// `inputs` holds the indices of the node's values, -1 for an optional one that is left out. Fills everything but
// `output`. Throws ModelError for an unsupported operator or attribute.
Node read_node(const onnx::NodeProto& proto, const std::vector<int>& inputs, const Graph& graph);

}  // namespace ostrel::onnx_graph
