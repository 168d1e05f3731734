#pragma once

#include <cuda_runtime.h>

#include <string>

#include "tracking_runtime/tracker/atom/gpu/cuda_error.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_handles.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// Lets `stream` wait for what `producer` holds so far, by an event made in `event`; the host does not wait.
/// The event may go before it has happened: what waits for it keeps it. A failure reads the call, a space,
/// `what`, ": " and the CUDA text.
inline bool wait_for_stream(cudaStream_t stream, cudaStream_t producer, const std::string& what,
                            CudaEvent* event, std::string* error) {
  const auto check = [&](cudaError_t status, const char* call) {
    return set_cuda_error(status, (call + what).c_str(), error);
  };
  return check(event->create_with_flags(cudaEventDisableTiming), "cudaEventCreateWithFlags ") &&
         check(cudaEventRecord(event->get(), producer), "cudaEventRecord ") &&
         check(cudaStreamWaitEvent(stream, event->get(), 0), "cudaStreamWaitEvent ");
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
