#include "platform/launch/launch_test_kernels.h"

#include <cuda_launch.h>

namespace launch_test {
namespace {

using ostrel::launch::atomic_add;
using ostrel::launch::Block;
using ostrel::launch::exp2_fast;
using ostrel::launch::launch_kernel;
using ostrel::launch::this_block;

constexpr int kSumThreads = 256;

__global__ void scale_kernel(const float* __restrict__ source, float scale, float* __restrict__ target,
                             int n) {
  const Block block = this_block();
  block.for_each_thread([&](int thread) {
    const int t = block.index() * block.threads() + thread;
    if (t >= n) return;
    target[t] = scale * source[t];
  });
}

__global__ void sum_kernel(const float* source, int n, double* out) {
  __shared__ double partial[kSumThreads];
  const Block block = this_block();
  block.for_each_thread([&](int thread) {
    double sum = 0.0;
    const int step = block.threads() * block.grid();
    for (int t = block.index() * block.threads() + thread; t < n; t += step)
      sum += static_cast<double>(source[t]);
    partial[thread] = sum;
  });
  for (int stride = block.threads() / 2; stride > 0; stride /= 2) {
    block.for_each_thread([&](int thread) {
      if (thread < stride) partial[thread] += partial[thread + stride];
    });
  }
  block.for_each_thread([&](int thread) {
    if (thread == 0) atomic_add(out, partial[0]);
  });
}

__global__ void reverse_blocks_kernel(const float* source, float* target) {
  const Block block = this_block();
  float* staged = block.dynamic_shared<float>();
  const int first = block.index() * block.threads();
  block.for_each_thread([&](int thread) { staged[thread] = source[first + thread]; });
  block.for_each_thread([&](int thread) { target[first + thread] = staged[block.threads() - 1 - thread]; });
}

__global__ void shift_without_barrier_kernel(const float* source, float* target) {
  const Block block = this_block();
  float* staged = block.dynamic_shared<float>();
  const int first = block.index() * block.threads();
  block.for_each_thread([&](int thread) {
    staged[thread] = source[first + thread];
    target[first + thread] = staged[thread > 0 ? thread - 1 : 0];
  });
}

__global__ void describe_blocks_kernel(int* target) {
  const Block block = this_block();
  block.for_each_thread([&](int thread) {
    if (thread != 0) return;
    target[3 * block.index()] = block.threads();
    target[3 * block.index() + 1] = block.grid();
    target[3 * block.index() + 2] = block.index();
  });
}

__global__ void copy_fresh_shared_kernel(unsigned char* target, int count) {
  const Block block = this_block();
  const unsigned char* shared = block.dynamic_shared<unsigned char>();
  block.for_each_thread([&](int thread) {
    for (int i = thread; i < count; i += block.threads()) target[i] = shared[i];
  });
}

__global__ void exp2_kernel(const float* source, float* target, int n) {
  const Block block = this_block();
  block.for_each_thread([&](int thread) {
    const int t = block.index() * block.threads() + thread;
    if (t < n) target[t] = exp2_fast(source[t]);
  });
}

__global__ void store_converted_kernel(float* target, float value, long long n) {
  const Block block = this_block();
  block.for_each_thread([&](int) {
    target[0] = value;
    target[1] = static_cast<float>(n);
  });
}

unsigned blocks_for(int n, unsigned block) {
  return (static_cast<unsigned>(n) + block - 1) / block;
}

}  // namespace

cudaError_t scale(const float* source, float scale, float* target, int n, unsigned block,
                  cudaStream_t stream) {
  return launch_kernel("scale_kernel", scale_kernel, blocks_for(n, block), block, 0, stream, source, scale,
                       target, n);
}

cudaError_t sum(const float* source, int n, double* out, unsigned grid, cudaStream_t stream) {
  return launch_kernel("sum_kernel", sum_kernel, grid, kSumThreads, 0, stream, source, n, out);
}

cudaError_t reverse_blocks(const float* source, float* target, unsigned grid, unsigned block,
                           std::size_t shared_bytes, cudaStream_t stream) {
  return launch_kernel("reverse_blocks_kernel", reverse_blocks_kernel, grid, block, shared_bytes, stream,
                       source, target);
}

cudaError_t shift_without_barrier(const float* source, float* target, unsigned grid, unsigned block,
                                  cudaStream_t stream) {
  return launch_kernel("shift_without_barrier_kernel", shift_without_barrier_kernel, grid, block,
                       block * sizeof(float), stream, source, target);
}

cudaError_t describe_blocks(int* target, unsigned grid, unsigned block, cudaStream_t stream) {
  return launch_kernel("describe_blocks_kernel", describe_blocks_kernel, grid, block, 0, stream, target);
}

cudaError_t copy_fresh_shared(unsigned char* target, int count, cudaStream_t stream) {
  return launch_kernel("copy_fresh_shared_kernel", copy_fresh_shared_kernel, 1, 32,
                       static_cast<std::size_t>(count), stream, target, count);
}

cudaError_t exp2_all(const float* source, float* target, int n, cudaStream_t stream) {
  return launch_kernel("exp2_kernel", exp2_kernel, blocks_for(n, 256), 256, 0, stream, source, target, n);
}

cudaError_t store_converted(float* target, char value, unsigned n, cudaStream_t stream) {
  return launch_kernel("store_converted_kernel", store_converted_kernel, 1, 1, 0, stream, target, value, n);
}

}  // namespace launch_test
