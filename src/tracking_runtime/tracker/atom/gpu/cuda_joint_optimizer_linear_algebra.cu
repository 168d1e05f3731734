#include <algorithm>
#include <initializer_list>

#include "tracking_runtime/tracker/atom/gpu/cublas_handle.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_joint_optimizer_ops.h"
#include "tracking_runtime/tracker/atom/gpu/kernel_launch.h"
#include "tracking_runtime/tracker/atom/gpu/solver_device.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom::detail {
namespace {

using ostrel::launch::Block;
using ostrel::launch::this_block;

__global__ void set_scaled_vector_kernel(const float* source, float scale, float* target, int n) {
  const Block block = this_block();
  block.for_each_thread([&](int thread) {
    const int t = block.index() * block.threads() + thread;
    if (t < n) target[t] = scale * source[t];
  });
}

__global__ void add_in_place_kernel(float* target, const float* source, int n) {
  const Block block = this_block();
  block.for_each_thread([&](int thread) {
    const int t = block.index() * block.threads() + thread;
    if (t < n) target[t] = target[t] + source[t];
  });
}

__global__ void dot_product_kernel(const float* a, const float* b, int n, double* out) {
  __shared__ double partial[kThreadsPerBlock];
  add_dot_product(this_block(), a, b, n, partial, out);
}

__global__ void update_x_r_from_scalars_kernel(float* x, float* r, const float* p, const float* q,
                                               const double* scalars, int n) {
  const Block block = this_block();
  block.for_each_thread([&](int thread) {
    const int t = block.index() * block.threads() + thread;
    if (t < n) update_x_r_at(t, x, r, p, q, scalars);
  });
}

__global__ void combine_with_beta_from_scalars_kernel(const float* r, const double* scalars, float* p,
                                                      int n) {
  const Block block = this_block();
  block.for_each_thread([&](int thread) {
    const int t = block.index() * block.threads() + thread;
    if (t < n) combine_with_beta_at(t, r, scalars, p);
  });
}

__global__ void store_scalar_kernel(double* scalars, int target_index, int source_index) {
  const Block block = this_block();
  block.for_each_thread([&](int thread) {
    if (block.index() == 0 && thread == 0) scalars[target_index] = scalars[source_index];
  });
}

__global__ void reduce_batched_projection_gradient_kernel(const float* batch, float* out, int samples,
                                                          int count) {
  const Block block = this_block();
  block.for_each_thread([&](int thread) {
    const int t = block.index() * block.threads() + thread;
    if (t >= count) return;
    float sum = 0.0F;
    for (int s = 0; s < samples; ++s) sum += batch[s * count + t];
    out[t] = out[t] + sum;
  });
}

__global__ void materialize_scaled_sample_copies_kernel(const float* source, const float* scales,
                                                        float* target, int count, int channels, int height,
                                                        int width) {
  const Block block = this_block();
  const int plane_size = height * width;
  const int sample_size = channels * plane_size;
  block.for_each_thread([&](int thread) {
    const int t = block.index() * block.threads() + thread;
    if (t < count * sample_size) target[t] = source[t % sample_size] * scales[t / plane_size];
  });
}

bool any_null(std::initializer_list<const void*> pointers) {
  return std::find(pointers.begin(), pointers.end(), nullptr) != pointers.end();
}

/// Elements from one matrix of a batch to the next.
long long stride_of(int rows, int columns) {
  return static_cast<long long>(rows) * columns;
}

}  // namespace

bool launch_set_scaled_vector(const float* source, float scale, float* target, int n, cudaStream_t stream,
                              std::string* error) {
  return launch_over("set_scaled_vector_kernel", set_scaled_vector_kernel, n, 0, stream, error, source, scale,
                     target, n);
}

bool launch_dot_product(const float* a, const float* b, int n, double* out, cudaStream_t stream,
                        std::string* error) {
  return launch_over("dot_product_kernel", dot_product_kernel, n, 0, stream, error, a, b, n, out);
}

