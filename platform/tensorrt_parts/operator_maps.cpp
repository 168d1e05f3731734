#include "operator_maps.h"

#include <algorithm>
#include <cmath>

namespace ostrel::tensorrt_parts {
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

std::vector<ResizeTap> axis_taps(const ResizeRule& rule, std::int64_t source, std::int64_t target,
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

}  // namespace

std::vector<ArithmeticAxis> arithmetic_axes(const Sizes& first, const Sizes& second, const Sizes& target) {
  std::vector<ArithmeticAxis> axes;
  const Sizes first_steps = operand_steps(first, target);
  const Sizes second_steps = operand_steps(second, target);
  for (std::size_t i = target.size(); i-- > 0;) {
    const ArithmeticAxis axis{target[i], first_steps[i], second_steps[i]};
    if (axis.size == 1) continue;
    if (!axes.empty() && continues(axis.first_step, axes.front(), axes.front().first_step) &&
        continues(axis.second_step, axes.front(), axes.front().second_step)) {
      axes.front().size *= axis.size;
    } else {
      axes.insert(axes.begin(), axis);
    }
  }
  if (axes.empty()) axes.push_back({1, 1, 1});
  return axes;
}

std::vector<ResizeTap> resize_taps(const ResizeRule& rule, std::size_t axis, const Sizes& source,
                                   const Sizes& target) {
  return axis_taps(rule, source[axis], target[axis], axis_scale(rule, axis, source, target));
}

}  // namespace ostrel::tensorrt_parts
