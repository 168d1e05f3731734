#include "plain_operators.h"

#include <algorithm>
#include <cmath>

namespace ostrel::tensorrt_onednn {
namespace {

// Steps of an operand along the target's axes; 0 where it repeats.
Sizes operand_steps(const Sizes& operand, const Sizes& target) {
  Sizes steps(target.size(), 0);
  std::int64_t step = 1;
  const std::size_t missing = target.size() - operand.size();
  for (std::size_t i = operand.size(); i-- > 0;) {
    if (operand[i] != 1) steps[i + missing] = step;
    step *= operand[i];
  }
  return steps;
}

bool continues(std::int64_t outer_step, const ArithmeticAxis& inner, std::int64_t inner_step) {
  return outer_step == inner_step * inner.size;
}

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

// Position in the source that a target position stands for.
double source_position(const ResizeRule& rule, std::int64_t position, std::int64_t source,
                       std::int64_t target, double scale) {
  const auto place = static_cast<double>(position);
  switch (rule.coordinates) {
    case Coordinates::kAlignCorners:
      return target == 1 ? 0.0 : place * static_cast<double>(source - 1) / static_cast<double>(target - 1);
    case Coordinates::kAsymmetric:
      return place / scale;
    case Coordinates::kPytorchHalfPixel:
      return target == 1 ? 0.0 : (place + 0.5) / scale - 0.5;
    default:
      return (place + 0.5) / scale - 0.5;
  }
}

double nearest(NearestRounding rounding, double position) {
  switch (rounding) {
    case NearestRounding::kFloor:
      return std::floor(position);
    case NearestRounding::kCeil:
      return std::ceil(position);
    case NearestRounding::kRoundPreferCeil:
      return std::floor(position + 0.5);
    default:
      return std::ceil(position - 0.5);
  }
}

std::vector<ResizeTap> resize_taps(const ResizeRule& rule, std::int64_t source, std::int64_t target,
                                   double scale) {
  std::vector<ResizeTap> taps;
  const auto inside = [source](double position) {
    return std::clamp<std::int64_t>(static_cast<std::int64_t>(position), 0, source - 1);
  };
  for (std::int64_t i = 0; i < target; ++i) {
    const double position = source_position(rule, i, source, target, scale);
    if (!rule.linear) {
      const std::int64_t chosen = inside(nearest(rule.rounding, position));
      taps.push_back({chosen, chosen, 0.0F});
      continue;
    }
    const double clamped = std::clamp(position, 0.0, static_cast<double>(source - 1));
    const double lower = std::floor(clamped);
    taps.push_back({inside(lower), inside(lower + 1.0), static_cast<float>(clamped - lower)});
  }
  return taps;
}

double axis_scale(const ResizeRule& rule, std::size_t axis, const Sizes& source, const Sizes& target) {
  if (!rule.scales.empty()) return static_cast<double>(rule.scales[axis]);
  return static_cast<double>(target[axis]) / static_cast<double>(source[axis]);
}

// A share of 0 must not let an infinite neighbour in.
float blend(float first, float second, float second_share) {
  return second_share == 0.0F ? first : first + (second - first) * second_share;
}

float blend(const float* line, const ResizeTap& tap) {
  return blend(line[tap.first], line[tap.second], tap.second_share);
}

}  // namespace

Arithmetic::Arithmetic(Operator op, const Sizes& first, const Sizes& second, const Sizes& target) : op_(op) {
  const Sizes first_steps = operand_steps(first, target);
  const Sizes second_steps = operand_steps(second, target);
  for (std::size_t i = target.size(); i-- > 0;) {
    const ArithmeticAxis axis{target[i], first_steps[i], second_steps[i]};
    if (axis.size == 1) continue;
    if (!axes_.empty() && continues(axis.first_step, axes_.front(), axes_.front().first_step) &&
        continues(axis.second_step, axes_.front(), axes_.front().second_step)) {
      axes_.front().size *= axis.size;
    } else {
      axes_.insert(axes_.begin(), axis);
    }
  }
  if (axes_.empty()) axes_.push_back({1, 1, 1});
}

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
      rows_(resize_taps(rule, source[2], target[2], axis_scale(rule, 2, source, target))),
      columns_(resize_taps(rule, source[3], target[3], axis_scale(rule, 3, source, target))) {}

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
