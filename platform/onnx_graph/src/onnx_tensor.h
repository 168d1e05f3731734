// Constants of an ONNX model.
#pragma once

#include <onnx/onnx_pb.h>
#include <onnx_graph/graph.h>

namespace ostrel::onnx_graph {

// Throws ModelError for another element type than FLOAT or INT64, data outside the model, or a wrong count.
Value read_constant(const std::string& name, const onnx::TensorProto& tensor);

}  // namespace ostrel::onnx_graph
