// Operators on plain row-major 32-bit floats, for what oneDNN has no general form of.
#pragma once

#include "graph_names.h"

namespace ostrel::tensorrt_onednn {

// One dimension of an element-wise operation, with the steps of both operands; a step of 0 repeats.
struct ArithmeticAxis {
  std::int64_t size = 1;
  std::int64_t first_step = 0;
  std::int64_t second_step = 0;
};

// target = first (op) second, element by element, with the broadcasting rules of ONNX.
class Arithmetic {
 public:
  // `op` is kAdd, kSubtract, kMultiply or kDivide; sizes are known and match.
  Arithmetic(Operator op, const Sizes& first, const Sizes& second, const Sizes& target);
  // The target may be an operand of its own size.
  void run(const float* first, const float* second, float* target) const;

 private:
  void run_rows(std::size_t axis, const float* first, const float* second, float** target) const;

  Operator op_;
  std::vector<ArithmeticAxis> axes_;  // outermost first; neighbours are joined where both operands allow it
};

// Where a target row or column comes from: two source positions and the share of the second.
struct ResizeTap {
  std::int64_t first = 0;
  std::int64_t second = 0;
  float second_share = 0.0F;
};

// Nearest or linear resampling of maps, by the coordinate rules of ONNX.
class Resize {
 public:
  Resize(const ResizeRule& rule, const Sizes& source, const Sizes& target);
  void run(const float* source, float* target) const;

 private:
  std::int64_t planes_;
  std::int64_t source_height_;
  std::int64_t source_width_;
  std::vector<ResizeTap> rows_;
  std::vector<ResizeTap> columns_;
};

}  // namespace ostrel::tensorrt_onednn
