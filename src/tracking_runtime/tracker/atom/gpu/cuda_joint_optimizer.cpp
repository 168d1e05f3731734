#include "tracking_runtime/tracker/atom/gpu/cuda_joint_optimizer.h"

#include "tracking_runtime/tracker/atom/gpu/cuda_joint_optimizer_impl.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_joint_optimizer_ops.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

using JointImpl = CudaJointOptimizer::Impl;

/// projected_cached = z of the last fit's samples. The fit moved P after its last projection.
bool project_result(const JointImpl* impl, bool has_target, std::string* error) {
  if (impl == nullptr || !has_target || !impl->state_ready || impl->last_samples < 1 ||
      !impl->holds_projected()) {
    return refuse("CUDA joint optimizer projected feature state is not ready", error);
  }
  return detail::gemm_project_features(impl->cublas.get(), impl->raw_features.get(),
                                       impl->projection_current.get(), impl->projected_cached.get(),
                                       impl->last_samples, impl->in_channels, impl->out_channels,
                                       impl->height, impl->width, error);
}

}  // namespace

CudaJointOptimizer::CudaJointOptimizer() : impl_(std::make_unique<JointImpl>()) {}
CudaJointOptimizer::~CudaJointOptimizer() = default;
CudaJointOptimizer::CudaJointOptimizer(CudaJointOptimizer&&) noexcept = default;
CudaJointOptimizer& CudaJointOptimizer::operator=(CudaJointOptimizer&&) noexcept = default;

bool CudaJointOptimizer::get_projected_feature_device_view(ProjectedFeatureView* view, std::string* error) {
  if (!project_result(impl_.get(), view != nullptr, error)) return false;
  view->data = impl_->projected_cached.get();
  view->samples = impl_->last_samples;
  view->channels = impl_->out_channels;
  view->height = impl_->height;
  view->width = impl_->width;
  view->stream = impl_->stream.get();
  return true;
}

bool CudaJointOptimizer::download_projected_features(std::vector<float>* out, std::string* error) {
  if (!project_result(impl_.get(), out != nullptr, error)) return false;
  out->resize(element_count({impl_->last_samples, impl_->out_channels, impl_->height, impl_->width}));
  return set_cuda_error(
             cudaMemcpyAsync(out->data(), impl_->projected_cached.get(), out->size() * sizeof(float),
                             cudaMemcpyDeviceToHost, impl_->stream.get()),
             "cudaMemcpyAsync projected_features", error) &&
         set_cuda_error(cudaStreamSynchronize(impl_->stream.get()),
                        "cudaStreamSynchronize projected_features", error);
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
