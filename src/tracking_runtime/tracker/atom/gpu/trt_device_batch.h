#pragma once

#include <cuda_runtime.h>

#include <string>

#include "tracking_runtime/tracker/atom/gpu/trt_forward.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// Features of a batch in the worker's own output buffer: samples x channels x height x width floats, valid in
/// the order of `stream` until the worker's next forward, which overwrites them.
struct TrtDeviceBatch {
  const float* features = nullptr;
  int samples = 0;
  int channels = 0;
  int height = 0;
  int width = 0;
  cudaStream_t stream = nullptr;
};

/// Runs the network on up to `max_batch` patches and leaves the features on the device, out1 where the engine
/// has it, else out0. Returns without waiting: a consumer orders itself after the batch's stream. `out` is
/// written on success only. Fails with "TensorRT backbone is not ready for device init batch" (also for no
/// patches), "TensorRT init batch request exceeds allocated capacity", "failed to set TensorRT init device
/// batch input shape", "TensorRT init device batch input shape mismatch", "failed to bind TensorRT init device
/// batch input tensor", the words of the upload, "TensorRT enqueue failed for init device batch", or "TensorRT
/// init device batch output shape is invalid".
bool run_trt_device_batch(TrtBackbone* worker, PatchRange patches, TrtDeviceBatch* out, std::string* error);

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
