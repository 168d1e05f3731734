// Stands before the functions of the CUDA runtime that put work on a stream: what a program defines itself comes first
// for the program and for every library that it loads. Each notes a default stream and hands on.
#include <null_stream_watch.h>

#include <cublas_v2.h>
#include <cuda_runtime_api.h>
#include <dlfcn.h>

#include <atomic>
#include <cstdlib>

namespace {

std::atomic<std::int64_t> seen{0};

void note(cudaStream_t stream) {
  if (stream == nullptr || stream == cudaStreamLegacy || stream == cudaStreamPerThread) ++seen;
}

// The function of that name that the program would have called.
template <typename Function>
Function* next(const char* name) {
  void* const found = dlsym(RTLD_NEXT, name);
  if (found == nullptr) std::abort();
  return reinterpret_cast<Function*>(found);
}

}  // namespace

namespace ostrel_test {

std::int64_t null_stream_work() {
  return seen;
}

}  // namespace ostrel_test

// The names are the runtime's.
// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming)
extern "C" {

cudaError_t cudaLaunchKernel(const void* kernel, dim3 grid, dim3 block, void** arguments,
                             std::size_t shared_bytes, cudaStream_t stream) {
  static auto* const own = next<decltype(::cudaLaunchKernel)>("cudaLaunchKernel");
  note(stream);
  return own(kernel, grid, block, arguments, shared_bytes, stream);
}

// What nvcc 13 makes of a launch.
cudaError_t __cudaLaunchKernel(void* kernel, dim3 grid, dim3 block, void** arguments,
                               std::size_t shared_bytes, cudaStream_t stream) {
  static auto* const own = next<decltype(__cudaLaunchKernel)>("__cudaLaunchKernel");
  note(stream);
  return own(kernel, grid, block, arguments, shared_bytes, stream);
}

cudaError_t cudaMemcpyAsync(void* target, const void* source, std::size_t bytes, cudaMemcpyKind kind,
                            cudaStream_t stream) {
  static auto* const own = next<decltype(::cudaMemcpyAsync)>("cudaMemcpyAsync");
  note(stream);
  return own(target, source, bytes, kind, stream);
}

cudaError_t cudaMemcpy2DAsync(void* target, std::size_t target_pitch, const void* source,
                              std::size_t source_pitch, std::size_t width, std::size_t height,
                              cudaMemcpyKind kind, cudaStream_t stream) {
  static auto* const own = next<decltype(::cudaMemcpy2DAsync)>("cudaMemcpy2DAsync");
  note(stream);
  return own(target, target_pitch, source, source_pitch, width, height, kind, stream);
}

cudaError_t cudaMemsetAsync(void* target, int value, std::size_t bytes, cudaStream_t stream) {
  static auto* const own = next<decltype(::cudaMemsetAsync)>("cudaMemsetAsync");
  note(stream);
  return own(target, value, bytes, stream);
}

cudaError_t cudaEventRecord(cudaEvent_t event, cudaStream_t stream) {
  static auto* const own = next<decltype(::cudaEventRecord)>("cudaEventRecord");
  note(stream);
  return own(event, stream);
}

cudaError_t cudaStreamWaitEvent(cudaStream_t stream, cudaEvent_t event, unsigned int flags) {
  static auto* const own = next<decltype(::cudaStreamWaitEvent)>("cudaStreamWaitEvent");
  note(stream);
  return own(stream, event, flags);
}

cublasStatus_t cublasSgemmStridedBatched(cublasHandle_t handle, cublasOperation_t left_operation,
                                         cublasOperation_t right_operation, int m, int n, int k,
                                         const float* alpha, const float* left, int left_leading,
                                         long long int left_stride, const float* right, int right_leading,
                                         long long int right_stride, const float* beta, float* out,
                                         int out_leading, long long int out_stride, int count) {
  static auto* const own = next<decltype(::cublasSgemmStridedBatched)>("cublasSgemmStridedBatched");
  cudaStream_t stream = nullptr;
  if (cublasGetStream(handle, &stream) == CUBLAS_STATUS_SUCCESS) note(stream);
  return own(handle, left_operation, right_operation, m, n, k, alpha, left, left_leading, left_stride, right,
             right_leading, right_stride, beta, out, out_leading, out_stride, count);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)
