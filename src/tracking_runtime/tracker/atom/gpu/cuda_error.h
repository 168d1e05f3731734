#pragma once

#include <cuda_runtime.h>

#include <string>
#include <string_view>

#include "tracking_runtime/tracker/atom/refuse.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// True for cudaSuccess. Otherwise false, and a non-null `error` takes the label, ": " and the text of
/// cudaGetErrorString. Every CUDA failure of the numerics reads this way. The runtime's own memory of the
/// failure is cleared, so that a refused allocation does not pass for the failure of the next launch; an
/// error that the device cannot recover from comes back at the next call.
inline bool set_cuda_error(cudaError_t status, const char* label, std::string* error) {
  if (status == cudaSuccess) return true;
  static_cast<void>(cudaGetLastError());
  if (error != nullptr) *error = std::string(label) + ": " + cudaGetErrorString(status);
  return false;
}

/// True for cudaSuccess. Otherwise false, with `text` alone in a non-null `error`, and the runtime's memory of
/// the failure cleared: the failure of a CUDA call whose words name no CUDA status.
inline bool require_cuda(cudaError_t status, std::string_view text, std::string* error) {
  if (status == cudaSuccess) return true;
  static_cast<void>(cudaGetLastError());
  return refuse(text, error);
}

namespace detail {

/// The joint optimiser's name for the same text.
inline bool set_cuda_error(cudaError_t status, const char* label, std::string* error) {
  return atom::set_cuda_error(status, label, error);
}

}  // namespace detail
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
