#pragma once

#include <cublas_v2.h>
#include <cuda_runtime.h>

#include <string>

/// Launches of the joint optimiser's kernels, and its two matrix products. All arrays are device memory:
/// features N, C, H, W; filters C, fh, fw; responses, labels, gradients and weighted maps N, H, W; contiguous
/// 32-bit floats. Each call enqueues on `stream` and returns without waiting. A launch failure returns false
/// and reads the kernel's name, ": " and the CUDA text; a 4 x 4 filter takes the fixed kernel and its name.
/// Element counts must fit 31 bits.

namespace ostrel_tracker::tracking_runtime::tracker::atom::detail {

/// activation_grad = phi'(response); weighted_response = (phi(response) - labels) * (weight * phi').
bool launch_compute_weighted_residual_grad(const float* response, const float* labels, float weight,
                                           float* activation_grad, float* weighted_response, int samples,
                                           int height, int width, cudaStream_t stream, std::string* error);

/// out = weight * activation_grad^2 * (response + response_aux).
bool launch_compute_weighted_jtj_response(const float* response, const float* response_aux,
                                          const float* activation_grad, float weight, float* out, int samples,
                                          int height, int width, cudaStream_t stream, std::string* error);

/// target = scale * source, n values.
bool launch_set_scaled_vector(const float* source, float scale, float* target, int n, cudaStream_t stream,
                              std::string* error);

/// out = correlation of the features with the filter, zero outside the map.
bool launch_classify_samples(const float* features, const float* filter, float* out, int samples,
                             int channels, int height, int width, int filter_height, int filter_width,
                             cudaStream_t stream, std::string* error);

/// Two independent correlations, a and b, in one launch.
bool launch_classify_sample_pair(const float* features_a, const float* filter_a, float* out_a,
                                 const float* features_b, const float* filter_b, float* out_b, int samples,
                                 int channels, int height, int width, int filter_height, int filter_width,
                                 cudaStream_t stream, std::string* error);

/// out += scale * gradient of the correlation with regard to its filter.
bool launch_accumulate_filter_gradient(const float* features, const float* gradient, float scale, float* out,
                                       int samples, int channels, int height, int width, int filter_height,
                                       int filter_width, cudaStream_t stream, std::string* error);

/// out (N, C, H, W) = gradient of the correlation with regard to its features; overwrites.
bool launch_backprop_to_projected_feature(const float* gradient, const float* filter, float* out, int samples,
                                          int channels, int height, int width, int filter_height,
                                          int filter_width, cudaStream_t stream, std::string* error);

/// Adds the dot product of a and b, n values, to the double at `out`, which the caller clears.
bool launch_dot_product(const float* a, const float* b, int n, double* out, cudaStream_t stream,
                        std::string* error);

/// p = r + beta * p, beta = max(0, (scalars[0] - scalars[1]) / max(scalars[2], 1e-12)).
bool launch_combine_with_beta_from_scalars(const float* r, const double* scalars, float* p, int n,
                                           cudaStream_t stream, std::string* error);

/// x += alpha * p and r -= alpha * q, alpha = scalars[0] / scalars[1], 0 when scalars[1] is within 1e-12 of
/// zero.
bool launch_update_x_r_from_scalars(float* x, float* r, const float* p, const float* q, const double* scalars,
                                    int n, cudaStream_t stream, std::string* error);

/// scalars[target_index] = scalars[source_index].
bool launch_store_scalar(double* scalars, int target_index, int source_index, cudaStream_t stream,
                         std::string* error);

/// target += source, n values.
bool launch_add_in_place(float* target, const float* source, int n, cudaStream_t stream, std::string* error);

/// out[t] += sum over the samples s of batch[s * count + t].
bool launch_reduce_batched_projection_gradient(const float* batch, float* out, int samples, int count,
                                               cudaStream_t stream, std::string* error);

/// target (count, C, H, W) = the one sample at `source` (C, H, W) times scales (count, C).
bool launch_materialize_scaled_sample_copies(const float* source, const float* scales, float* target,
                                             int count, int channels, int height, int width,
                                             cudaStream_t stream, std::string* error);

/// out (samples x out_channels x H x W) = projection times each raw sample (in_channels x H x W): one batched
/// product on the handle's stream, without a transposition. A refused product reads
/// "cublasSgemmStridedBatched project_features: " and the name of its status.
bool gemm_project_features(cublasHandle_t cublas, const float* raw, const float* projection, float* out,
                           int samples, int in_channels, int out_channels, int height, int width,
                           std::string* error);

/// out (out_channels x in_channels) += scale * sum over the samples of projected_gradient times the raw
/// sample transposed. `batch_buffer` takes the product of each sample, since a batched call cannot add over
/// its batch. The handle must be bound to `stream`. A refused product reads
/// "cublasSgemmStridedBatched projection_gradient: " and the name of its status.
bool gemm_accumulate_projection_gradient(cublasHandle_t cublas, cudaStream_t stream, const float* raw,
                                         const float* projected_gradient, float scale, float* batch_buffer,
                                         float* out, int samples, int in_channels, int out_channels,
                                         int height, int width, std::string* error);

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom::detail
