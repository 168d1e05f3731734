// Counts a model's work and settles the sizes of its outputs.
#pragma once

#include <onnx_graph/graph.h>

#include <string>
#include <vector>

#include "trunk_network.h"

namespace ostrel::backbone {

struct CountedOutput {
  std::string name;
  onnx_graph::Sizes sizes;  // for one sample
  double multiply_adds = 0.0;
};

struct CountedModel {
  double multiply_adds = 0.0;  // of convolutions; a fused sum or maximum is none
  std::vector<CountedOutput> outputs;
};

// For one sample, and for maps of `side` x `side` where the model leaves them open. Throws onnx_graph::ModelError for
// a model that the runtime of the PC does not read.
CountedModel count_multiply_adds(const std::string& bytes, int side);

// The same for a trunk up to its last stage.
double trunk_multiply_adds(const TrunkNetwork& trunk, int side);

}  // namespace ostrel::backbone
