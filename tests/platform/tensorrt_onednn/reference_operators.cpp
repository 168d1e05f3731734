#include "platform/tensorrt_onednn/reference_operators.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace ostrel::testing {
namespace {

std::size_t index4(const Shape& shape, std::int64_t n, std::int64_t c, std::int64_t y, std::int64_t x) {
  return static_cast<std::size_t>(((n * shape[1] + c) * shape[2] + y) * shape[3] + x);
}

bool inside(const Shape& shape, std::int64_t y, std::int64_t x) {
  return y >= 0 && y < shape[2] && x >= 0 && x < shape[3];
}

// Calls body(n, c, y, x) for each element of a map.
template <typename Body>
void for_each_element(const Shape& shape, Body body) {
  for (std::int64_t n = 0; n < shape[0]; ++n) {
    for (std::int64_t c = 0; c < shape[1]; ++c) {
      for (std::int64_t y = 0; y < shape[2]; ++y) {
        for (std::int64_t x = 0; x < shape[3]; ++x) body(n, c, y, x);
      }
    }
  }
}

// Element of an operand for an element of the broadcast result.
double operand_element(const Tensor& operand, const Shape& shape, std::size_t element) {
  std::size_t index = 0;
  std::size_t step = 1;
  std::size_t rest = element;
  for (std::size_t i = 0; i < shape.size(); ++i) {
    const auto size = static_cast<std::size_t>(shape[shape.size() - 1 - i]);
    const std::size_t position = rest % size;
    rest /= size;
    if (i >= operand.shape.size()) continue;
    const auto own = static_cast<std::size_t>(operand.shape[operand.shape.size() - 1 - i]);
    if (own != 1) index += position * step;
    step *= own;
  }
  return operand.values[index];
}

double source_position(const std::string& coordinates, double place, double scale, double source,
                       double target) {
  if (coordinates == "asymmetric") return place / scale;
  if (coordinates == "align_corners") return target == 1.0 ? 0.0 : place * (source - 1.0) / (target - 1.0);
  if (coordinates == "pytorch_half_pixel" && target == 1.0) return 0.0;
  return (place + 0.5) / scale - 0.5;
}

double rounded(const std::string& rounding, double position) {
  const double fraction = position - std::floor(position);
  if (rounding == "floor") return std::floor(position);
  if (rounding == "ceil") return std::ceil(position);
  if (fraction == 0.5) return rounding == "round_prefer_floor" ? std::floor(position) : std::ceil(position);
  return std::round(position);
}

double linear_element(const Tensor& source, std::int64_t n, std::int64_t c, double y, double x) {
  double sum = 0.0;
  for (std::int64_t row = 0; row < source.shape[2]; ++row) {
    for (std::int64_t column = 0; column < source.shape[3]; ++column) {
      const double weight = std::max(0.0, 1.0 - std::abs(y - static_cast<double>(row))) *
                            std::max(0.0, 1.0 - std::abs(x - static_cast<double>(column)));
      sum += weight * source.values[index4(source.shape, n, c, row, column)];
    }
  }
  return sum;
}

}  // namespace

Tensor reference_convolution(const Tensor& source, const Tensor& weights, const std::vector<float>& bias,
                             const ReferenceWindow& window, std::int64_t groups, std::int64_t height,
                             std::int64_t width) {
  const std::int64_t out_per_group = weights.shape[0] / groups;
  Tensor target{{source.shape[0], weights.shape[0], height, width}, {}};
  for_each_element(target.shape, [&](std::int64_t n, std::int64_t c, std::int64_t y, std::int64_t x) {
    double sum = bias.empty() ? 0.0 : bias[static_cast<std::size_t>(c)];
    for (std::int64_t in = 0; in < weights.shape[1]; ++in) {
      for (std::int64_t ky = 0; ky < weights.shape[2]; ++ky) {
        for (std::int64_t kx = 0; kx < weights.shape[3]; ++kx) {
          const std::int64_t row = y * window.stride_y + ky * window.dilation_y - window.top;
          const std::int64_t column = x * window.stride_x + kx * window.dilation_x - window.left;
          if (!inside(source.shape, row, column)) continue;
          const std::int64_t channel = c / out_per_group * weights.shape[1] + in;
          sum += static_cast<double>(weights.values[index4(weights.shape, c, in, ky, kx)]) *
                 source.values[index4(source.shape, n, channel, row, column)];
        }
      }
    }
    target.values.push_back(static_cast<float>(sum));
  });
  return target;
}

Tensor reference_max_pool(const Tensor& source, const ReferenceWindow& window, std::int64_t height,
                          std::int64_t width) {
  Tensor target{{source.shape[0], source.shape[1], height, width}, {}};
  for_each_element(target.shape, [&](std::int64_t n, std::int64_t c, std::int64_t y, std::int64_t x) {
    float best = -std::numeric_limits<float>::infinity();
    for (std::int64_t ky = 0; ky < window.kernel_height; ++ky) {
      for (std::int64_t kx = 0; kx < window.kernel_width; ++kx) {
        const std::int64_t row = y * window.stride_y + ky * window.dilation_y - window.top;
        const std::int64_t column = x * window.stride_x + kx * window.dilation_x - window.left;
        if (inside(source.shape, row, column)) {
          best = std::max(best, source.values[index4(source.shape, n, c, row, column)]);
        }
      }
    }
    target.values.push_back(best);
  });
  return target;
}

Tensor reference_arithmetic(char operation, const Tensor& first, const Tensor& second) {
  Tensor target;
  target.shape.resize(std::max(first.shape.size(), second.shape.size()), 1);
  for (const Tensor* operand : {&first, &second}) {
    const std::size_t missing = target.shape.size() - operand->shape.size();
    for (std::size_t i = 0; i < operand->shape.size(); ++i) {
      target.shape[i + missing] = std::max(target.shape[i + missing], operand->shape[i]);
    }
  }
  for (std::size_t i = 0; i < element_count(target.shape); ++i) {
    const double a = operand_element(first, target.shape, i);
    const double b = operand_element(second, target.shape, i);
    const double result = operation == '+'   ? a + b
                          : operation == '-' ? a - b
                          : operation == '*' ? a * b
                                             : a / b;
    target.values.push_back(static_cast<float>(result));
  }
  return target;
}

Tensor reference_relu(const Tensor& source) {
  Tensor target = source;
  for (float& value : target.values) value = std::max(value, 0.0F);
  return target;
}

Tensor reference_resize(const Tensor& source, const std::string& coordinates, const std::string& rounding,
                        double scale_y, double scale_x, std::int64_t height, std::int64_t width) {
  Tensor target{{source.shape[0], source.shape[1], height, width}, {}};
  const auto source_height = static_cast<double>(source.shape[2]);
  const auto source_width = static_cast<double>(source.shape[3]);
  for_each_element(target.shape, [&](std::int64_t n, std::int64_t c, std::int64_t row, std::int64_t column) {
    double y = source_position(coordinates, static_cast<double>(row), scale_y, source_height,
                               static_cast<double>(height));
    double x = source_position(coordinates, static_cast<double>(column), scale_x, source_width,
                               static_cast<double>(width));
    if (!rounding.empty()) {
      y = rounded(rounding, y);
      x = rounded(rounding, x);
    }
    y = std::clamp(y, 0.0, source_height - 1.0);
    x = std::clamp(x, 0.0, source_width - 1.0);
    target.values.push_back(static_cast<float>(linear_element(source, n, c, y, x)));
  });
  return target;
}

}  // namespace ostrel::testing
