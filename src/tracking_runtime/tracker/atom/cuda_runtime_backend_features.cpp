// Projection, first weights, labels and the host classifier: the backend's state handed to the numerics.

#include "tracking_runtime/tracker/atom/cuda_runtime_backend.h"
#include "tracking_runtime/tracker/atom/projection_setup.h"
#include "tracking_runtime/tracker/atom/response_analysis.h"
#include "tracking_runtime/tracker/atom/sample_labels.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

FeatureMap CudaRuntimeBackend::project_feature_(const FeatureMap& feature) const {
  return project_feature(feature, weights, config.use_projection_matrix);
}

bool CudaRuntimeBackend::init_projection_matrix_(const FeatureMap& feature) {
  if (!feature.defined() || feature.samples != 1) return false;
  return init_projection_matrix_(feature.channels, feature.height, feature.width, &feature);
}

bool CudaRuntimeBackend::init_projection_matrix_(int channels, int height, int width,
                                                 const FeatureMap* feature_or_null) {
  return init_projection(config, channels, height, width, feature_or_null, &weights);
}

bool CudaRuntimeBackend::init_filter_weights_(const FeatureMap& feature, const cv::Rect_<float>& rect) {
  if (!feature.defined() || feature.samples != 1) return false;
  return init_filter_weights_(feature.channels, feature.height, feature.width, rect);
}

// The rectangle, the target in patch coordinates, is what other filter initialisations would need.
bool CudaRuntimeBackend::init_filter_weights_(int channels, int height, int width,
                                              const cv::Rect_<float>& /*rect*/) {
  return init_filter(config, channels, height, width, &weights);
}

LabelMap CudaRuntimeBackend::build_label_for_sample_(int height, int width,
                                                     const cv::Point_<float>& sample_pos,
                                                     float sample_scale) const {
  return build_label(*this, height, width, sample_pos, sample_scale);
}

LabelMap CudaRuntimeBackend::build_label_for_sample_(const FeatureMap& feature,
                                                     const cv::Point_<float>& sample_pos,
                                                     float sample_scale) const {
  if (!feature.defined()) return {};
  return build_label_for_sample_(feature.height, feature.width, sample_pos, sample_scale);
}

cv::Mat CudaRuntimeBackend::classify_feature_(const FeatureMap& feature) const {
  ClassifierState filter;
  {
    const std::lock_guard<std::mutex> lock(state_mutex);
    filter.filter_weights = weights.filter_weights;
    filter.filter_channels = weights.filter_channels;
    filter.filter_height = weights.filter_height;
    filter.filter_width = weights.filter_width;
  }
  return classify_feature(feature, filter);
}

cv::Mat CudaRuntimeBackend::upsample_response_fft_(const cv::Mat& response) const {
  return upsample_response_fft(response, weights.filter_height, weights.filter_width, config.search_size);
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
