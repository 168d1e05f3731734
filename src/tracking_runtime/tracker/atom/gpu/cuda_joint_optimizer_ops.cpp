#include "tracking_runtime/tracker/atom/gpu/cuda_joint_optimizer_ops.h"

#include <algorithm>
#include <functional>

#include "tracking_runtime/tracker/atom/gpu/cuda_joint_optimizer_impl.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

using JointImpl = CudaJointOptimizer::Impl;

constexpr const char* kNotReady = "CUDA joint optimizer state is not ready";

bool upload_rhs_inputs(const JointImpl& impl, const std::vector<float>& features,
                       const std::vector<float>& labels, const std::vector<float>& filter,
                       const std::vector<float>& projection, std::string* error) {
  return upload(impl, features.data(), impl.raw_features, features.size(), "cudaMemcpyAsync raw_features rhs",
                error) &&
         upload(impl, labels.data(), impl.labels, labels.size(), "cudaMemcpyAsync labels rhs", error) &&
         upload(impl, filter.data(), impl.filter_current, filter.size(), "cudaMemcpyAsync filter_current rhs",
                error) &&
         upload(impl, projection.data(), impl.projection_work, projection.size(),
                "cudaMemcpyAsync projection_work rhs", error);
}

/// (grad_filter, grad_projection) = gradient of E at filter_current and projection_work.
bool loss_gradient(const JointOperators& operators, const JointImpl& impl, float filter_regularization,
                   float projection_regularization) {
  return operators.project(impl.projection_work, impl.projected_cached) && operators.classify() &&
         operators.weigh_residual() &&
         operators.set_filter(impl.filter_current, filter_regularization, impl.grad_filter) &&
         operators.set_projection(impl.projection_work, projection_regularization, impl.grad_projection) &&
         operators.add_filter_gradient(1.0F, impl.grad_filter) && operators.backprop() &&
         operators.add_projection_gradient(1.0F, impl.grad_projection);
}

/// (grad_filter, grad_projection) = the normal operator of (filter_work, projection_work).
bool normal_operator(const JointOperators& operators, const JointImpl& impl, float filter_regularization,
                     float projection_regularization) {
  return operators.project(impl.projection_work, impl.projected_work) && operators.classify_direction() &&
         operators.weigh_direction() &&
         operators.set_filter(impl.filter_work, filter_regularization, impl.grad_filter) &&
         operators.set_projection(impl.projection_work, projection_regularization, impl.grad_projection) &&
         operators.add_filter_gradient(1.0F, impl.grad_filter) && operators.backprop() &&
         operators.add_projection_gradient(1.0F, impl.grad_projection);
}

/// Labels of the steps that bring a pair of gradients to the host.
struct DownloadLabels {
  const char* wait;
  const char* filter;
  const char* projection;
};

/// Waits, and copies grad_filter and grad_projection one after the other into `out`.
bool download_gradients(const JointImpl& impl, const DownloadLabels& labels, std::vector<float>* out,
                        std::string* error) {
  if (!set_cuda_error(cudaStreamSynchronize(impl.stream.get()), labels.wait, error)) return false;
  const auto filter_size = static_cast<std::size_t>(impl.filter_size());
  const auto projection_size = static_cast<std::size_t>(impl.projection_size());
  out->resize(filter_size + projection_size);
  return set_cuda_error(cudaMemcpy(out->data(), impl.grad_filter.get(), filter_size * sizeof(float),
                                   cudaMemcpyDeviceToHost),
                        labels.filter, error) &&
         set_cuda_error(cudaMemcpy(out->data() + filter_size, impl.grad_projection.get(),
                                   projection_size * sizeof(float), cudaMemcpyDeviceToHost),
                        labels.projection, error);
}

}  // namespace

bool JointOperators::project(const DeviceBuffer<float>& projection, const DeviceBuffer<float>& out) const {
  return detail::gemm_project_features(impl_.cublas.get(), impl_.raw_features.get(), projection.get(),
                                       out.get(), samples_, impl_.in_channels, impl_.out_channels,
                                       impl_.height, impl_.width, error_);
}

bool JointOperators::classify() const {
  return detail::launch_classify_samples(impl_.projected_cached.get(), impl_.filter_current.get(),
                                         impl_.response.get(), samples_, impl_.out_channels, impl_.height,
                                         impl_.width, impl_.filter_height, impl_.filter_width,
                                         impl_.stream.get(), error_);
}

bool JointOperators::weigh_residual() const {
  return detail::launch_compute_weighted_residual_grad(
      impl_.response.get(), impl_.labels.get(), sample_weight_, impl_.activation_grad.get(),
      impl_.weighted_response.get(), samples_, impl_.height, impl_.width, impl_.stream.get(), error_);
}

bool JointOperators::classify_direction() const {
  return detail::launch_classify_sample_pair(
      impl_.projected_cached.get(), impl_.filter_work.get(), impl_.response.get(), impl_.projected_work.get(),
      impl_.filter_current.get(), impl_.response_aux.get(), samples_, impl_.out_channels, impl_.height,
      impl_.width, impl_.filter_height, impl_.filter_width, impl_.stream.get(), error_);
}

