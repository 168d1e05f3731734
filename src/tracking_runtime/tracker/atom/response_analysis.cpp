#include "tracking_runtime/tracker/atom/response_analysis.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

/// A plane with a margin of zeros on each side.
cv::Mat padded_plane(const float* plane, int height, int width, int pad_y, int pad_x) {
  cv::Mat padded = cv::Mat::zeros(height + 2 * pad_y, width + 2 * pad_x, CV_32F);
  for (int y = 0; y < height; ++y) {
    std::copy_n(plane + static_cast<std::ptrdiff_t>(y) * width, width, padded.ptr<float>(y + pad_y) + pad_x);
  }
  return padded;
}

/// Adds one channel's correlation to the response. Each pixel sums its own products first, row by row of the
/// filter; the loop over x is innermost so that neighbours are summed side by side.
void add_channel(const cv::Mat& padded, const float* filter, int filter_height, int filter_width,
                 std::vector<float>* sums, cv::Mat* response) {
  for (int y = 0; y < response->rows; ++y) {
    std::fill(sums->begin(), sums->end(), 0.0F);
    for (int i = 0; i < filter_height; ++i) {
      for (int j = 0; j < filter_width; ++j) {
        const float tap = filter[i * filter_width + j];
        const float* source = padded.ptr<float>(y + i) + j;
        for (int x = 0; x < response->cols; ++x) {
          float& sum = (*sums)[static_cast<std::size_t>(x)];
          sum = std::fma(source[x], tap, sum);
        }
      }
    }
    float* row = response->ptr<float>(y);
    for (int x = 0; x < response->cols; ++x) row[x] += (*sums)[static_cast<std::size_t>(x)];
  }
}

cv::Mat classify_single_sample(const float* data, int channels, int height, int width, const float* filter,
                               int filter_height, int filter_width) {
  cv::Mat response = cv::Mat::zeros(height, width, CV_32F);
  std::vector<float> sums(static_cast<std::size_t>(width));
  const std::ptrdiff_t plane_stride = static_cast<std::ptrdiff_t>(height) * width;
  const std::ptrdiff_t filter_stride = static_cast<std::ptrdiff_t>(filter_height) * filter_width;
  for (int c = 0; c < channels; ++c) {
    const cv::Mat padded =
        padded_plane(data + c * plane_stride, height, width, filter_height / 2, filter_width / 2);
    add_channel(padded, filter + c * filter_stride, filter_height, filter_width, &sums, &response);
  }
  return response;
}

int positive_modulo(int shift, int size) {
  const int rest = shift % size;
  return rest < 0 ? rest + size : rest;
}

cv::Mat roll_rows(const cv::Mat& input, int shift) {
  if (shift == 0) return input.clone();
  cv::Mat rolled(input.size(), input.type());
  const int rest = input.rows - shift;
  input.rowRange(0, rest).copyTo(rolled.rowRange(shift, input.rows));
  input.rowRange(rest, input.rows).copyTo(rolled.rowRange(0, shift));
  return rolled;
}

cv::Mat roll_columns(const cv::Mat& input, int shift) {
  if (shift == 0) return input;
  cv::Mat rolled(input.size(), input.type());
  const int rest = input.cols - shift;
  input.colRange(0, rest).copyTo(rolled.colRange(shift, input.cols));
  input.colRange(rest, input.cols).copyTo(rolled.colRange(0, shift));
  return rolled;
}

/// The part of `peak - radius .. peak + radius` that lies in 0 .. size - 1; empty when nothing does.
cv::Range clipped_neighbourhood(int peak, int radius, int size) {
  const std::int64_t first = std::max<std::int64_t>(std::int64_t{peak} - radius, 0);
  const std::int64_t limit = std::min<std::int64_t>(std::int64_t{peak} + radius + 1, size);
  if (first >= limit) return {0, 0};
  return {static_cast<int>(first), static_cast<int>(limit)};
}

/// Replaces each value by exp((value - maximum) * sharpness); returns their sum, at least 1e-8.
double weigh(cv::Mat* values, float sharpness) {
  double maximum = 0.0;
  cv::minMaxLoc(*values, nullptr, &maximum);
  const float reference = static_cast<float>(maximum);
  double total = 0.0;
  for (int r = 0; r < values->rows; ++r) {
    float* row = values->ptr<float>(r);
    for (int c = 0; c < values->cols; ++c) {
      row[c] = std::exp((row[c] - reference) * sharpness);
      total += static_cast<double>(row[c]);
    }
  }
  return total > 1e-8 ? total : 1e-8;
}

}  // namespace

cv::Mat classify_feature(const FeatureMap& feature, const ClassifierState& weights) {
  if (!feature.defined() || feature.samples != 1) return {};
  if (weights.filter_weights.empty() || feature.channels != weights.filter_channels) return {};
  return classify_single_sample(feature.data.data(), feature.channels, feature.height, feature.width,
                                weights.filter_weights.data(), weights.filter_height, weights.filter_width);
}

cv::Mat roll_mat(const cv::Mat& input, int shift_rows, int shift_cols) {
  if (input.empty()) return {};
  return roll_columns(roll_rows(input, positive_modulo(shift_rows, input.rows)),
                      positive_modulo(shift_cols, input.cols));
}

cv::Point_<float> soft_argmax_2d(const cv::Mat& response, cv::Point_<int> peak, int radius, float sharpness) {
  const cv::Range rows = clipped_neighbourhood(peak.y, radius, response.rows);
  const cv::Range columns = clipped_neighbourhood(peak.x, radius, response.cols);
  if (rows.empty() || columns.empty()) return {static_cast<float>(peak.x), static_cast<float>(peak.y)};

  cv::Mat weights = response(rows, columns).clone();
  const double total = weigh(&weights, sharpness);
  cv::Point_<float> mean{0.0F, 0.0F};
  for (int r = 0; r < weights.rows; ++r) {
    for (int c = 0; c < weights.cols; ++c) {
      const float weight = static_cast<float>(static_cast<double>(weights.at<float>(r, c)) / total);
      mean.x += weight * static_cast<float>(columns.start + c);
      mean.y += weight * static_cast<float>(rows.start + r);
    }
  }
  return mean;
}

std::optional<float> quadratic_peak_log_scale(float x0, float y0, float x1, float y1, float x2, float y2) {
  for (const float value : {x0, y0, x1, y1, x2, y2}) {
    if (!std::isfinite(value)) return std::nullopt;
  }
  const float d = (x0 - x1) * (x0 - x2) * (x1 - x2);
  if (std::abs(d) <= 1e-8F) return std::nullopt;
  const float a = (x0 * (y2 - y1) + x2 * (y1 - y0) + x1 * (y0 - y2)) / d;
  if (!(a < -1e-6F)) return std::nullopt;
  const float b = (x0 * x0 * (y1 - y2) + x1 * x1 * (y2 - y0) + x2 * x2 * (y0 - y1)) / d;
  const float vertex = -b / (2.0F * a);
  if (!std::isfinite(vertex)) return std::nullopt;
  if (vertex < std::min({x0, x1, x2}) || vertex > std::max({x0, x1, x2})) return std::nullopt;
  return vertex;
}

float apply_soft_deadband(float value, float deadband) {
  if (!(deadband > 0.0F) || !std::isfinite(value)) return value;
  if (deadband >= std::abs(value)) return 0.0F;
  return value > 0.0F ? value - deadband : value + deadband;
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
