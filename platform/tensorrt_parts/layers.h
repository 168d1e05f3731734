// What is run: the graph's nodes, joined where one pass can do the work of several.
#pragma once

#include "graph_names.h"

namespace ostrel::tensorrt_parts {

struct Layer {
  const Node* node = nullptr;  // in the graph, which must outlive the layer
  int target = -1;             // the value that the layer gives, with what was joined to it
  int residual = -1;           // of a convolution: the value added to its result, -1 for none
  bool rectify = false;        // of a convolution: negative results become zero, after the addition
};

// Joins to a convolution an Add of another value of the same shape that is there already, and a Relu, where nothing
// else reads what lies between. `sizes`: one entry per value, all known.
std::vector<Layer> make_layers(const Graph& graph, const std::vector<Sizes>& sizes);

}  // namespace ostrel::tensorrt_parts
