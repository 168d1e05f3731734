#pragma once

#include <NvInfer.h>
#include <cuda_runtime.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// Milliseconds of one classification, as the frame log shows them.
struct GpuTrackTimings {
  float upload_u8_ms = 0.0F;
  float preprocess_cuda_ms = 0.0F;
  float upload_weights_gpu_ms = 0.0F;
  float trt_wait_ms = 0.0F;
  float d2h_response_ms = 0.0F;
  float d2h_projected_ms = 0.0F;
};

struct TrtBackbone;  // completed by the engine room

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
