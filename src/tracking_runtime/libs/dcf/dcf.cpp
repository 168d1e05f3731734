#include "tracking_runtime/libs/dcf/dcf.h"

#include <cmath>
#include <vector>

#include "tracking_runtime/libs/dcf/gauss_spatial.h"

namespace ostrel_tracker::tracking_runtime::libs::dcf {

cv::Mat gauss_spatial(int size, float sigma, float center, int end_pad) {
  const float extent = static_cast<float>(size);
  const float first = -(extent - 1.0F) * 0.5F;
  const float limit = (extent + 1.0F) * 0.5F + static_cast<float>(end_pad);
  const float gain = -1.0F / (2.0F * sigma * sigma);
  std::vector<float> values;
  for (int i = 0; first + static_cast<float>(i) < limit; ++i) {
    const float distance = first + static_cast<float>(i) - center;
    values.push_back(std::exp(distance * distance * gain));
  }
  if (values.empty()) return cv::Mat(1, 0, CV_32F);
  return cv::Mat(values, true).reshape(1, 1);
}

cv::Mat label_function_spatial(const SizeYX& size, const cv::Vec<float, 2>& sigma,
                               const cv::Vec<float, 2>& center, const cv::Vec<int, 2>& end_pad) {
  const cv::Mat rows = gauss_spatial(size.height, sigma[0], center[0], end_pad[0]);
  const cv::Mat columns = gauss_spatial(size.width, sigma[1], center[1], end_pad[1]);
  if (rows.empty() || columns.empty()) return cv::Mat(rows.cols, columns.cols, CV_32F);
  return rows.t() * columns;
}

}  // namespace ostrel_tracker::tracking_runtime::libs::dcf
