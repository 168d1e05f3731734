// A 1 x 1 convolution behind the trunk that decorrelates and scales its features. Few steps of a conjugate gradient
// get far only where channels are alike in size and independent of each other.
#pragma once

#include <opencv2/core.hpp>
#include <vector>

#include "feature_trunk.h"

namespace ostrel::backbone {

// Mean length of the vector of a cell that the tracker's regularisation is made for.
constexpr double kCellNorm = 3.7;

struct NeckOptions {
  int channels = 0;
  double whitening = 1.0;  // 0: directions keep their spread; 1: all get the same, but for `shrink`
  double shrink = 0.1;     // share of the mean variance that is added to each before the division
};

struct NeckReport {
  double kept_variance = 0.0;  // share of all variance that lies in the directions kept
  std::size_t cells = 0;       // that were looked at
};

// Runs the trunk on crops (8 bits; blue, green, red; all of one size), takes mean and covariance of the features over
// all cells and sets the trunk's neck: the leading directions, each divided by
// (variance + shrink * mean variance) ^ (whitening / 2), the mean subtracted, and everything scaled so that the mean
// norm of a cell over the crops is kCellNorm. Where features are joined the two stages are first brought to the same
// total variance, so that neither drowns the other. The same crops give the same neck.
// Throws ModelError for more channels than features, for too few cells, and for features that do not vary.
NeckReport make_neck(const NeckOptions& options, const std::vector<cv::Mat>& crops, FeatureTrunk* trunk);

}  // namespace ostrel::backbone