bool JointOperators::weigh_direction() const {
  return detail::launch_compute_weighted_jtj_response(
      impl_.response.get(), impl_.response_aux.get(), impl_.activation_grad.get(), sample_weight_,
      impl_.weighted_response.get(), samples_, impl_.height, impl_.width, impl_.stream.get(), error_);
}

bool JointOperators::set_filter(const DeviceBuffer<float>& source, float scale,
                                const DeviceBuffer<float>& target) const {
  return detail::launch_set_scaled_vector(source.get(), scale, target.get(), impl_.filter_size(),
                                          impl_.stream.get(), error_);
}

bool JointOperators::set_projection(const DeviceBuffer<float>& source, float scale,
                                    const DeviceBuffer<float>& target) const {
  return detail::launch_set_scaled_vector(source.get(), scale, target.get(), impl_.projection_size(),
                                          impl_.stream.get(), error_);
}

bool JointOperators::add_filter_gradient(float scale, const DeviceBuffer<float>& out) const {
  return detail::launch_accumulate_filter_gradient(
      impl_.projected_cached.get(), impl_.weighted_response.get(), scale, out.get(), samples_,
      impl_.out_channels, impl_.height, impl_.width, impl_.filter_height, impl_.filter_width,
      impl_.stream.get(), error_);
}

bool JointOperators::backprop() const {
  return detail::launch_backprop_to_projected_feature(
      impl_.weighted_response.get(), impl_.filter_current.get(), impl_.projected_work.get(), samples_,
      impl_.out_channels, impl_.height, impl_.width, impl_.filter_height, impl_.filter_width,
      impl_.stream.get(), error_);
}

bool JointOperators::add_projection_gradient(float scale, const DeviceBuffer<float>& out) const {
  return detail::gemm_accumulate_projection_gradient(
      impl_.cublas.get(), impl_.stream.get(), impl_.raw_features.get(), impl_.projected_work.get(), scale,
      impl_.projection_grad_batch.get(), out.get(), samples_, impl_.in_channels, impl_.out_channels,
      impl_.height, impl_.width, error_);
}

bool CudaJointOptimizer::compute_rhs(const std::vector<float>& features, const std::vector<float>& labels,
                                     int samples, const std::vector<float>& filter,
                                     const std::vector<float>& projection, float filter_regularization,
                                     float projection_regularization, float sample_weight,
                                     std::vector<float>* out_rhs, std::string* error) {
  if (impl_ == nullptr || out_rhs == nullptr || samples < 1) {
    return refuse("invalid CUDA joint optimizer rhs request", error);
  }
  Impl& impl = *impl_;
  if (features.size() != element_count({samples, impl.in_channels, impl.height, impl.width}) ||
      !impl.fits(labels, samples, filter, projection)) {
    return refuse("CUDA joint optimizer rhs sizes do not match requested dimensions", error);
  }
  const JointOperators operators(impl, samples, sample_weight, error);
  if (!ensure_capacity(samples, impl.in_channels, impl.out_channels, impl.height, impl.width,
                       impl.filter_height, impl.filter_width, error) ||
      !upload_rhs_inputs(impl, features, labels, filter, projection, error) ||
      !loss_gradient(operators, impl, filter_regularization, projection_regularization) ||
      !download_gradients(
          impl, {"cudaStreamSynchronize rhs", "cudaMemcpy grad_filter", "cudaMemcpy grad_projection"},
          out_rhs, error)) {
    return false;
  }
  std::transform(out_rhs->begin(), out_rhs->end(), out_rhs->begin(), std::negate<float>());
  impl.remember(samples, sample_weight);
  return true;
}

bool CudaJointOptimizer::apply_normal_operator(const std::vector<float>& direction_filter,
                                               const std::vector<float>& direction_projection,
                                               float filter_regularization, float projection_regularization,
                                               std::vector<float>* out, std::string* error) {
  if (impl_ == nullptr || out == nullptr || !impl_->state_ready) {
    return refuse(kNotReady, error);
  }
  const Impl& impl = *impl_;
  if (direction_filter.size() != static_cast<std::size_t>(impl.filter_size()) ||
      direction_projection.size() != static_cast<std::size_t>(impl.projection_size())) {
    return refuse("CUDA joint optimizer direction sizes do not match current dimensions", error);
  }
  if (!impl.holds_linearisation()) return refuse(kNotReady, error);
  return upload(impl, direction_filter.data(), impl.filter_work, direction_filter.size(),
                "cudaMemcpyAsync direction_filter", error) &&
         upload(impl, direction_projection.data(), impl.projection_work, direction_projection.size(),
                "cudaMemcpyAsync direction_projection", error) &&
         normal_operator(JointOperators(*impl_, impl.last_samples, impl.last_sample_weight, error), impl,
                         filter_regularization, projection_regularization) &&
         download_gradients(
             impl, {"cudaStreamSynchronize apply", "cudaMemcpy out_filter", "cudaMemcpy out_projection"}, out,
             error);
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
