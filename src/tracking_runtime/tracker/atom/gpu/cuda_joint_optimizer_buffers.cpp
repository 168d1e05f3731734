#include <algorithm>
#include <cstdint>

#include "tracking_runtime/tracker/atom/gpu/cuda_joint_optimizer_impl.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_joint_optimizer_ops.h"
#include "tracking_runtime/tracker/atom/gpu/solver_scalars.h"
#include "tracking_runtime/tracker/atom/gpu/stream_order.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

using JointImpl = CudaJointOptimizer::Impl;

bool ensure_stream_and_handle(JointImpl& impl, std::string* error) {
  if (!impl.stream && !set_cuda_error(impl.stream.create_with_flags(cudaStreamNonBlocking),
                                      "cudaStreamCreate joint optimizer", error)) {
    return false;
  }
  if (!impl.cublas && !set_cublas_error(impl.cublas.create(), "cublasCreate joint optimizer", error)) {
    return false;
  }
  return set_cublas_error(cublasSetStream(impl.cublas.get(), impl.stream.get()),
                          "cublasSetStream joint optimizer", error);
}

bool ensure_inputs(JointImpl& impl, std::size_t features, std::size_t positions, std::string* error) {
  return ensure_group(error, GroupMember{impl.raw_features, features, "cudaMalloc raw_features"}) &&
         ensure_group(error, GroupMember{impl.labels, positions, "cudaMalloc labels"});
}

bool ensure_filters(JointImpl& impl, std::size_t taps, std::string* error) {
  return ensure_group(error, GroupMember{impl.filter_current, taps, "cudaMalloc filter_current"},
                      GroupMember{impl.filter_work, taps, "cudaMalloc filter_work"},
                      GroupMember{impl.filter_delta, taps, "cudaMalloc filter_delta"},
                      GroupMember{impl.r_filter, taps, "cudaMalloc r_filter"},
                      GroupMember{impl.r_prev_filter, taps, "cudaMalloc r_prev_filter"},
                      GroupMember{impl.grad_filter, taps, "cudaMalloc grad_filter"});
}

bool ensure_projections(JointImpl& impl, std::size_t weights, std::string* error) {
  return ensure_group(error, GroupMember{impl.projection_current, weights, "cudaMalloc projection_current"},
                      GroupMember{impl.projection_work, weights, "cudaMalloc projection_work"},
                      GroupMember{impl.projection_delta, weights, "cudaMalloc projection_delta"},
                      GroupMember{impl.r_projection, weights, "cudaMalloc r_projection"},
                      GroupMember{impl.r_prev_projection, weights, "cudaMalloc r_prev_projection"},
                      GroupMember{impl.grad_projection, weights, "cudaMalloc grad_projection"});
}

bool ensure_maps(JointImpl& impl, std::size_t projected, std::size_t positions, std::string* error) {
  return ensure_group(error, GroupMember{impl.projected_cached, projected, "cudaMalloc projected_cached"},
                      GroupMember{impl.projected_work, projected, "cudaMalloc projected_work"}) &&
         ensure_group(error, GroupMember{impl.response, positions, "cudaMalloc response"},
                      GroupMember{impl.response_aux, positions, "cudaMalloc response_aux"},
                      GroupMember{impl.activation_grad, positions, "cudaMalloc activation_grad"},
                      GroupMember{impl.weighted_response, positions, "cudaMalloc weighted_response"});
}

bool ensure_work(JointImpl& impl, std::size_t batch, std::size_t scales, std::string* error) {
  return ensure_group(error,
                      GroupMember{impl.projection_grad_batch, batch, "cudaMalloc projection_grad_batch"}) &&
         ensure_group(error, GroupMember{impl.channel_scales, scales, "cudaMalloc channel_scales"}) &&
         ensure_group(error, GroupMember{impl.scalar, kSolverScalars, "cudaMalloc scalar"});
}

std::size_t sample_size(const JointImpl& impl) {
  return element_count({impl.in_channels, impl.height, impl.width});
}

/// Whether `count` samples from `first` on lie within the stored ones.
bool in_range(const JointImpl& impl, int first, int count) {
  return count >= 1 && first >= 0 && std::int64_t{first} + count <= impl.samples;
}

bool preload_device_span(const JointImpl& impl, const RawFeatureSpan& span, float* target, std::size_t bytes,
                         std::string* error) {
  cudaStream_t const stream = impl.stream.get();
  CudaEvent ready;
  if (span.ready_stream != nullptr && span.ready_stream != stream &&
      !wait_for_stream(stream, span.ready_stream, "preload_raw_features", &ready, error)) {
    return false;
  }
  return set_cuda_error(
      cudaMemcpyAsync(target, span.device_features, bytes, cudaMemcpyDeviceToDevice, stream),
      "cudaMemcpyAsync preload_raw_features device", error);
}

