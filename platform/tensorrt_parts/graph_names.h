// The graph's types under this library's own names.
#pragma once

#include <onnx_graph/graph.h>

namespace ostrel::tensorrt_parts {

using namespace onnx_graph;

}  // namespace ostrel::tensorrt_parts
