// A model made ready to be planned.
#pragma once

#include "graph_names.h"

namespace ostrel::tensorrt_parts {

struct LoadedGraph {
  Graph graph;               // simplified; not changed any more
  std::vector<Sizes> sizes;  // of every value, as far as the model settles them
};

// Reads, checks and simplifies; throws ModelError.
void load_graph(const void* bytes, std::size_t size, LoadedGraph* loaded);

}  // namespace ostrel::tensorrt_parts