bool preload_span(const JointImpl& impl, const RawFeatureSpan& span, std::string* error) {
  if (!in_range(impl, span.first_sample, span.sample_count)) {
    return refuse("CUDA joint optimizer raw feature preload range is invalid", error);
  }
  if ((span.host_features == nullptr) == (span.device_features == nullptr)) {
    return refuse("CUDA joint optimizer raw feature preload needs exactly one source", error);
  }
  float* target = impl.raw_features.get() + static_cast<std::size_t>(span.first_sample) * sample_size(impl);
  const std::size_t bytes = static_cast<std::size_t>(span.sample_count) * sample_size(impl) * sizeof(float);
  if (span.device_features != nullptr) return preload_device_span(impl, span, target, bytes, error);
  return set_cuda_error(
      cudaMemcpyAsync(target, span.host_features, bytes, cudaMemcpyHostToDevice, impl.stream.get()),
      "cudaMemcpyAsync preload_raw_features host", error);
}

}  // namespace

bool CudaJointOptimizer::ensure_capacity(int samples, int in_channels, int out_channels, int height,
                                         int width, int filter_height, int filter_width, std::string* error) {
  if (impl_ == nullptr ||
      std::min({samples, in_channels, out_channels, height, width, filter_height, filter_width}) < 1) {
    return refuse("invalid CUDA joint optimizer dimensions", error);
  }
  const std::size_t positions = element_count({samples, height, width});
  if (!ensure_stream_and_handle(*impl_, error) ||
      !ensure_inputs(*impl_, element_count({samples, in_channels, height, width}), positions, error) ||
      !ensure_filters(*impl_, element_count({out_channels, filter_height, filter_width}), error) ||
      !ensure_projections(*impl_, element_count({in_channels, out_channels}), error) ||
      !ensure_maps(*impl_, element_count({samples, out_channels, height, width}), positions, error) ||
      !ensure_work(*impl_, element_count({samples, out_channels, in_channels}),
                   element_count({samples, in_channels}), error)) {
    return false;
  }
  impl_->samples = samples;
  impl_->in_channels = in_channels;
  impl_->out_channels = out_channels;
  impl_->height = height;
  impl_->width = width;
  impl_->filter_height = filter_height;
  impl_->filter_width = filter_width;
  return true;
}

bool CudaJointOptimizer::preload_raw_feature_spans(const std::vector<RawFeatureSpan>& spans,
                                                   std::string* error) {
  if (impl_ == nullptr || spans.empty() || !impl_->raw_features ||
      std::min({impl_->in_channels, impl_->height, impl_->width}) < 1) {
    return refuse("invalid CUDA joint optimizer raw feature preload request", error);
  }
  return std::all_of(spans.begin(), spans.end(),
                     [&](const RawFeatureSpan& span) { return preload_span(*impl_, span, error); });
}

bool CudaJointOptimizer::hold_back_producer(cudaStream_t producer, std::string* error) {
  if (impl_ == nullptr || !impl_->stream) {
    return refuse("invalid CUDA joint optimizer raw feature preload request", error);
  }
  if (producer == nullptr || producer == impl_->stream.get()) return true;
  CudaEvent read;
  return wait_for_stream(producer, impl_->stream.get(), "hold_back_producer", &read, error);
}

bool CudaJointOptimizer::materialize_scaled_sample_copies(int source_sample, int first_target_sample,
                                                          int count, const std::vector<float>& scales,
                                                          std::string* error) {
  if (impl_ == nullptr || !impl_->raw_features || !impl_->channel_scales ||
      !in_range(*impl_, source_sample, 1) || !in_range(*impl_, first_target_sample, count) ||
      scales.size() != element_count({count, impl_->in_channels})) {
    return refuse("invalid CUDA joint optimizer scaled sample materialization request", error);
  }
  float* const raw = impl_->raw_features.get();
  const std::size_t size = sample_size(*impl_);
  return upload(*impl_, scales.data(), impl_->channel_scales, scales.size(),
                "cudaMemcpyAsync materialize_scaled_sample_copies scales", error) &&
         detail::launch_materialize_scaled_sample_copies(
             raw + static_cast<std::size_t>(source_sample) * size, impl_->channel_scales.get(),
             raw + static_cast<std::size_t>(first_target_sample) * size, count, impl_->in_channels,
             impl_->height, impl_->width, impl_->stream.get(), error);
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
