#pragma once

#include <cublas_v2.h>
#include <cuda_runtime.h>

#include <cstdio>
#include <string>
#include <utility>

#include "tracking_runtime/tracker/atom/refuse.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// The status as error texts name it.
inline const char* cublas_status_name(cublasStatus_t status) {
  switch (status) {
    case CUBLAS_STATUS_NOT_INITIALIZED:
      return "CUBLAS_STATUS_NOT_INITIALIZED";
    case CUBLAS_STATUS_ALLOC_FAILED:
      return "CUBLAS_STATUS_ALLOC_FAILED";
    case CUBLAS_STATUS_INVALID_VALUE:
      return "CUBLAS_STATUS_INVALID_VALUE";
    case CUBLAS_STATUS_ARCH_MISMATCH:
      return "CUBLAS_STATUS_ARCH_MISMATCH";
    case CUBLAS_STATUS_MAPPING_ERROR:
      return "CUBLAS_STATUS_MAPPING_ERROR";
    case CUBLAS_STATUS_EXECUTION_FAILED:
      return "CUBLAS_STATUS_EXECUTION_FAILED";
    case CUBLAS_STATUS_INTERNAL_ERROR:
      return "CUBLAS_STATUS_INTERNAL_ERROR";
    default:
      return "CUBLAS_STATUS_UNKNOWN";
  }
}

/// True for success. Otherwise false, and a non-null `error` takes the label, ": " and the status name.
inline bool set_cublas_error(cublasStatus_t status, const char* label, std::string* error) {
  return status == CUBLAS_STATUS_SUCCESS ||
         refuse(std::string(label) + ": " + cublas_status_name(status), error);
}

/// Owner of a cuBLAS handle, with the manners of the owners in cuda_handles.h.
class CublasHandle {
 public:
  CublasHandle() = default;
  ~CublasHandle() { release(); }
  CublasHandle(CublasHandle&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
  CublasHandle& operator=(CublasHandle&& other) noexcept {
    if (this == &other) return *this;
    release();
    handle_ = std::exchange(other.handle_, nullptr);
    return *this;
  }
  CublasHandle(const CublasHandle&) = delete;
  CublasHandle& operator=(const CublasHandle&) = delete;

  cublasHandle_t get() const { return handle_; }
  explicit operator bool() const { return handle_ != nullptr; }

  /// Makes the handle; one that is owned already is destroyed first. Empty after a failure.
  cublasStatus_t create() {
    const cublasStatus_t released = reset();
    return released != CUBLAS_STATUS_SUCCESS ? released : cublasCreate(&handle_);
  }

  void release() noexcept {
    const cublasStatus_t status = reset();
    if (status == CUBLAS_STATUS_SUCCESS) return;
    std::fprintf(stderr, "[CUDA] cublasDestroy failed on release: %s\n", cublas_status_name(status));
  }

  /// Destroys the handle; the owner is empty afterwards, whatever the status.
  cublasStatus_t reset() noexcept {
    cublasHandle_t const handle = std::exchange(handle_, nullptr);
    return handle == nullptr ? CUBLAS_STATUS_SUCCESS : cublasDestroy(handle);
  }

 private:
  cublasHandle_t handle_ = nullptr;
};

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
