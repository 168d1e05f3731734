// What an engine holds; shared by its contexts and by work on its way.
#pragma once

#include <loaded_graph.h>

#include "graph_names.h"
#include "packed_weights.h"

namespace ostrel::tensorrt_onednn {

struct Network : LoadedGraph {
  bool bfloat16 = false;  // asked for, and the processor has it
  PackedWeights weights;
};

// Whether the processor multiplies bfloat16 (AVX512_BF16).
bool processor_has_bfloat16();

// Reads, checks and simplifies; throws ModelError.
void load_network(const void* bytes, std::size_t size, Network* network);

}  // namespace ostrel::tensorrt_onednn
