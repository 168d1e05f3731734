#include "reference_numerics.h"

#include <algorithm>
#include <cmath>

namespace ostrel_test {
namespace {

/// Calls visit(response index, feature index, tap index) for every product of the correlation.
void for_each_product(const Shape& shape,
                      const std::function<void(std::size_t, std::size_t, std::size_t)>& visit) {
  for (int n = 0; n < shape.samples; ++n) {
    for (int y = 0; y < shape.height; ++y) {
      for (int x = 0; x < shape.width; ++x) {
        for (int c = 0; c < shape.channels; ++c) {
          for (int i = 0; i < shape.filter_height; ++i) {
            for (int j = 0; j < shape.filter_width; ++j) {
              const int row = y + i - shape.filter_height / 2;
              const int column = x + j - shape.filter_width / 2;
              if (row < 0 || row >= shape.height || column < 0 || column >= shape.width) continue;
              visit(as_index((n * shape.height + y) * shape.width + x),
                    as_index(((n * shape.channels + c) * shape.height + row) * shape.width + column),
                    as_index((c * shape.filter_height + i) * shape.filter_width + j));
            }
          }
        }
      }
    }
  }
}

Doubles add_scaled(Doubles a, double scale, const Doubles& b) {
  for (std::size_t i = 0; i < a.size(); ++i) a[i] += scale * b[i];
  return a;
}

double weight_of(const TrainingProblem& problem, std::size_t position) {
  return problem.weights[position / as_index(problem.shape.height * problem.shape.width)];
}

}  // namespace

Doubles widen(const std::vector<float>& values) {
  return Doubles(values.begin(), values.end());
}

double reference_phi(double s) {
  return s >= 0.0 ? s : 0.05 * (std::exp(20.0 * s) - 1.0);
}

double reference_phi_gradient(double s) {
  return s >= 0.0 ? 1.0 : std::exp(20.0 * s);
}

Doubles reference_correlation(const Shape& shape, const Doubles& features, const Doubles& filter) {
  Doubles response(shape.positions(), 0.0);
  for_each_product(shape, [&](std::size_t position, std::size_t feature, std::size_t tap) {
    response[position] += filter[tap] * features[feature];
  });
  return response;
}

Doubles reference_filter_gradient(const Shape& shape, const Doubles& features, const Doubles& gradient) {
  Doubles result(shape.taps(), 0.0);
  for_each_product(shape, [&](std::size_t position, std::size_t feature, std::size_t tap) {
    result[tap] += gradient[position] * features[feature];
  });
  return result;
}

Doubles reference_backprop(const Shape& shape, const Doubles& gradient, const Doubles& filter) {
  Doubles result(shape.features(), 0.0);
  for_each_product(shape, [&](std::size_t position, std::size_t feature, std::size_t tap) {
    result[feature] += gradient[position] * filter[tap];
  });
  return result;
}

Doubles reference_projection(int samples, int in_channels, int out_channels, int positions_per_sample,
                             const Doubles& features, const Doubles& projection) {
  Doubles out;
  for (int n = 0; n < samples; ++n) {
    for (int o = 0; o < out_channels; ++o) {
      for (int position = 0; position < positions_per_sample; ++position) {
        double sum = 0.0;
        for (int c = 0; c < in_channels; ++c) {
          sum += projection[as_index(o * in_channels + c)] *
                 features[as_index((n * in_channels + c) * positions_per_sample + position)];
        }
        out.push_back(sum);
      }
    }
  }
  return out;
}

double reference_dot(const Doubles& a, const Doubles& b) {
  double sum = 0.0;
  for (std::size_t i = 0; i < a.size(); ++i) sum += a[i] * b[i];
  return sum;
}

double reference_loss(const TrainingProblem& problem, const Doubles& filter) {
  const Doubles response = reference_correlation(problem.shape, problem.features, filter);
  double loss = 0.5 * problem.regularization * reference_dot(filter, filter);
  for (std::size_t i = 0; i < response.size(); ++i) {
    const double residual = reference_phi(response[i]) - problem.labels[i];
    loss += 0.5 * weight_of(problem, i) * residual * residual;
  }
  return loss;
}

Doubles reference_right_hand_side(const TrainingProblem& problem, const Doubles& filter) {
  Doubles weighted = reference_correlation(problem.shape, problem.features, filter);
  for (std::size_t i = 0; i < weighted.size(); ++i) {
    weighted[i] = weight_of(problem, i) * reference_phi_gradient(weighted[i]) *
                  (reference_phi(weighted[i]) - problem.labels[i]);
  }
  Doubles gradient = reference_filter_gradient(problem.shape, problem.features, weighted);
  gradient = add_scaled(gradient, problem.regularization, filter);
  for (double& value : gradient) value = -value;
  return gradient;
}

Doubles reference_normal_operator(const TrainingProblem& problem, const Doubles& filter,
                                  const Doubles& direction) {
  const Doubles response = reference_correlation(problem.shape, problem.features, filter);
  Doubles weighted = reference_correlation(problem.shape, problem.features, direction);
  for (std::size_t i = 0; i < weighted.size(); ++i) {
    const double slope = reference_phi_gradient(response[i]);
    weighted[i] *= weight_of(problem, i) * slope * slope;
  }
  return add_scaled(reference_filter_gradient(problem.shape, problem.features, weighted),
                    problem.regularization, direction);
}

Doubles reference_conjugate_gradient(const Doubles& right_hand_side,
                                     const std::function<Doubles(const Doubles&)>& apply, int iterations) {
  Doubles x(right_hand_side.size(), 0.0);
  Doubles r = right_hand_side;
  Doubles r_prev, p;
  double rho_prev = 0.0;
  for (int k = 0; k < std::max(iterations, 1); ++k) {
    const double rho = reference_dot(r, r);
    const double beta =
        k == 0 ? 0.0 : std::max(0.0, (rho - reference_dot(r_prev, r)) / std::max(rho_prev, 1e-12));
    p = k == 0 ? r : add_scaled(r, beta, p);
    const Doubles q = apply(p);
    const double pq = reference_dot(p, q);
    const double alpha = std::abs(pq) <= 1e-12 ? 0.0 : rho / pq;
    r_prev = r;
    x = add_scaled(x, alpha, p);
    r = add_scaled(r, -alpha, q);
    rho_prev = rho;
  }
  return x;
}

Doubles reference_training(const TrainingProblem& problem, const Doubles& filter, int iterations) {
  const Doubles step = reference_conjugate_gradient(
      reference_right_hand_side(problem, filter),
      [&](const Doubles& p) { return reference_normal_operator(problem, filter, p); }, iterations);
  return add_scaled(filter, 1.0, step);
}

}  // namespace ostrel_test
