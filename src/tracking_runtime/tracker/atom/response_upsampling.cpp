#include <algorithm>
#include <cmath>

#include "tracking_runtime/tracker/atom/response_analysis.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

constexpr float kPi = 3.1415927F;

/// Phase per index of frequency along one axis: by the shift theorem a circular shift by
/// (size - filter_size mod 2) / 2 cells, which takes zero displacement from the middle to the corner.
float phase_step(int filter_size, int map_size) {
  const float parity = static_cast<float>(filter_size % 2) / static_cast<float>(map_size);
  return (1.0F - parity) * kPi;
}

/// Where the small spectrum keeps a frequency. `index` counts them upwards, frequency zero near the middle at
/// map_size / 2, as they lie after a roll by that much.
int source_index(int index, int map_size) {
  return (index + map_size - map_size / 2) % map_size;
}

/// Where the large spectrum keeps it: placed around the middle, then rolled by half the size.
int target_index(int index, int map_size, int search_size) {
  return ((search_size - map_size) / 2 + index + (search_size + 1) / 2) % search_size;
}

/// Multiplies each frequency by its phase and puts it into the large spectrum, straight from place to place.
cv::Mat spread_spectrum(const cv::Mat& spectrum, float row_step, float column_step, int search_size) {
  const int rows = spectrum.rows;
  const int columns = spectrum.cols;
  const int zero_row = rows / 2;
  const int zero_column = columns / 2;
  cv::Mat spread = cv::Mat::zeros(search_size, search_size, CV_32FC2);
  for (int r = 0; r < rows; ++r) {
    const cv::Vec2f* source = spectrum.ptr<cv::Vec2f>(source_index(r, rows));
    cv::Vec2f* target = spread.ptr<cv::Vec2f>(target_index(r, rows, search_size));
    const float u = static_cast<float>(r - zero_row);
    for (int c = 0; c < columns; ++c) {
      const float v = static_cast<float>(c - zero_column);
      const float angle = column_step * v + row_step * u;
      const float cosine = std::cos(angle);
      const float sine = std::sin(angle);
      const cv::Vec2f value = source[source_index(c, columns)];
      target[target_index(c, columns, search_size)] = {value[0] * cosine - value[1] * sine,
                                                       value[0] * sine + value[1] * cosine};
    }
  }
  return spread;
}

}  // namespace

cv::Mat upsample_response_fft(const cv::Mat& response, int filter_height, int filter_width, int search_size) {
  const int side = std::max(search_size, 1);
  if (response.empty() || response.channels() != 1) return {};
  if (response.rows > side || response.cols > side) return {};

  cv::Mat map = response;
  if (map.depth() != CV_32F) response.convertTo(map, CV_32F);
  cv::Mat spectrum;
  cv::dft(map, spectrum, cv::DFT_COMPLEX_OUTPUT);
  const cv::Mat spread = spread_spectrum(spectrum, phase_step(filter_height, map.rows),
                                         phase_step(filter_width, map.cols), side);
  // The spectrum is not conjugate symmetric, so the values depend on how this transform folds it to reals.
  cv::Mat upsampled;
  cv::idft(spread, upsampled, cv::DFT_REAL_OUTPUT);
  return upsampled;
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
