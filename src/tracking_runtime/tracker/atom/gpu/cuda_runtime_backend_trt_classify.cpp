#include "tracking_runtime/tracker/atom/cuda_runtime_backend.h"
#include "tracking_runtime/tracker/atom/optrix_adapter.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

bool CudaRuntimeBackend::classify_tensor_batch_on_gpu_(const optrix::TensorBatch& batch,
                                                       std::vector<cv::Mat>* responses,
                                                       std::vector<FeatureMap>* features,
                                                       GpuTrackTimings* timings, std::string* error) {
  return classify_tensor_batch(trt.get(), trt_input_batch(batch),
                               {state_mutex, weights, config.use_projection_matrix}, &classify_scratch,
                               {responses, features, timings}, error);
}

bool CudaRuntimeBackend::classify_patches_on_gpu_(const std::vector<cv::Mat>& patches,
                                                  std::vector<cv::Mat>* responses,
                                                  std::vector<FeatureMap>* features, GpuTrackTimings* timings,
                                                  std::string* error) {
  return classify_patches(trt, trt_workers, patches, {state_mutex, weights, config.use_projection_matrix},
                          &classify_scratch, {responses, features, timings}, error);
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
