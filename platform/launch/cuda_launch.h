#pragma once

// One source for kernels on two devices.
//
// A kernel is an ordinary __global__ function whose body is written in phases:
//
//   __global__ void scale_kernel(const float* source, float scale, float* target, int n) {
//     const Block block = this_block();
//     block.for_each_thread([&](int thread) {
//       const int t = block.index() * block.threads() + thread;
//       if (t >= n) return;
//       target[t] = scale * source[t];
//     });
//   }
//
// The end of a phase is the block's barrier; a phase never stands in a branch that threads may take
// differently. A `return` inside a phase ends that thread's phase only. What one thread keeps across phases
// goes through shared arrays: `__shared__ double partial[256];` or `block.dynamic_shared<float>()`.
//
// With nvcc a phase is the body of the running thread followed by __syncthreads(). Elsewhere the kernel
// function is called once per block and a phase is a loop over the threads.
//
//   Block            index() of the block in x, threads() per block, grid() in blocks, dynamic_shared<T>(),
//                    for_each_thread(phase) with phase taking the thread's index as an int
//   this_block()     the block that runs; valid inside kernels only
//   atomic_add       adds to a double in device memory, atomically among all blocks
//   exp2_fast        2^x by the device's fast exponential (about 2 units in the last place); results below the
//                    smallest normal float may be 0
//   launch_kernel    launches and returns cudaGetLastError(): an error that an earlier call of this thread left
//                    behind shows here too, as it does with the real runtime. Arguments are converted to the
//                    kernel's parameter types and copied at the launch. `name` feeds counters, fault hooks
//                    and error texts. Does not synchronise.
//
// This is the only file that asks which compiler is at work.

#ifdef __CUDACC__

#include <cuda_runtime.h>

#include <cstddef>
#include <utility>

namespace ostrel::launch {

class Block {
 public:
  __device__ __forceinline__ int index() const { return static_cast<int>(blockIdx.x); }
  __device__ __forceinline__ int threads() const { return static_cast<int>(blockDim.x); }
  __device__ __forceinline__ int grid() const { return static_cast<int>(gridDim.x); }

  template <typename T>
  __device__ __forceinline__ T* dynamic_shared() const {
    extern __shared__ __align__(16) unsigned char ostrel_dynamic_shared[];
    return reinterpret_cast<T*>(ostrel_dynamic_shared);
  }

  template <typename Phase>
  __device__ __forceinline__ void for_each_thread(Phase&& phase) const {
    phase(static_cast<int>(threadIdx.x));
    __syncthreads();
  }
};

__device__ __forceinline__ Block this_block() {
  return {};
}

__device__ __forceinline__ void atomic_add(double* target, double value) {
  ::atomicAdd(target, value);
}

__device__ __forceinline__ float exp2_fast(float x) {
  float result;
  asm("ex2.approx.ftz.f32 %0, %1;" : "=f"(result) : "f"(x));
  return result;
}

template <typename... Params, typename... Args>
cudaError_t launch_kernel(const char* /*name*/, void (*kernel)(Params...), unsigned grid, unsigned block,
                          std::size_t shared_bytes, cudaStream_t stream, Args&&... args) {
  static_assert(sizeof...(Params) == sizeof...(Args), "one argument for each parameter of the kernel");
  kernel<<<grid, block, shared_bytes, stream>>>(static_cast<Params>(std::forward<Args>(args))...);
  return cudaGetLastError();
}

}  // namespace ostrel::launch

#else

#include <host_cuda/launch.h>

#endif
