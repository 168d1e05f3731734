#pragma once

#include <string>
#include <utility>
#include <vector>

#include "device_arrays.h"
#include "reference_numerics.h"

/// The joint optimiser's launches from host vectors to host vectors, on a stream of their own.

namespace ostrel_test {

std::vector<float> run_correlation(const Shape& shape, const std::vector<float>& features,
                                   const std::vector<float>& filter);

std::pair<std::vector<float>, std::vector<float>> run_pair(const Shape& shape,
                                                           const std::vector<float>& features_a,
                                                           const std::vector<float>& filter_a,
                                                           const std::vector<float>& features_b,
                                                           const std::vector<float>& filter_b);

std::vector<float> run_filter_gradient(const Shape& shape, const std::vector<float>& features,
                                       const std::vector<float>& gradient, float scale,
                                       const std::vector<float>& initial);

std::vector<float> run_backprop(const Shape& shape, const std::vector<float>& gradient,
                                const std::vector<float>& filter);

}  // namespace ostrel_test
