#pragma once

#include <opencv2/core.hpp>

namespace ostrel_tracker::tracking_runtime::libs::dcf {

/// One axis of a label, internal to this library: exp(-(k - center)^2 / (2 sigma^2)) at k = -(size - 1) / 2
/// in steps of 1, `size + end_pad` values as one row of `CV_32F`; 1 row and 0 columns when none are left.
cv::Mat gauss_spatial(int size, float sigma, float center, int end_pad);

}  // namespace ostrel_tracker::tracking_runtime::libs::dcf
