#pragma once

#include <opencv2/core.hpp>

namespace ostrel_tracker::tracking_runtime::libs::dcf {

/// Sizes of a map, rows before columns.
struct SizeYX {
  SizeYX(int height_cells, int width_cells) : height(height_cells), width(width_cells) {}
  int height;
  int width;
};

/// The response that a correlation filter ought to give: a Gaussian over the map, `CV_32F`, of
/// `size + end_pad` rows and columns; every pair holds the row's value first. `center` counts in cells from
/// the middle of the map, so 0 puts the peak in the middle: on a cell for an odd size, between two for an
/// even one. `end_pad` appends cells at the end of an axis (negative: leaves cells out). With no cells left
/// on an axis the result is empty. Keeps no state.
cv::Mat label_function_spatial(const SizeYX& size, const cv::Vec<float, 2>& sigma,
                               const cv::Vec<float, 2>& center, const cv::Vec<int, 2>& end_pad);

}  // namespace ostrel_tracker::tracking_runtime::libs::dcf
