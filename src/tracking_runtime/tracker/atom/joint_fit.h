#pragma once

#include <vector>

#include "tracking_runtime/tracker/atom/feature_map.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// What the joint fit of a start is told, from the tracker's settings.
struct JointFitSettings {
  float filter_regularization = 0.0F;
  float projection_regularization = 0.0F;
  float sample_weight = 1.0F;  ///< the same for all samples; their sum is 1
  int gauss_newton_iterations = 1;
  int conjugate_gradient_iterations = 1;  ///< for each Gauss-Newton iteration
};

/// Copies of the weights that a joint fit starts from, and what it makes of them.
struct JointFit {
  std::vector<float> filter;
  std::vector<float> projection;
  std::vector<float> optimized_filter;
  std::vector<float> optimized_projection;
};

/// The values of all labels, one label after the other.
std::vector<float> flattened(const std::vector<LabelMap>& labels);

/// Maps of one sample each from one flat array of `samples` x `channels` x `height` x `width` values.
std::vector<FeatureMap> split_in_samples(const std::vector<float>& flat, int samples, int channels,
                                         int height, int width);

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
