#include "plain_operators.h"

namespace ostrel::tensorrt_onednn {
namespace {

template <typename Combine>
void combine_row(const ArithmeticAxis& axis, const float* first, const float* second, float* target,
                 Combine combine) {
  const std::int64_t count = axis.size;
  if (axis.first_step == 1 && axis.second_step == 1) {
    for (std::int64_t i = 0; i < count; ++i) target[i] = combine(first[i], second[i]);
  } else if (axis.first_step == 1 && axis.second_step == 0) {
    const float value = *second;
    for (std::int64_t i = 0; i < count; ++i) target[i] = combine(first[i], value);
  } else {
    for (std::int64_t i = 0; i < count; ++i) {
      target[i] = combine(first[i * axis.first_step], second[i * axis.second_step]);
    }
  }
}

void run_row(Operator op, const ArithmeticAxis& axis, const float* first, const float* second,
             float* target) {
  switch (op) {
    case Operator::kAdd:
      combine_row(axis, first, second, target, [](float a, float b) { return a + b; });
      break;
    case Operator::kSubtract:
      combine_row(axis, first, second, target, [](float a, float b) { return a - b; });
      break;
    case Operator::kMultiply:
      combine_row(axis, first, second, target, [](float a, float b) { return a * b; });
      break;
    default:
      combine_row(axis, first, second, target, [](float a, float b) { return a / b; });
      break;
  }
}

// A share of 0 must not let an infinite neighbour in.
float blend(float first, float second, float second_share) {
  return second_share == 0.0F ? first : first + (second - first) * second_share;
}

float blend(const float* line, const ResizeTap& tap) {
  return blend(line[tap.first], line[tap.second], tap.second_share);
}

}  // namespace

Arithmetic::Arithmetic(Operator op, const Sizes& first, const Sizes& second, const Sizes& target)
    : op_(op), axes_(arithmetic_axes(first, second, target)) {}

void Arithmetic::run_rows(std::size_t axis, const float* first, const float* second, float** target) const {
  const ArithmeticAxis& here = axes_[axis];
  if (axis + 1 == axes_.size()) {
    run_row(op_, here, first, second, *target);
    *target += here.size;
    return;
  }
  for (std::int64_t i = 0; i < here.size; ++i) {
    run_rows(axis + 1, first + i * here.first_step, second + i * here.second_step, target);
  }
}

void Arithmetic::run(const float* first, const float* second, float* target) const {
  run_rows(0, first, second, &target);
}

Resize::Resize(const ResizeRule& rule, const Sizes& source, const Sizes& target)
    : planes_(source[0] * source[1]),
      source_height_(source[2]),
      source_width_(source[3]),
      rows_(resize_taps(rule, 2, source, target)),
      columns_(resize_taps(rule, 3, source, target)) {}

void Resize::run(const float* source, float* target) const {
  for (std::int64_t plane = 0; plane < planes_; ++plane, source += source_height_ * source_width_) {
    for (const ResizeTap& row : rows_) {
      const float* upper = source + row.first * source_width_;
      const float* lower = source + row.second * source_width_;
      for (const ResizeTap& column : columns_) {
        *target++ = blend(blend(upper, column), blend(lower, column), row.second_share);
      }
    }
  }
}

}  // namespace ostrel::tensorrt_onednn