bool launch_combine_with_beta_from_scalars(const float* r, const double* scalars, float* p, int n,
                                           cudaStream_t stream, std::string* error) {
  return launch_over("combine_with_beta_from_scalars_kernel", combine_with_beta_from_scalars_kernel, n, 0,
                     stream, error, r, scalars, p, n);
}

bool launch_update_x_r_from_scalars(float* x, float* r, const float* p, const float* q, const double* scalars,
                                    int n, cudaStream_t stream, std::string* error) {
  return launch_over("update_x_r_from_scalars_kernel", update_x_r_from_scalars_kernel, n, 0, stream, error, x,
                     r, p, q, scalars, n);
}

bool launch_store_scalar(double* scalars, int target_index, int source_index, cudaStream_t stream,
                         std::string* error) {
  return launch_single_thread("store_scalar_kernel", store_scalar_kernel, stream, error, scalars,
                              target_index, source_index);
}

bool launch_add_in_place(float* target, const float* source, int n, cudaStream_t stream, std::string* error) {
  return launch_over("add_in_place_kernel", add_in_place_kernel, n, 0, stream, error, target, source, n);
}

bool launch_reduce_batched_projection_gradient(const float* batch, float* out, int samples, int count,
                                               cudaStream_t stream, std::string* error) {
  return launch_over("reduce_batched_projection_gradient_kernel", reduce_batched_projection_gradient_kernel,
                     count, 0, stream, error, batch, out, samples, count);
}

bool launch_materialize_scaled_sample_copies(const float* source, const float* scales, float* target,
                                             int count, int channels, int height, int width,
                                             cudaStream_t stream, std::string* error) {
  return launch_over("materialize_scaled_sample_copies_kernel", materialize_scaled_sample_copies_kernel,
                     count * channels * height * width, 0, stream, error, source, scales, target, count,
                     channels, height, width);
}

bool gemm_project_features(cublasHandle_t cublas, const float* raw, const float* projection, float* out,
                           int samples, int in_channels, int out_channels, int height, int width,
                           std::string* error) {
  if (any_null({cublas, raw, projection, out}) ||
      std::min({samples, in_channels, out_channels, height, width}) < 1) {
    return refuse("invalid cuBLAS projection request", error);
  }
  const int positions = height * width;
  const float alpha = 1.0F, beta = 0.0F;
  // What is row-major here is cuBLAS's transposed matrix: C^T = raw^T P^T, the same P for every sample.
  return set_cublas_error(cublasSgemmStridedBatched(
                              cublas, CUBLAS_OP_N, CUBLAS_OP_N, positions, out_channels, in_channels, &alpha,
                              raw, positions, stride_of(in_channels, positions), projection, in_channels, 0,
                              &beta, out, positions, stride_of(out_channels, positions), samples),
                          "cublasSgemmStridedBatched project_features", error);
}

bool gemm_accumulate_projection_gradient(cublasHandle_t cublas, cudaStream_t stream, const float* raw,
                                         const float* projected_gradient, float scale, float* batch_buffer,
                                         float* out, int samples, int in_channels, int out_channels,
                                         int height, int width, std::string* error) {
  if (any_null({cublas, raw, projected_gradient, batch_buffer, out}) ||
      std::min({samples, in_channels, out_channels, height, width}) < 1) {
    return refuse("invalid cuBLAS projection gradient request", error);
  }
  const int positions = height * width;
  const float beta = 0.0F;
  return set_cublas_error(cublasSgemmStridedBatched(
                              cublas, CUBLAS_OP_T, CUBLAS_OP_N, in_channels, out_channels, positions, &scale,
                              raw, positions, stride_of(in_channels, positions), projected_gradient,
                              positions, stride_of(out_channels, positions), &beta, batch_buffer, in_channels,
                              stride_of(in_channels, out_channels), samples),
                          "cublasSgemmStridedBatched projection_gradient", error) &&
         launch_reduce_batched_projection_gradient(batch_buffer, out, samples, in_channels * out_channels,
                                                   stream, error);
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom::detail
