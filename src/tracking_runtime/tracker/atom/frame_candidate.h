#pragma once

#include <opencv2/core.hpp>
#include <optional>
#include <vector>

#include "tracking_runtime/tracker/atom/classifier_state.h"
#include "tracking_runtime/tracker/atom/feature_map.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// What one search scale of a frame answered.
struct Candidate {
  int index = -1;             ///< position among the kept scales, ascending
  float scale = 1.0F;         ///< the scale candidate
  float target_scale = 1.0F;  ///< scale at frame start times `scale`
  float confidence = 0.0F;    ///< sigmoid of the peak's z-score; no decision reads it
  float raw = 0.0F;           ///< maximum of the response
  float max2 = 0.0F;          ///< second peak after masking, at least 0
  cv::Point_<int> peak{0, 0};
  cv::Mat patch;       ///< the cut patch; empty when the pixels stayed on the GPU
  FeatureMap feature;  ///< projected; may be undefined on the view path
  cv::Mat response;    ///< upsampled, zero displacement at (cols / 2, rows / 2)
};

/// The scale list of a frame: sorted, equal neighbours merged, 1.0 alone when nothing is configured. Entries
/// at or below 0 stay in the list and yield no patch.
std::vector<float> sorted_search_scales(std::vector<float> scales);

/// Upsamples and centres a low-resolution response and finds its peak. Nothing when the response is empty
/// or larger than `search_size`. `feature`, `index`, `patch` are left to the caller.
std::optional<Candidate> make_candidate(const cv::Mat& low_resolution_response, float scale,
                                        float frame_target_scale, int filter_height, int filter_width,
                                        int search_size);

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
