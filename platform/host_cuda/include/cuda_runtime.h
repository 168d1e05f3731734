#pragma once

// The CUDA runtime calls that this project makes, for a machine without a GPU: signatures, status codes and
// error texts are CUDA's. Device memory is ordinary memory behind a registry that refuses what the real
// runtime would let pass; host_cuda/control.h has the counters, the fault hooks and the modes.

#include <cstddef>

// The compiler's words for device code. `__noinline__` stays undefined: the standard library uses it.
// NOLINTBEGIN(bugprone-reserved-identifier)
#define __global__
#define __device__
#define __host__
#define __shared__
#define __forceinline__ inline __attribute__((always_inline))
#define __launch_bounds__(...)
// NOLINTEND(bugprone-reserved-identifier)

enum cudaError {
  cudaSuccess = 0,
  cudaErrorInvalidValue = 1,
  cudaErrorMemoryAllocation = 2,
  cudaErrorInitializationError = 3,
  cudaErrorCudartUnloading = 4,
  cudaErrorInvalidConfiguration = 9,
  cudaErrorInvalidPitchValue = 12,
  cudaErrorInvalidDevicePointer = 17,
  cudaErrorInvalidMemcpyDirection = 21,
  cudaErrorInsufficientDriver = 35,
  cudaErrorDevicesUnavailable = 46,
  cudaErrorInvalidDeviceFunction = 98,
  cudaErrorNoDevice = 100,
  cudaErrorInvalidDevice = 101,
  cudaErrorInvalidResourceHandle = 400,
  cudaErrorNotReady = 600,
  cudaErrorIllegalAddress = 700,
  cudaErrorLaunchOutOfResources = 701,
  cudaErrorLaunchTimeout = 702,
  cudaErrorMisalignedAddress = 716,
  cudaErrorLaunchFailure = 719,
  cudaErrorNotPermitted = 800,
  cudaErrorNotSupported = 801,
  cudaErrorUnknown = 999
};
typedef enum cudaError cudaError_t;

enum cudaMemcpyKind {
  cudaMemcpyHostToHost = 0,
  cudaMemcpyHostToDevice = 1,
  cudaMemcpyDeviceToHost = 2,
  cudaMemcpyDeviceToDevice = 3,
  cudaMemcpyDefault = 4
};

typedef struct CUstream_st* cudaStream_t;
typedef struct CUevent_st* cudaEvent_t;

#define cudaStreamDefault 0x00
#define cudaStreamNonBlocking 0x01

#define cudaEventDefault 0x00
#define cudaEventBlockingSync 0x01
#define cudaEventDisableTiming 0x02

extern "C" {

// Memory. Fresh memory is filled with 0xFF. Freeing waits for all work submitted so far.
cudaError_t cudaMalloc(void** pointer, std::size_t bytes);
cudaError_t cudaFree(void* pointer);
cudaError_t cudaMallocHost(void** pointer, std::size_t bytes);
cudaError_t cudaFreeHost(void* pointer);

cudaError_t cudaMemcpy(void* target, const void* source, std::size_t bytes, cudaMemcpyKind kind);
cudaError_t cudaMemcpyAsync(void* target, const void* source, std::size_t bytes, cudaMemcpyKind kind,
                            cudaStream_t stream = nullptr);
cudaError_t cudaMemcpy2DAsync(void* target, std::size_t target_pitch, const void* source,
                              std::size_t source_pitch, std::size_t width, std::size_t height,
                              cudaMemcpyKind kind, cudaStream_t stream = nullptr);
cudaError_t cudaMemsetAsync(void* target, int value, std::size_t bytes, cudaStream_t stream = nullptr);

// Streams.
cudaError_t cudaStreamCreateWithFlags(cudaStream_t* stream, unsigned int flags);
cudaError_t cudaStreamCreateWithPriority(cudaStream_t* stream, unsigned int flags, int priority);
cudaError_t cudaStreamDestroy(cudaStream_t stream);
cudaError_t cudaStreamSynchronize(cudaStream_t stream);
cudaError_t cudaStreamWaitEvent(cudaStream_t stream, cudaEvent_t event, unsigned int flags = 0);
cudaError_t cudaDeviceGetStreamPriorityRange(int* least_priority, int* greatest_priority);

// Events. Times are those of the real clock.
cudaError_t cudaEventCreate(cudaEvent_t* event);
cudaError_t cudaEventCreateWithFlags(cudaEvent_t* event, unsigned int flags);
cudaError_t cudaEventDestroy(cudaEvent_t event);
cudaError_t cudaEventRecord(cudaEvent_t event, cudaStream_t stream = nullptr);
cudaError_t cudaEventSynchronize(cudaEvent_t event);
cudaError_t cudaEventElapsedTime(float* milliseconds, cudaEvent_t start, cudaEvent_t end);

// Errors and device. The last error belongs to the calling thread.
cudaError_t cudaGetLastError(void);
cudaError_t cudaPeekAtLastError(void);
const char* cudaGetErrorString(cudaError_t error);
cudaError_t cudaDeviceSynchronize(void);
cudaError_t cudaGetDeviceCount(int* count);
cudaError_t cudaSetDevice(int device);
cudaError_t cudaGetDevice(int* device);

}  // extern "C"

template <typename T>
inline cudaError_t cudaMalloc(T** pointer, std::size_t bytes) {
  return cudaMalloc(reinterpret_cast<void**>(pointer), bytes);
}

template <typename T>
inline cudaError_t cudaMallocHost(T** pointer, std::size_t bytes) {
  return cudaMallocHost(reinterpret_cast<void**>(pointer), bytes);
}
