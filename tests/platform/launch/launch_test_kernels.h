#pragma once

#include <cuda_runtime.h>

#include <cstddef>

// Launchers of the kernels that the launch tests run.
namespace launch_test {

// target[t] = scale * source[t], one thread per element, blocks of `block` threads.
cudaError_t scale(const float* source, float scale, float* target, int n, unsigned block,
                  cudaStream_t stream);

// Adds the sum of source to *out: a tree in a static shared array, one atomic add per block of 256.
cudaError_t sum(const float* source, int n, double* out, unsigned grid, cudaStream_t stream);

// Each block reverses its `block` values through dynamic shared memory.
cudaError_t reverse_blocks(const float* source, float* target, unsigned grid, unsigned block,
                           std::size_t shared_bytes, cudaStream_t stream);

// Each thread takes its left neighbour's value (the first one its own) without a barrier between writing and
// reading: right only when threads run in ascending order.
cudaError_t shift_without_barrier(const float* source, float* target, unsigned grid, unsigned block,
                                  cudaStream_t stream);

// target[block index] = {threads, grid, index} for each block.
cudaError_t describe_blocks(int* target, unsigned grid, unsigned block, cudaStream_t stream);

// Copies the first `count` bytes of untouched dynamic shared memory.
cudaError_t copy_fresh_shared(unsigned char* target, int count, cudaStream_t stream);

// target[t] = 2^source[t] by exp2_fast.
cudaError_t exp2_all(const float* source, float* target, int n, cudaStream_t stream);

// target[0] = scale from a char, target[1] = n from an unsigned: arguments of other types than the
// parameters.
cudaError_t store_converted(float* target, char value, unsigned n, cudaStream_t stream);

}  // namespace launch_test
