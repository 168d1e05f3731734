#include "status.h"

#include "graph_names.h"

namespace ostrel::tensorrt_cudnn {

void check(cudaError_t status, const char* what) {
  if (status == cudaSuccess) return;
  static_cast<void>(cudaGetLastError());  // told here; it must not show in a later call
  throw ModelError(std::string(what) + ": " + cudaGetErrorString(status));
}

void check(cudnnStatus_t status, const char* what) {
  if (status == CUDNN_STATUS_SUCCESS) return;
  throw ModelError(std::string(what) + ": " + cudnnGetErrorString(status));
}

}  // namespace ostrel::tensorrt_cudnn
