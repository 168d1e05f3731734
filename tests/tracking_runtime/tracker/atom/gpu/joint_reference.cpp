#include "joint_reference.h"

#include <algorithm>

namespace ostrel_test {
namespace {

int plane_of(const JointProblem& problem) {
  return problem.shape.height * problem.shape.width;
}

Doubles projected_by(const JointProblem& problem, const Doubles& projection) {
  return reference_projection(problem.shape.samples, problem.in_channels, problem.shape.channels,
                              plane_of(problem), problem.raw, projection);
}

/// J^T values + diag(lambda) vector.
Doubles adjoint_plus_regularized(const JointProblem& problem, const Doubles& joint, const Doubles& values,
                                 const Doubles& vector) {
  const Doubles by_filter =
      reference_filter_gradient(problem.shape, reference_projected(problem, joint), values);
  const Doubles by_projection = reference_projection_gradient(
      problem.shape.samples, problem.in_channels, problem.shape.channels, plane_of(problem), problem.raw,
      reference_backprop(problem.shape, values, filter_of(problem, joint)));
  Doubles result = joined(by_filter, by_projection);
  for (std::size_t i = 0; i < result.size(); ++i) {
    const bool in_filter = i < problem.shape.taps();
    result[i] += (in_filter ? problem.filter_regularization : problem.projection_regularization) * vector[i];
  }
  return result;
}

/// w * phi'^2 at each position.
Doubles curvature_weights(const JointProblem& problem, const Doubles& joint) {
  Doubles weights = reference_response(problem, joint);
  for (double& value : weights) {
    const double slope = reference_phi_gradient(value);
    value = problem.sample_weight * slope * slope;
  }
  return weights;
}

}  // namespace

Doubles joined(Doubles filter, const Doubles& projection) {
  filter.insert(filter.end(), projection.begin(), projection.end());
  return filter;
}

Doubles filter_of(const JointProblem& problem, const Doubles& joint) {
  return {joint.begin(), joint.begin() + static_cast<std::ptrdiff_t>(problem.shape.taps())};
}

Doubles projection_of(const JointProblem& problem, const Doubles& joint) {
  return {joint.begin() + static_cast<std::ptrdiff_t>(problem.shape.taps()), joint.end()};
}

Doubles reference_projected(const JointProblem& problem, const Doubles& joint) {
  return projected_by(problem, projection_of(problem, joint));
}

Doubles reference_response(const JointProblem& problem, const Doubles& joint) {
  return reference_correlation(problem.shape, reference_projected(problem, joint), filter_of(problem, joint));
}

Doubles reference_response_change(const JointProblem& problem, const Doubles& joint,
                                  const Doubles& direction) {
  Doubles change = reference_correlation(problem.shape, reference_projected(problem, joint),
                                         filter_of(problem, direction));
  const Doubles other = reference_correlation(
      problem.shape, projected_by(problem, projection_of(problem, direction)), filter_of(problem, joint));
  for (std::size_t i = 0; i < change.size(); ++i) change[i] += other[i];
  return change;
}

Doubles reference_projection_gradient(int samples, int in_channels, int out_channels,
                                      int positions_per_sample, const Doubles& raw, const Doubles& gradient) {
  Doubles result(as_index(in_channels * out_channels), 0.0);
  for (int n = 0; n < samples; ++n) {
    for (int o = 0; o < out_channels; ++o) {
      for (int c = 0; c < in_channels; ++c) {
        for (int position = 0; position < positions_per_sample; ++position) {
          result[as_index(o * in_channels + c)] +=
              gradient[as_index((n * out_channels + o) * positions_per_sample + position)] *
              raw[as_index((n * in_channels + c) * positions_per_sample + position)];
        }
      }
    }
  }
  return result;
}

double reference_joint_loss(const JointProblem& problem, const Doubles& joint) {
  const Doubles filter = filter_of(problem, joint), projection = projection_of(problem, joint);
  const Doubles response = reference_response(problem, joint);
  double loss = 0.5 * problem.filter_regularization * reference_dot(filter, filter) +
                0.5 * problem.projection_regularization * reference_dot(projection, projection);
  for (std::size_t i = 0; i < response.size(); ++i) {
    const double residual = reference_phi(response[i]) - problem.labels[i];
    loss += 0.5 * problem.sample_weight * residual * residual;
  }
  return loss;
}

Doubles reference_joint_right_hand_side(const JointProblem& problem, const Doubles& joint) {
  Doubles weighted = reference_response(problem, joint);
  for (std::size_t i = 0; i < weighted.size(); ++i) {
    weighted[i] = problem.sample_weight * reference_phi_gradient(weighted[i]) *
                  (reference_phi(weighted[i]) - problem.labels[i]);
  }
  Doubles result = adjoint_plus_regularized(problem, joint, weighted, joint);
  for (double& value : result) value = -value;
  return result;
}

Doubles reference_joint_operator(const JointProblem& problem, const Doubles& joint,
                                 const Doubles& direction) {
  Doubles weighted = reference_response_change(problem, joint, direction);
  const Doubles weights = curvature_weights(problem, joint);
  for (std::size_t i = 0; i < weighted.size(); ++i) weighted[i] *= weights[i];
  return adjoint_plus_regularized(problem, joint, weighted, direction);
}

std::vector<Doubles> dense_joint_matrix(const JointProblem& problem, const Doubles& joint) {
  std::vector<Doubles> columns;
  for (std::size_t i = 0; i < joint.size(); ++i) {
    Doubles unit(joint.size(), 0.0);
    unit[i] = 1.0;
    columns.push_back(reference_response_change(problem, joint, unit));
  }
  const Doubles weights = curvature_weights(problem, joint);
  std::vector<Doubles> matrix(joint.size(), Doubles(joint.size(), 0.0));
  for (std::size_t i = 0; i < joint.size(); ++i) {
    for (std::size_t j = 0; j < joint.size(); ++j) {
      for (std::size_t t = 0; t < weights.size(); ++t) {
        matrix[i][j] += columns[i][t] * weights[t] * columns[j][t];
      }
    }
    const bool in_filter = i < problem.shape.taps();
    matrix[i][i] += in_filter ? problem.filter_regularization : problem.projection_regularization;
  }
  return matrix;
}

Doubles reference_joint_fit(const JointProblem& problem, Doubles joint, int gauss_newton_iterations,
                            int conjugate_gradient_iterations) {
  for (int step = 0; step < std::max(gauss_newton_iterations, 1); ++step) {
    const Doubles solution = reference_conjugate_gradient(
        reference_joint_right_hand_side(problem, joint),
        [&](const Doubles& p) { return reference_joint_operator(problem, joint, p); },
        conjugate_gradient_iterations);
    for (std::size_t i = 0; i < joint.size(); ++i) joint[i] += solution[i];
  }
  return joint;
}

}  // namespace ostrel_test
