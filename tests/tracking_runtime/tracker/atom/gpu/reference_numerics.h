#pragma once

#include <cstddef>
#include <functional>
#include <initializer_list>
#include <vector>

/// The numerics as plain loops in double precision, written from the formulas and sharing nothing with the
/// kernels.

namespace ostrel_test {

inline std::size_t as_index(int index) {
  return static_cast<std::size_t>(index);
}

/// Product of sizes, as a number of elements.
inline std::size_t product(std::initializer_list<int> sizes) {
  std::size_t count = 1;
  for (const int size : sizes) count *= static_cast<std::size_t>(size);
  return count;
}

/// Sizes of a correlation problem.
struct Shape {
  int samples;
  int channels;
  int height;
  int width;
  int filter_height;
  int filter_width;

  std::size_t positions() const { return product({samples, height, width}); }
  std::size_t features() const { return positions() * static_cast<std::size_t>(channels); }
  std::size_t taps() const { return product({channels, filter_height, filter_width}); }
};

using Doubles = std::vector<double>;

Doubles widen(const std::vector<float>& values);

/// phi(s) and phi'(s).
double reference_phi(double s);
double reference_phi_gradient(double s);

/// response (n, y, x) = sum over c, i, j of filter (c, i, j) * feature (n, c, y + i - fh / 2, x + j - fw /
/// 2).
Doubles reference_correlation(const Shape& shape, const Doubles& features, const Doubles& filter);

/// Gradient of <response, gradient> with regard to the filter.
Doubles reference_filter_gradient(const Shape& shape, const Doubles& features, const Doubles& gradient);

/// Gradient of <response, gradient> with regard to the features.
Doubles reference_backprop(const Shape& shape, const Doubles& gradient, const Doubles& filter);

/// out (n, o, y, x) = sum over c of projection (o, c) * feature (n, c, y, x).
Doubles reference_projection(int samples, int in_channels, int out_channels, int positions_per_sample,
                             const Doubles& features, const Doubles& projection);

double reference_dot(const Doubles& a, const Doubles& b);

/// A filter training problem.
struct TrainingProblem {
  Shape shape;
  Doubles features;
  Doubles labels;
  Doubles weights;
  double regularization;
};

/// 1/2 sum_k w_k |phi(s) - y|^2 + 1/2 regularization |f|^2.
double reference_loss(const TrainingProblem& problem, const Doubles& filter);

/// -grad of the loss.
Doubles reference_right_hand_side(const TrainingProblem& problem, const Doubles& filter);

/// (J^T W J + regularization) direction, J taken at `filter`.
Doubles reference_normal_operator(const TrainingProblem& problem, const Doubles& filter,
                                  const Doubles& direction);

/// x after `iterations` conjugate gradient iterations, at least 1, on apply(x) = right_hand_side, from x = 0.
Doubles reference_conjugate_gradient(const Doubles& right_hand_side,
                                     const std::function<Doubles(const Doubles&)>& apply, int iterations);

/// filter + x after `iterations` conjugate gradient iterations on the Gauss-Newton system.
Doubles reference_training(const TrainingProblem& problem, const Doubles& filter, int iterations);

}  // namespace ostrel_test
