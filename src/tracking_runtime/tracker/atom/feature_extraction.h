#pragma once

#include <memory>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "tracking_runtime/tracker/atom/feature_map.h"
#include "tracking_runtime/tracker/atom/gpu/trt_backbone.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// One patch through the primary worker; its map replaces `out` also when it has no sizes. Fails with "null
/// output feature map", "TensorRT backbone is not ready", the words of the forward, or "TensorRT forward failed
/// in extract_feature_map_".
bool extract_feature_map(TrtBackbone* primary, const cv::Mat& patch, FeatureMap* out, std::string* error);

/// One map of one sample per patch, in order. Tries whole batches, then one patch per worker side by side, then
/// one by one; a tier that fails writes a line to standard error and the next one starts over. What the last
/// tier could not extract stays undefined.
std::vector<FeatureMap> extract_feature_maps(const std::unique_ptr<TrtBackbone>& primary,
                                             const std::vector<std::unique_ptr<TrtBackbone>>& further,
                                             const std::vector<cv::Mat>& patches);

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
