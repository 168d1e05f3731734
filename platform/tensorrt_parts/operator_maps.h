// Where elements of the plain operators come from, settled once for known sizes.
#pragma once

#include "graph_names.h"

namespace ostrel::tensorrt_parts {

// One dimension of an element-wise operation, with the steps of both operands; a step of 0 repeats.
struct ArithmeticAxis {
  std::int64_t size = 1;
  std::int64_t first_step = 0;
  std::int64_t second_step = 0;
};

// The broadcasting of ONNX, outermost dimension first; neighbours are joined where both operands allow it. Never
// empty.
std::vector<ArithmeticAxis> arithmetic_axes(const Sizes& first, const Sizes& second, const Sizes& target);

// Where a target row or column comes from: two source positions and the share of the second.
struct ResizeTap {
  std::int64_t first = 0;
  std::int64_t second = 0;
  float second_share = 0.0F;
};

// The coordinate rules of ONNX for one axis of a map (2: rows, 3: columns), one tap per target position.
std::vector<ResizeTap> resize_taps(const ResizeRule& rule, std::size_t axis, const Sizes& source,
                                   const Sizes& target);

}  // namespace ostrel::tensorrt_parts
