#pragma once

#include <cuda_runtime.h>

#include "host_cuda/control.h"

// What every runtime call does around its own work.

namespace ostrel::host_cuda::detail {

// The last error of the calling thread.
cudaError_t& last_error();

// Remembers a failure as the thread's last error. cudaErrorNotReady is an answer, no failure.
inline cudaError_t remember(cudaError_t status) {
  if (status != cudaSuccess && status != cudaErrorNotReady) last_error() = status;
  return status;
}

// True on a thread that runs work of a stream just now: it may make no CUDA calls.
bool inside_work();

template <typename Body>
cudaError_t api_call(const char* name, Body&& body) {
  const int fault = take_fault(name);
  if (fault != 0) return remember(static_cast<cudaError_t>(fault));
  if (inside_work()) return remember(cudaErrorNotPermitted);
  return remember(body());
}

}  // namespace ostrel::host_cuda::detail
