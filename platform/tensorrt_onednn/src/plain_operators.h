// Operators on plain row-major 32-bit floats, for what oneDNN has no general form of.
#pragma once

#include <operator_maps.h>

#include "graph_names.h"

namespace ostrel::tensorrt_onednn {

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
