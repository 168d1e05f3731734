// Failures of the device as exceptions, which the interface turns into a line and a refusal.
#pragma once

#include <cuda_runtime.h>
#include <cudnn.h>

namespace ostrel::tensorrt_cudnn {

// Throws ModelError "WHAT: TEXT" unless the status is a success.
void check(cudaError_t status, const char* what);
void check(cudnnStatus_t status, const char* what);

}  // namespace ostrel::tensorrt_cudnn
