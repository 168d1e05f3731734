#include "tracking_runtime/tracker/atom/cuda_runtime_backend.h"
#include "tracking_runtime/tracker/atom/gpu/trt_forward.h"
#include "tracking_runtime/tracker/atom/gpu/trt_worker_set.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

bool CudaRuntimeBackend::initialize_runtime_(std::string* error) {
  if (runtime_initialized) return true;
  runtime_initialized = init_trt_backbone_(config.trt_engine_path, error);
  return runtime_initialized;
}

bool CudaRuntimeBackend::init_trt_backbone_(const std::string& engine_path, std::string* error) {
  const TrtBackboneRequest request{engine_path, config.search_size, config.search_scales.size()};
  return make_trt_workers(request, &trt, &trt_workers, error);
}

bool CudaRuntimeBackend::upload_trt_input_patches_(TrtBackbone* worker, const std::vector<cv::Mat>& patches,
                                                   std::string* error) {
  return upload_trt_input_patches(worker, patches, error);
}

FeatureMap CudaRuntimeBackend::run_trt_forward_(const cv::Mat& patch, std::string* error) {
  return run_trt_forward(trt.get(), patch, error);
}

FeatureMap CudaRuntimeBackend::run_trt_forward_batched_(const std::vector<cv::Mat>& patches,
                                                        std::string* error) {
  return run_trt_forward_batched(trt.get(), patches, error);
}

bool CudaRuntimeBackend::run_trt_device_batch_(PatchRange patches, TrtDeviceBatch* out, std::string* error) {
  return run_trt_device_batch(trt.get(), patches, out, error);
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
