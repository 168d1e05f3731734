#include "tracking_runtime/tracker/atom/gpu/correlation_device.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_handles.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_joint_optimizer_ops.h"
#include "tracking_runtime/tracker/atom/gpu/kernel_launch.h"
#include "tracking_runtime/tracker/atom/gpu/solver_device.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom::detail {
namespace {

using ostrel::launch::Block;
using ostrel::launch::this_block;

/// One correlation with its filter staged in shared memory.
template <typename Filter>
__device__ inline void classify_samples_staged(const float* features, const float* filter_values, float* out,
                                               int samples, int channels, MapSize map, Filter filter) {
  const Block block = this_block();
  float* staged = block.dynamic_shared<float>();
  stage(block, filter_values, staged, channels * filter.height * filter.width);
  block.for_each_thread([&](int thread) {
    const int t = block.index() * block.threads() + thread;
    if (t < samples * map.height * map.width)
      out[t] = correlate_at(features, staged, t, channels, map, filter);
  });
}

__global__ void classify_samples_kernel(const float* features, const float* filter, float* out, int samples,
                                        int channels, int height, int width, int filter_height,
                                        int filter_width) {
  classify_samples_staged(features, filter, out, samples, channels, MapSize{height, width},
                          AnyFilter{filter_height, filter_width});
}

template <int kFilterHeight, int kFilterWidth>
__global__ void classify_samples_fixed_filter_kernel(const float* features, const float* filter, float* out,
                                                     int samples, int channels, int height, int width) {
  classify_samples_staged(features, filter, out, samples, channels, MapSize{height, width},
                          FixedFilter<kFilterHeight, kFilterWidth>{});
}

/// One half of a pair: features, filter and where the response goes.
struct PairHalf {
  const float* features;
  const float* filter;
  float* out;
};

/// Two correlations per thread, the second filter staged after the first.
template <typename Filter>
__device__ inline void classify_pair_staged(PairHalf a, PairHalf b, int samples, int channels, MapSize map,
                                            Filter filter) {
  const Block block = this_block();
  const int taps = channels * filter.height * filter.width;
  float* staged_a = block.dynamic_shared<float>();
  float* staged_b = staged_a + taps;
  stage(block, a.filter, staged_a, taps);
  stage(block, b.filter, staged_b, taps);
  block.for_each_thread([&](int thread) {
    const int t = block.index() * block.threads() + thread;
    if (t >= samples * map.height * map.width) return;
    a.out[t] = correlate_at(a.features, staged_a, t, channels, map, filter);
    b.out[t] = correlate_at(b.features, staged_b, t, channels, map, filter);
  });
}

__global__ void classify_sample_pair_kernel(const float* features_a, const float* filter_a, float* out_a,
                                            const float* features_b, const float* filter_b, float* out_b,
                                            int samples, int channels, int height, int width,
                                            int filter_height, int filter_width) {
  classify_pair_staged(PairHalf{features_a, filter_a, out_a}, PairHalf{features_b, filter_b, out_b}, samples,
                       channels, MapSize{height, width}, AnyFilter{filter_height, filter_width});
}

template <int kFilterHeight, int kFilterWidth>
__global__ void classify_sample_pair_fixed_filter_kernel(const float* features_a, const float* filter_a,
                                                         float* out_a, const float* features_b,
                                                         const float* filter_b, float* out_b, int samples,
                                                         int channels, int height, int width) {
  classify_pair_staged(PairHalf{features_a, filter_a, out_a}, PairHalf{features_b, filter_b, out_b}, samples,
                       channels, MapSize{height, width}, FixedFilter<kFilterHeight, kFilterWidth>{});
}

__global__ void accumulate_filter_gradient_kernel(const float* features, const float* gradient, float scale,
                                                  float* out, int samples, int channels, int height,
                                                  int width, int filter_height, int filter_width) {
  const Block block = this_block();
  block.for_each_thread([&](int thread) {
    const int t = block.index() * block.threads() + thread;
    if (t >= channels * filter_height * filter_width) return;
    out[t] =
        out[t] + scale * filter_gradient_at(features, gradient, t, samples, channels, MapSize{height, width},
                                            AnyFilter{filter_height, filter_width});
  });
}

template <typename Filter>
__device__ inline void backprop_staged(const float* gradient, const float* filter_values, float* out,
                                       int samples, int channels, MapSize map, Filter filter) {
  const Block block = this_block();
  float* staged = block.dynamic_shared<float>();
  stage(block, filter_values, staged, channels * filter.height * filter.width);
  block.for_each_thread([&](int thread) {
    const int t = block.index() * block.threads() + thread;
    if (t < samples * channels * map.height * map.width) {
      out[t] = backprop_at(gradient, staged, t, channels, map, filter);
    }
  });
}

__global__ void backprop_to_projected_feature_kernel(const float* gradient, const float* filter, float* out,
                                                     int samples, int channels, int height, int width,
                                                     int filter_height, int filter_width) {
  backprop_staged(gradient, filter, out, samples, channels, MapSize{height, width},
                  AnyFilter{filter_height, filter_width});
}

template <int kFilterHeight, int kFilterWidth>
__global__ void backprop_to_projected_feature_fixed_filter_kernel(const float* gradient, const float* filter,
                                                                  float* out, int samples, int channels,
                                                                  int height, int width) {
  backprop_staged(gradient, filter, out, samples, channels, MapSize{height, width},
                  FixedFilter<kFilterHeight, kFilterWidth>{});
}

__global__ void compute_weighted_residual_grad_kernel(const float* response, const float* labels,
                                                      float weight, float* activation_grad,
                                                      float* weighted_response, int samples, int height,
                                                      int width) {
  const Block block = this_block();
  block.for_each_thread([&](int thread) {
    const int t = block.index() * block.threads() + thread;
    if (t >= samples * height * width) return;
    weighted_residual_at(t, response, labels, weight, activation_grad, weighted_response);
  });
}

__global__ void compute_weighted_jtj_response_kernel(const float* response, const float* response_aux,
                                                     const float* activation_grad, float weight, float* out,
                                                     int samples, int height, int width) {
  const Block block = this_block();
  block.for_each_thread([&](int thread) {
    const int t = block.index() * block.threads() + thread;
    if (t >= samples * height * width) return;
    out[t] = weight * activation_grad[t] * activation_grad[t] * (response[t] + response_aux[t]);
  });
}

bool is_fixed(int filter_height, int filter_width) {
  return filter_height == 4 && filter_width == 4;
}

/// Bytes of one filter in shared memory.
std::size_t filter_bytes(int channels, int filter_height, int filter_width) {
  return element_count({channels, filter_height, filter_width}) * sizeof(float);
}

}  // namespace

