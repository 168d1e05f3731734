#pragma once

#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "tracking_runtime/tracker/atom/classifier_state.h"
#include "tracking_runtime/tracker/atom/feature_map.h"
#include "tracking_runtime/tracker/atom/native_cpp_backend.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// First values of the projection matrix and the filter, and the projection itself, on the host. None of
/// these locks: the matrix and the start-up filter change only while a start has the backend to itself.

/// True for "randn" in any mixture of cases, the method that draws from a normal distribution.
bool is_randn(const std::string& method);

/// matrix x feature for each sample, without a bias. A copy of the feature when `use_projection` is off or
/// there is no matrix; undefined when the feature is, or when its channels are not those of the matrix.
FeatureMap project_feature(const FeatureMap& feature, const ClassifierState& weights, bool use_projection);

/// Sets matrix, channel counts and version for features of the given size: `compressed_dim` rows, at least 1
/// and at most `channels`. "randn" draws from N(0, 1 / sqrt(channels)); any other method takes the principal
/// components of `feature_or_null`. With the projection off all is cleared and the result is true. False for
/// a size below 1, and, with the matrix left at zeros, when the method needs a feature that is missing,
/// undefined, of several samples or of another size.
bool init_projection(const NativeCppBackend::Config& config, int channels, int height, int width,
                     const FeatureMap* feature_or_null, ClassifierState* weights);

/// Sets filter, sizes and version: `filter_size` squared (at least 1 x 1), zeros, or with "randn" draws from
/// N(0, 1 / count of weights), without the matrix's square root. False for a size below 1.
bool init_filter(const NativeCppBackend::Config& config, int channels, int height, int width,
                 ClassifierState* weights);

/// U of the singular value decomposition of a square matrix, columns by falling singular value.
cv::Mat left_singular_vectors(const cv::Mat& scatter);
using Decomposition = cv::Mat (*)(const cv::Mat& scatter);

/// The first `out_channels` principal directions of the pixels of a one-sample feature, one per row, row-major
/// with one column per channel. When any step throws, the truncated identity instead.
std::vector<float> principal_components(const FeatureMap& feature, int out_channels,
                                        Decomposition decompose = left_singular_vectors);

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
