#pragma once

#include <opencv2/core.hpp>
#include <optional>

#include "tracking_runtime/tracker/atom/classifier_state.h"
#include "tracking_runtime/tracker/atom/feature_map.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// Numeric tools that turn a small correlation map into a peak. Maps are `CV_32F`, one channel, rows are y.
/// An empty matrix is the failure result; nothing throws for a bad shape, and nothing here keeps state.

/// "Same"-sized correlation of one sample with the filter, zeros outside, filter not flipped: the host form
/// of the GPU classifier. Empty unless the feature holds one sample with the filter's channels.
cv::Mat classify_feature(const FeatureMap& feature, const ClassifierState& weights);

/// Circular shift: element (r, c) moves to ((r + shift_rows) mod rows, (c + shift_cols) mod cols).
cv::Mat roll_mat(const cv::Mat& input, int shift_rows, int shift_cols);

/// Fourier upsampling to `search_size` x `search_size`, zero displacement at the corner. Neither transform
/// scales: a pixel is rows * cols times the interpolated value, and all thresholds on raw peaks rely on it.
cv::Mat upsample_response_fft(const cv::Mat& response, int filter_height, int filter_width, int search_size);

/// Sub-pixel peak (x, y): mean of the coordinates around `peak`, weighted by exp((v - max) * sharpness).
cv::Point_<float> soft_argmax_2d(const cv::Mat& response, cv::Point_<int> peak, int radius, float sharpness);

/// Vertex of the parabola through three points (x: log of a scale, y: raw peak); nothing unless the points are
/// finite and distinct, the curve concave and the vertex inside the interval.
std::optional<float> quadratic_peak_log_scale(float x0, float y0, float x1, float y1, float x2, float y2);

/// Moves `value` towards 0 by `deadband`, not past it; continuous at the edge of the band.
float apply_soft_deadband(float value, float deadband);

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
