// Reads an ONNX model into a graph.
#pragma once

#include <cstddef>

#include <onnx_graph/graph.h>

namespace ostrel::onnx_graph {

// Throws ModelError with a text for bytes that are no whole, valid model, for an operator or an attribute that is
// not supported, and for tensors other than 32-bit floats. `Constant` nodes become constants. Operator sets 11 to
// 17; the metadata entry `precision` is `float32`, `bfloat16` or `float16`.
Graph read_onnx(const void* bytes, std::size_t size);

}  // namespace ostrel::onnx_graph
