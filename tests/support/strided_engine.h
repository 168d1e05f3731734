#pragma once

#include <cstdint>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "tracking_runtime/tracker/atom/feature_map.h"

namespace ostrel_test {

/// A network small enough to be computed by hand: output k is one convolution of the input with side and
/// stride `kOutputStrides[k]`, without bias or border, into `kOutputChannels[k]` channels. Outputs are called
/// "fine", "coarse" and "third".
struct StridedEngine {
  static constexpr int kOutputStrides[3] = {2, 4, 8};
  static constexpr int kOutputChannels[3] = {2, 6, 3};

  int batch = -1;  ///< -1: settled when the network runs
  int height = 32;
  int width = 32;
  bool open_sides = false;  ///< height and width are settled when the network runs
  int outputs = 2;
  bool two_inputs = false;  ///< an unused input "unused" stands before "input"
  std::uint32_t seed = 1;

  std::string bytes() const;

  /// What output `index` is for a `CV_8UC3` patch in blue, green, red order: plain loops in double precision.
  ostrel_tracker::tracking_runtime::tracker::atom::FeatureMap expected(int index, const cv::Mat& patch) const;

 private:
  std::vector<float> weights(int index) const;
};

/// A patch of random bytes.
cv::Mat random_patch(int height, int width, std::uint32_t seed);

/// Expects equal sizes, and values within `kFeatureTolerance` of each other.
constexpr double kFeatureTolerance = 2e-4;  // sums of up to 192 products of about 1, kept in 32-bit floats
void expect_same_features(const ostrel_tracker::tracking_runtime::tracker::atom::FeatureMap& expected,
                          const ostrel_tracker::tracking_runtime::tracker::atom::FeatureMap& actual);

}  // namespace ostrel_test
