#include "tracking_runtime/tracker/atom/cuda_runtime_backend.h"
#include "tracking_runtime/tracker/atom/feature_extraction.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

bool CudaRuntimeBackend::extract_feature_map_(const cv::Mat& patch, FeatureMap* out, std::string* error) {
  return extract_feature_map(trt.get(), patch, out, error);
}

std::vector<FeatureMap> CudaRuntimeBackend::extract_feature_maps_batched_(
    const std::vector<cv::Mat>& patches) {
  return extract_feature_maps(trt, trt_workers, patches);
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
