// An ONNX model as its exporter wrote it: nodes by name, constants by name. Keeps protobuf out of its users'
// sources.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "onnx_model_builder.h"

namespace ostrel::backbone {

// A tensor that the model holds: 32-bit floats, whole numbers of 64 bits, or of a type whose values are not read.
struct SourceConstant {
  Shape shape;
  std::vector<float> reals;
  std::vector<std::int64_t> integers;
  std::string other_type;  // "FLOAT16"; empty where the values were read
  bool elsewhere = false;  // in another file; no values then
};

struct SourceNode {
  std::string operation;             // "domain.name" for one of another domain
  std::string name;                  // of the node, or of its first output where it has none
  std::vector<std::string> inputs;   // empty where an optional one is left out
  std::vector<std::string> outputs;  // the first one is what counts; training outputs may follow
  NodeAttributes attributes;
};

struct SourcePort {
  std::string name;
  Shape shape;  // -1 where a size is named or left out; empty where nothing is said
};

struct SourceGraph {
  std::vector<SourceNode>
      nodes;  // without Constant, Identity and Dropout, whose results carry the source's name
  std::map<std::string, SourceConstant> constants;
  std::vector<SourcePort> inputs;  // without those that carry a constant's name
  std::vector<SourcePort> outputs;
  std::int64_t opset = 0;  // of the standard operators; 0 where none is named
  std::string producer;
  std::map<std::string, std::string> metadata;
  std::map<std::string, int>
      operations;  // how often each occurs, those that are left out of `nodes` included
};

// Throws ModelError for bytes that are no ONNX model, and for tensors with a wrong amount of data.
SourceGraph read_source_graph(const std::string& bytes);

// "[1, 3, ?, ?]"
std::string shape_text(const Shape& shape);

}  // namespace ostrel::backbone
