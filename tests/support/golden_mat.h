#pragma once

#include <algorithm>
#include <opencv2/core.hpp>
#include <vector>

#include "support/golden.h"

namespace ostrel_test {

/// A golden array of rows x columns as a matrix of floats.
inline cv::Mat float_map(const GoldenArray& array) {
  cv::Mat map(static_cast<int>(array.shape[0]), static_cast<int>(array.shape[1]), CV_32F);
  std::transform(array.values.begin(), array.values.end(), map.begin<float>(),
                 [](double value) { return static_cast<float>(value); });
  return map;
}

/// A golden array of rows x columns x 3 bytes as a BGR image.
inline cv::Mat bgr_image(const GoldenArray& array) {
  cv::Mat image(static_cast<int>(array.shape[0]), static_cast<int>(array.shape[1]), CV_8UC3);
  std::transform(array.values.begin(), array.values.end(), image.data,
                 [](double value) { return static_cast<unsigned char>(value); });
  return image;
}

/// The values of a matrix of floats, row by row.
inline std::vector<float> floats_of(const cv::Mat& map) {
  if (map.empty()) return {};
  return {map.begin<float>(), map.end<float>()};
}

/// The bytes of a contiguous image.
inline std::vector<int> bytes_of(const cv::Mat& image) {
  return {image.data, image.data + image.total() * image.elemSize()};
}

/// A BGR image whose pixels tell their own coordinates: blue is the column, green the row, red is 7.
inline cv::Mat coordinate_image(int rows, int cols) {
  cv::Mat image(rows, cols, CV_8UC3);
  for (int y = 0; y < rows; ++y) {
    for (int x = 0; x < cols; ++x) {
      image.at<cv::Vec3b>(y, x) = {static_cast<unsigned char>(x), static_cast<unsigned char>(y), 7};
    }
  }
  return image;
}

}  // namespace ostrel_test
