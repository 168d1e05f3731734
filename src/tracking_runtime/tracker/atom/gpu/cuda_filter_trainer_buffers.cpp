#include <algorithm>

#include "tracking_runtime/tracker/atom/gpu/cuda_filter_trainer_impl.h"
#include "tracking_runtime/tracker/atom/gpu/solver_scalars.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

using Impl = CudaFilterTrainer::Impl;

cudaError_t create_stream(CudaStream& stream, bool low_priority) {
  int least_priority = 0;
  int greatest_priority = 0;
  if (low_priority) {
    if (cudaDeviceGetStreamPriorityRange(&least_priority, &greatest_priority) == cudaSuccess) {
      return stream.create_with_priority(cudaStreamNonBlocking, least_priority);
    }
    // The refused query must not pass for the failure of a later launch.
    static_cast<void>(cudaGetLastError());
  }
  return stream.create_with_flags(cudaStreamNonBlocking);
}

bool ensure_stream(Impl& impl, bool low_priority, std::string* error) {
  if (impl.stream && impl.low_priority != low_priority &&
      !set_cuda_error(impl.stream.reset(), "cudaStreamDestroy filter trainer", error)) {
    return false;
  }
  if (impl.stream) return true;
  if (!set_cuda_error(create_stream(impl.stream, low_priority), "cudaStreamCreate filter trainer", error)) {
    return false;
  }
  impl.low_priority = low_priority;
  return true;
}

bool ensure_inputs(Impl& impl, std::size_t features, std::size_t positions, std::size_t samples,
                   std::string* error) {
  return ensure_group(error, GroupMember{impl.features, features, "cudaMalloc features"}) &&
         ensure_group(error, GroupMember{impl.labels, positions, "cudaMalloc labels"}) &&
         ensure_group(error, GroupMember{impl.sample_weights, samples, "cudaMalloc sample_weights"});
}

bool ensure_filter_and_responses(Impl& impl, std::size_t taps, std::size_t positions, std::string* error) {
  return ensure_group(error, GroupMember{impl.filter, taps, "cudaMalloc filter"},
                      GroupMember{impl.filter_host, taps, "cudaMallocHost filter"}) &&
         ensure_group(error, GroupMember{impl.response, positions, "cudaMalloc response"},
                      GroupMember{impl.activation_grad, positions, "cudaMalloc activation_grad"},
                      GroupMember{impl.weighted_response, positions, "cudaMalloc weighted_response"});
}

bool ensure_vectors(Impl& impl, std::size_t taps, std::string* error) {
  return ensure_group(error, GroupMember{impl.x, taps, "cudaMalloc x"},
                      GroupMember{impl.r, taps, "cudaMalloc r"},
                      GroupMember{impl.r_prev, taps, "cudaMalloc r_prev"},
                      GroupMember{impl.p, taps, "cudaMalloc p"}, GroupMember{impl.q, taps, "cudaMalloc q"}) &&
         ensure_group(error, GroupMember{impl.scalar, kSolverScalars, "cudaMalloc scalar"},
                      GroupMember{impl.scalar_host, kSolverScalars, "cudaMallocHost scalar"});
}

}  // namespace

CudaFilterTrainer::CudaFilterTrainer() : impl_(std::make_unique<Impl>()) {}
CudaFilterTrainer::~CudaFilterTrainer() = default;
CudaFilterTrainer::CudaFilterTrainer(CudaFilterTrainer&&) noexcept = default;
CudaFilterTrainer& CudaFilterTrainer::operator=(CudaFilterTrainer&&) noexcept = default;

bool CudaFilterTrainer::ensure_capacity(int samples, int channels, int height, int width, int filter_height,
                                        int filter_width, bool low_priority_stream, std::string* error) {
  if (impl_ == nullptr || std::min({samples, channels, height, width, filter_height, filter_width}) < 1) {
    return refuse("invalid CUDA filter trainer dimensions", error);
  }
  const std::size_t positions = element_count({samples, height, width});
  const std::size_t taps = element_count({channels, filter_height, filter_width});
  if (!ensure_stream(*impl_, low_priority_stream, error) ||
      !ensure_inputs(*impl_, element_count({samples, channels, height, width}), positions,
                     element_count({samples}), error) ||
      !ensure_filter_and_responses(*impl_, taps, positions, error) || !ensure_vectors(*impl_, taps, error)) {
    return false;
  }
  impl_->samples = samples;
  impl_->channels = channels;
  impl_->height = height;
  impl_->width = width;
  impl_->filter_height = filter_height;
  impl_->filter_width = filter_width;
  return true;
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
