// The operators as plain loops in double precision, after the definitions of ONNX.
#pragma once

#include "platform/tensorrt_onednn/engine_fixture.h"

namespace ostrel::testing {

struct ReferenceWindow {
  std::int64_t kernel_height = 1;
  std::int64_t kernel_width = 1;
  std::int64_t stride_y = 1;
  std::int64_t stride_x = 1;
  std::int64_t dilation_y = 1;
  std::int64_t dilation_x = 1;
  std::int64_t top = 0;
  std::int64_t left = 0;
};

// `weights`: out, in / groups, rows, columns. `height` and `width` are those of the result.
Tensor reference_convolution(const Tensor& source, const Tensor& weights, const std::vector<float>& bias,
                             const ReferenceWindow& window, std::int64_t groups, std::int64_t height,
                             std::int64_t width);

Tensor reference_max_pool(const Tensor& source, const ReferenceWindow& window, std::int64_t height,
                          std::int64_t width);

// `operation`: '+', '-', '*' or '/', with broadcasting.
Tensor reference_arithmetic(char operation, const Tensor& first, const Tensor& second);

Tensor reference_relu(const Tensor& source);

// `coordinates` and `rounding` are ONNX's names; an empty rounding stands for linear.
Tensor reference_resize(const Tensor& source, const std::string& coordinates, const std::string& rounding,
                        double scale_y, double scale_x, std::int64_t height, std::int64_t width);

}  // namespace ostrel::testing
