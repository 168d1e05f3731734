#pragma once

#include <string>
#include <utility>
#include <vector>

#include "device_arrays.h"
#include "joint_reference.h"
#include "reference_numerics.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_joint_optimizer.h"

namespace ostrel_test {

/// The host arrays and settings of one joint fit.
struct JointFitCase {
  Shape shape;  // of the correlation: its channels are the projected ones
  int in_channels = 0;
  std::vector<float> raw, labels, filter, projection;
  float filter_regularization = 0.5F;
  float projection_regularization = 0.05F;
  float sample_weight = 0.3F;
  int gauss_newton = 2;
  int conjugate_gradient = 3;

  /// Random values in the system's range, with the activation on both sides of zero.
  static JointFitCase random(const Shape& shape, int in_channels, std::uint32_t seed) {
    JointFitCase fit;
    fit.shape = shape;
    fit.in_channels = in_channels;
    fit.raw = random_values(fit.raw_size(), seed);
    fit.labels = random_values(shape.positions(), seed + 1, 0.0F, 1.0F);
    fit.filter = random_values(shape.taps(), seed + 2, -0.1F, 0.1F);
    fit.projection = random_values(fit.projection_size(), seed + 3, -0.5F, 0.5F);
    fit.sample_weight = 1.0F / static_cast<float>(shape.samples);
    return fit;
  }

  std::size_t sample_size() const { return product({in_channels, shape.height, shape.width}); }
  std::size_t raw_size() const { return static_cast<std::size_t>(shape.samples) * sample_size(); }
  std::size_t projection_size() const { return product({in_channels, shape.channels}); }
  int plane() const { return shape.height * shape.width; }

  JointProblem problem() const {
    return {shape,
            in_channels,
            widen(raw),
            widen(labels),
            static_cast<double>(filter_regularization),
            static_cast<double>(projection_regularization),
            static_cast<double>(sample_weight)};
  }
  /// (f, P) where the fit starts.
  Doubles start() const { return joined(widen(filter), widen(projection)); }

  bool ensure(atom::CudaJointOptimizer& optimizer, std::string* error) const {
    return optimizer.ensure_capacity(shape.samples, in_channels, shape.channels, shape.height, shape.width,
                                     shape.filter_height, shape.filter_width, error);
  }
  bool optimize(atom::CudaJointOptimizer& optimizer, std::vector<float>* out_filter,
                std::vector<float>* out_projection, std::string* error) const {
    return optimizer.optimize(raw, labels, shape.samples, filter, projection, filter_regularization,
                              projection_regularization, sample_weight, gauss_newton, conjugate_gradient,
                              out_filter, out_projection, error);
  }
  bool optimize_preloaded(atom::CudaJointOptimizer& optimizer, std::vector<float>* out_filter,
                          std::vector<float>* out_projection, std::string* error) const {
    return optimizer.optimize_preloaded_raw_features(
        labels, shape.samples, filter, projection, filter_regularization, projection_regularization,
        sample_weight, gauss_newton, conjugate_gradient, out_filter, out_projection, error);
  }
  bool rhs(atom::CudaJointOptimizer& optimizer, std::vector<float>* out, std::string* error) const {
    return optimizer.compute_rhs(raw, labels, shape.samples, filter, projection, filter_regularization,
                                 projection_regularization, sample_weight, out, error);
  }
  bool apply(atom::CudaJointOptimizer& optimizer, const std::vector<float>& direction_filter,
             const std::vector<float>& direction_projection, std::vector<float>* out,
             std::string* error) const {
    return optimizer.apply_normal_operator(direction_filter, direction_projection, filter_regularization,
                                           projection_regularization, out, error);
  }
};

/// Filter sizes of both kernels, odd and oblong ones, one sample, one position, more channels in than out and
/// the reverse.
inline const std::vector<JointFitCase>& joint_cases() {
  static const std::vector<JointFitCase> all = {
      JointFitCase::random({3, 6, 8, 8, 4, 4}, 9, 1000), JointFitCase::random({2, 4, 7, 6, 3, 3}, 4, 1010),
      JointFitCase::random({1, 5, 6, 6, 4, 4}, 3, 1020), JointFitCase::random({2, 3, 6, 5, 5, 2}, 5, 1030),
      JointFitCase::random({2, 2, 1, 1, 4, 4}, 3, 1040), JointFitCase::random({4, 1, 4, 9, 1, 1}, 1, 1050)};
  return all;
}

}  // namespace ostrel_test
