#include "api_call.h"

namespace ostrel::host_cuda::detail {

cudaError_t& last_error() {
  thread_local cudaError_t error = cudaSuccess;
  return error;
}

namespace {

cudaError_t peek_or_fault(const char* name) {
  const int fault = take_fault(name);
  return fault != 0 ? static_cast<cudaError_t>(fault) : last_error();
}

}  // namespace
}  // namespace ostrel::host_cuda::detail

namespace detail = ostrel::host_cuda::detail;

cudaError_t cudaGetLastError(void) {
  const cudaError_t error = detail::peek_or_fault("cudaGetLastError");
  detail::last_error() = cudaSuccess;
  return error;
}

cudaError_t cudaPeekAtLastError(void) {
  return detail::peek_or_fault("cudaPeekAtLastError");
}

const char* cudaGetErrorString(cudaError_t error) {
  switch (error) {
    case cudaSuccess:
      return "no error";
    case cudaErrorInvalidValue:
      return "invalid argument";
    case cudaErrorMemoryAllocation:
      return "out of memory";
    case cudaErrorInitializationError:
      return "initialization error";
    case cudaErrorCudartUnloading:
      return "driver shutting down";
    case cudaErrorInvalidConfiguration:
      return "invalid configuration argument";
    case cudaErrorInvalidPitchValue:
      return "invalid pitch argument";
    case cudaErrorInvalidDevicePointer:
      return "invalid device pointer";
    case cudaErrorInvalidMemcpyDirection:
      return "invalid copy direction for memcpy";
    case cudaErrorInsufficientDriver:
      return "CUDA driver version is insufficient for CUDA runtime version";
    case cudaErrorDevicesUnavailable:
      return "CUDA-capable device(s) is/are busy or unavailable";
    case cudaErrorInvalidDeviceFunction:
      return "invalid device function";
    case cudaErrorNoDevice:
      return "no CUDA-capable device is detected";
    case cudaErrorInvalidDevice:
      return "invalid device ordinal";
    case cudaErrorInvalidResourceHandle:
      return "invalid resource handle";
    case cudaErrorNotReady:
      return "device not ready";
    case cudaErrorIllegalAddress:
      return "an illegal memory access was encountered";
    case cudaErrorLaunchOutOfResources:
      return "too many resources requested for launch";
    case cudaErrorLaunchTimeout:
      return "the launch timed out and was terminated";
    case cudaErrorMisalignedAddress:
      return "misaligned address";
    case cudaErrorLaunchFailure:
      return "unspecified launch failure";
    case cudaErrorNotPermitted:
      return "operation not permitted";
    case cudaErrorNotSupported:
      return "operation not supported";
    case cudaErrorUnknown:
      return "unknown error";
  }
  return "unrecognized error code";
}

cudaError_t cudaGetDeviceCount(int* count) {
  return detail::api_call("cudaGetDeviceCount", [&] {
    if (count == nullptr) return cudaErrorInvalidValue;
    *count = 1;
    return cudaSuccess;
  });
}

cudaError_t cudaSetDevice(int device) {
  return detail::api_call("cudaSetDevice",
                          [&] { return device == 0 ? cudaSuccess : cudaErrorInvalidDevice; });
}

cudaError_t cudaGetDevice(int* device) {
  return detail::api_call("cudaGetDevice", [&] {
    if (device == nullptr) return cudaErrorInvalidValue;
    *device = 0;
    return cudaSuccess;
  });
}
