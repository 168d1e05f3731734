// A network as read from a model: values and the nodes between them, in an order in which they can run.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace ostrel::onnx_graph {

// Sizes of a tensor; kUnknown where they are settled when the network runs.
using Sizes = std::vector<std::int64_t>;
constexpr std::int64_t kUnknown = -1;
constexpr std::int64_t kLargestSize = std::int64_t{1} << 24;

// What is wrong with a model, or with a shape that is asked of it.
class ModelError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

enum class Operator {
  kConvolution,
  kMaxPool,
  kAdd,
  kSubtract,
  kMultiply,
  kDivide,
  kRelu,
  kResize,
  kBatchNormalization,
  kIdentity,
};

enum class AutoPad { kExplicit, kValid, kSameUpper, kSameLower };

// The sliding window of a convolution or a pooling; rows first, then columns.
struct Window {
  Sizes kernel;
  Sizes strides{1, 1};
  Sizes dilations{1, 1};
  Sizes pads{0, 0, 0, 0};  // top, left, bottom, right
  AutoPad auto_pad = AutoPad::kExplicit;
  bool round_up = false;
  std::int64_t groups = 1;
};

enum class Coordinates { kHalfPixel, kPytorchHalfPixel, kAlignCorners, kAsymmetric };
enum class NearestRounding { kRoundPreferFloor, kRoundPreferCeil, kFloor, kCeil };

struct ResizeRule {
  bool linear = false;
  Coordinates coordinates = Coordinates::kHalfPixel;
  NearestRounding rounding = NearestRounding::kRoundPreferFloor;
  std::vector<float> scales;  // per dimension; empty when `sizes` is given
  Sizes sizes;
};

struct Node {
  Operator op = Operator::kIdentity;
  std::string name;
  std::vector<int> inputs;  // values
  int output = -1;
  Window window;
  ResizeRule resize;
  float epsilon = 1e-5F;
};

struct Value {
  std::string name;
  bool constant = false;
  Sizes sizes;                         // of constants and of inputs
  std::vector<float> reals;            // of a constant, row-major
  std::vector<std::int64_t> integers;  // of a constant of whole numbers
};

// A named input or output of the network. Two outputs may be one value.
struct Port {
  std::string name;
  int value = -1;
};

// What the model asks the runtime to calculate in, by its metadata; inputs and outputs are 32-bit floats always.
enum class Precision { kFloat32, kBfloat16, kFloat16 };

struct Graph {
  std::vector<Value> values;
  std::vector<Node> nodes;
  std::vector<Port> inputs;
  std::vector<Port> outputs;
  Precision precision = Precision::kFloat32;
};

// Product of the sizes; throws ModelError when one is unknown or the product is beyond any memory.
std::int64_t element_count(const Sizes& sizes);

// How often each value is read, by nodes and as an output of the network.
std::vector<int> use_counts(const Graph& graph);

// "[1, 3, ?, ?]"
std::string to_text(const Sizes& sizes);

}  // namespace ostrel::onnx_graph