bool launch_compute_weighted_residual_grad(const float* response, const float* labels, float weight,
                                           float* activation_grad, float* weighted_response, int samples,
                                           int height, int width, cudaStream_t stream, std::string* error) {
  return launch_over("compute_weighted_residual_grad_kernel", compute_weighted_residual_grad_kernel,
                     samples * height * width, 0, stream, error, response, labels, weight, activation_grad,
                     weighted_response, samples, height, width);
}

bool launch_compute_weighted_jtj_response(const float* response, const float* response_aux,
                                          const float* activation_grad, float weight, float* out, int samples,
                                          int height, int width, cudaStream_t stream, std::string* error) {
  return launch_over("compute_weighted_jtj_response_kernel", compute_weighted_jtj_response_kernel,
                     samples * height * width, 0, stream, error, response, response_aux, activation_grad,
                     weight, out, samples, height, width);
}

bool launch_classify_samples(const float* features, const float* filter, float* out, int samples,
                             int channels, int height, int width, int filter_height, int filter_width,
                             cudaStream_t stream, std::string* error) {
  const int elements = samples * height * width;
  const std::size_t shared_bytes = filter_bytes(channels, filter_height, filter_width);
  if (is_fixed(filter_height, filter_width)) {
    return launch_over("classify_samples_fixed_filter_kernel<4,4>",
                       classify_samples_fixed_filter_kernel<4, 4>, elements, shared_bytes, stream, error,
                       features, filter, out, samples, channels, height, width);
  }
  return launch_over("classify_samples_kernel", classify_samples_kernel, elements, shared_bytes, stream,
                     error, features, filter, out, samples, channels, height, width, filter_height,
                     filter_width);
}

bool launch_classify_sample_pair(const float* features_a, const float* filter_a, float* out_a,
                                 const float* features_b, const float* filter_b, float* out_b, int samples,
                                 int channels, int height, int width, int filter_height, int filter_width,
                                 cudaStream_t stream, std::string* error) {
  const int elements = samples * height * width;
  const std::size_t shared_bytes = 2 * filter_bytes(channels, filter_height, filter_width);
  if (is_fixed(filter_height, filter_width)) {
    return launch_over("classify_sample_pair_fixed_filter_kernel<4,4>",
                       classify_sample_pair_fixed_filter_kernel<4, 4>, elements, shared_bytes, stream, error,
                       features_a, filter_a, out_a, features_b, filter_b, out_b, samples, channels, height,
                       width);
  }
  return launch_over("classify_sample_pair_kernel", classify_sample_pair_kernel, elements, shared_bytes,
                     stream, error, features_a, filter_a, out_a, features_b, filter_b, out_b, samples,
                     channels, height, width, filter_height, filter_width);
}

bool launch_accumulate_filter_gradient(const float* features, const float* gradient, float scale, float* out,
                                       int samples, int channels, int height, int width, int filter_height,
                                       int filter_width, cudaStream_t stream, std::string* error) {
  return launch_over("accumulate_filter_gradient_kernel", accumulate_filter_gradient_kernel,
                     channels * filter_height * filter_width, 0, stream, error, features, gradient, scale,
                     out, samples, channels, height, width, filter_height, filter_width);
}

bool launch_backprop_to_projected_feature(const float* gradient, const float* filter, float* out, int samples,
                                          int channels, int height, int width, int filter_height,
                                          int filter_width, cudaStream_t stream, std::string* error) {
  const int elements = samples * channels * height * width;
  const std::size_t shared_bytes = filter_bytes(channels, filter_height, filter_width);
  if (is_fixed(filter_height, filter_width)) {
    return launch_over("backprop_to_projected_feature_fixed_filter_kernel<4,4>",
                       backprop_to_projected_feature_fixed_filter_kernel<4, 4>, elements, shared_bytes,
                       stream, error, gradient, filter, out, samples, channels, height, width);
  }
  return launch_over("backprop_to_projected_feature_kernel", backprop_to_projected_feature_kernel, elements,
                     shared_bytes, stream, error, gradient, filter, out, samples, channels, height, width,
                     filter_height, filter_width);
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom::detail
