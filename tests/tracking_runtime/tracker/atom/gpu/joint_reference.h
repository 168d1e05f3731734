#pragma once

#include <vector>

#include "reference_numerics.h"

/// The joint fit of filter and projection as plain loops in double precision. A joint vector is the filter's
/// values followed by the projection's.

namespace ostrel_test {

/// A joint fit: the shape's channels are the projected ones.
struct JointProblem {
  Shape shape;
  int in_channels;
  Doubles raw;
  Doubles labels;
  double filter_regularization;
  double projection_regularization;
  double sample_weight;
};

Doubles joined(Doubles filter, const Doubles& projection);

/// The two halves of a joint vector of the problem.
Doubles filter_of(const JointProblem& problem, const Doubles& joint);
Doubles projection_of(const JointProblem& problem, const Doubles& joint);

/// Raw samples under the joint vector's projection, and the filter's response to that.
Doubles reference_projected(const JointProblem& problem, const Doubles& joint);
Doubles reference_response(const JointProblem& problem, const Doubles& joint);
/// The response's change along a direction, to first order.
Doubles reference_response_change(const JointProblem& problem, const Doubles& joint,
                                  const Doubles& direction);

/// Gradient of <projected, gradient> with regard to the projection.
Doubles reference_projection_gradient(int samples, int in_channels, int out_channels,
                                      int positions_per_sample, const Doubles& raw, const Doubles& gradient);

double reference_joint_loss(const JointProblem& problem, const Doubles& joint);
/// Minus the gradient of the loss.
Doubles reference_joint_right_hand_side(const JointProblem& problem, const Doubles& joint);
/// The normal operator at `joint`, by adjoints.
Doubles reference_joint_operator(const JointProblem& problem, const Doubles& joint, const Doubles& direction);

/// The same as a dense matrix, rows of a joint vector's length, from the Jacobian column by column: no adjoint
/// takes part.
std::vector<Doubles> dense_joint_matrix(const JointProblem& problem, const Doubles& joint);

/// The whole fit; counts below 1 count as 1.
Doubles reference_joint_fit(const JointProblem& problem, Doubles joint, int gauss_newton_iterations,
                            int conjugate_gradient_iterations);

}  // namespace ostrel_test
