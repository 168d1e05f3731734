#include "tracking_runtime/tracker/atom/frame_candidate.h"

#include <algorithm>
#include <cmath>

#include "tracking_runtime/tracker/atom/response_analysis.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

float sigmoid_of_peak(const cv::Mat& response, double raw) {
  cv::Scalar mean;
  cv::Scalar deviation;
  cv::meanStdDev(response, mean, deviation);
  const double z = (raw - mean[0]) / std::max(deviation[0], 1e-6);
  return static_cast<float>(std::min(1.0 / (1.0 + std::exp(-z)), 1.0));
}

}  // namespace

std::vector<float> sorted_search_scales(std::vector<float> scales) {
  std::sort(scales.begin(), scales.end());
  scales.erase(std::unique(scales.begin(), scales.end()), scales.end());
  if (scales.empty()) scales.push_back(1.0F);
  return scales;
}

std::optional<Candidate> make_candidate(const cv::Mat& low_resolution_response, float scale,
                                        float frame_target_scale, int filter_height, int filter_width,
                                        int search_size) {
  if (low_resolution_response.empty()) return std::nullopt;
  const cv::Mat upsampled =
      upsample_response_fft(low_resolution_response, filter_height, filter_width, search_size);
  if (upsampled.empty()) return std::nullopt;

  Candidate candidate;
  candidate.response = roll_mat(upsampled, (upsampled.rows + 1) / 2, (upsampled.cols + 1) / 2);
  if (candidate.response.empty()) return std::nullopt;
  double raw = 0.0;
  cv::minMaxLoc(candidate.response, nullptr, &raw, nullptr, &candidate.peak);
  candidate.raw = static_cast<float>(raw);
  candidate.confidence = sigmoid_of_peak(candidate.response, raw);
  candidate.scale = scale;
  candidate.target_scale = frame_target_scale * scale;
  return candidate;
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
