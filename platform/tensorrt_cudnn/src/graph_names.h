// The graph's types, and what all runtimes share, under this library's own names.
#pragma once

#include <onnx_graph/graph.h>

namespace ostrel::tensorrt_parts {}

namespace ostrel::tensorrt_cudnn {

using namespace onnx_graph;
using namespace tensorrt_parts;

}  // namespace ostrel::tensorrt_cudnn
