#include <algorithm>

#include "tracking_runtime/tracker/atom/gpu/cuda_joint_optimizer_impl.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_joint_optimizer_ops.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_joint_optimizer_support.h"
#include "tracking_runtime/tracker/atom/gpu/profiler_range.h"
#include "tracking_runtime/tracker/atom/gpu/solver_scalars.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

using JointImpl = CudaJointOptimizer::Impl;
using Phase = detail::JointOptPhase;

/// One half of a vector of the joint system, filter or projection, in each of its roles.
struct Half {
  const DeviceBuffer<float>&current, &x, &r, &r_prev, &p, &q;
  int size;
};

/// One fit on the optimiser's stream. Each step enqueues work, stage by stage between two events, and false
/// means that a call failed and `error` has its text.
class JointFit {
 public:
  JointFit(JointImpl& impl, int samples, float filter_regularization, float projection_regularization,
           float sample_weight, std::string* error)
      : impl_(impl),
        operators_(impl, samples, sample_weight, error),
        filter_{impl.filter_current, impl.filter_delta, impl.r_filter,     impl.r_prev_filter,
                impl.filter_work,    impl.grad_filter,  impl.filter_size()},
        projection_{impl.projection_current, impl.projection_delta, impl.r_projection,
                    impl.r_prev_projection,  impl.projection_work,  impl.grad_projection,
                    impl.projection_size()},
        filter_regularization_(filter_regularization),
        projection_regularization_(projection_regularization),
        stream_(impl.stream.get()),
        error_(error) {}

  bool upload_inputs(const std::vector<float>& labels, const std::vector<float>& filter,
                     const std::vector<float>& projection) {
    return timed(Phase::kUpload, [&] {
      return upload(impl_, labels.data(), impl_.labels, labels.size(), "cudaMemcpyAsync labels optimize",
                    error_) &&
             upload(impl_, filter.data(), impl_.filter_current, filter.size(),
                    "cudaMemcpyAsync filter_current optimize", error_) &&
             upload(impl_, projection.data(), impl_.projection_current, projection.size(),
                    "cudaMemcpyAsync projection_current optimize", error_);
    });
  }

  /// One Gauss-Newton step of `conjugate_gradient_iterations`, at least 1.
  bool gauss_newton_step(int conjugate_gradient_iterations) {
    if (!clear(filter_.x.get(), floats(filter_.size), "cudaMemsetAsync filter_delta") ||
        !clear(projection_.x.get(), floats(projection_.size), "cudaMemsetAsync projection_delta") ||
        !linearize() || !right_hand_side()) {
      return false;
    }
    for (int k = 0; k < conjugate_gradient_iterations; ++k) {
      if (!rho() || !direction(k) || !normal_operator() || !curvature() || !advance()) return false;
    }
    return take_step();
  }

  /// Enqueues the copies of the result and waits for them.
  bool download(std::vector<float>* out_filter, std::vector<float>* out_projection) {
    out_filter->resize(static_cast<std::size_t>(filter_.size));
    out_projection->resize(static_cast<std::size_t>(projection_.size));
    return timed(Phase::kDownload,
                 [&] {
                   return copy(filter_.current.get(), out_filter->data(), filter_.size,
                               cudaMemcpyDeviceToHost, "cudaMemcpyAsync optimized_filter") &&
                          copy(projection_.current.get(), out_projection->data(), projection_.size,
                               cudaMemcpyDeviceToHost, "cudaMemcpyAsync optimized_projection");
                 }) &&
           check(cudaStreamSynchronize(stream_), "cudaStreamSynchronize optimize");
  }

  const detail::JointOptTimingCollector& timings() const { return timings_; }

 private:
  static std::size_t floats(int count) { return static_cast<std::size_t>(count) * sizeof(float); }

  bool check(cudaError_t status, const char* label) const {
    return detail::set_cuda_error(status, label, error_);
  }

  template <typename Stage>
  bool timed(Phase phase, const char* label, Stage&& stage) {
    detail::CudaEventRange range;
    return detail::begin_timed_range(stream_, &range, label, error_) && stage() &&
           detail::end_timed_range(&timings_, phase, stream_, &range, label, error_);
  }
  template <typename Stage>
  bool timed(Phase phase, Stage&& stage) {
    return timed(phase, detail::joint_opt_label(phase), stage);
  }

  bool clear(void* memory, std::size_t bytes, const char* label) const {
    return check(cudaMemsetAsync(memory, 0, bytes, stream_), label);
  }
  bool copy(const float* source, float* target, int count, cudaMemcpyKind kind, const char* label) const {
    return check(cudaMemcpyAsync(target, source, floats(count), kind, stream_), label);
  }
  bool copy_on_device(const DeviceBuffer<float>& source, const DeviceBuffer<float>& target, int count,
                      const char* label) const {
    return copy(source.get(), target.get(), count, cudaMemcpyDeviceToDevice, label);
  }

  /// The joint vector's dot product, both halves added into one scalar.
  bool dot(const DeviceBuffer<float>& filter_a, const DeviceBuffer<float>& filter_b,
           const DeviceBuffer<float>& projection_a, const DeviceBuffer<float>& projection_b,
           SolverScalar scalar, const char* clear_label) const {
    double* out = impl_.scalar.get() + scalar;
    return clear(out, sizeof(double), clear_label) &&
           detail::launch_dot_product(filter_a.get(), filter_b.get(), filter_.size, out, stream_, error_) &&
           detail::launch_dot_product(projection_a.get(), projection_b.get(), projection_.size, out, stream_,
                                      error_);
  }

  /// z, s, phi'(s) and the weighted residual at the current filter and projection.
  bool linearize() {
    return timed(Phase::kRhsProject,
                 [&] { return operators_.project(projection_.current, impl_.projected_cached); }) &&
           timed(Phase::kRhsClassify, [&] { return operators_.classify(); }) &&
           timed(Phase::kRhsResidual, [&] { return operators_.weigh_residual(); });
  }

  /// r = minus the gradient of the loss.
  bool right_hand_side() {
    return timed(Phase::kRhsRegularize,
                 [&] {
                   return operators_.set_filter(filter_.current, -filter_regularization_, filter_.r) &&
                          operators_.set_projection(projection_.current, -projection_regularization_,
                                                    projection_.r);
                 }) &&
           timed(Phase::kRhsFilterGrad, [&] { return operators_.add_filter_gradient(-1.0F, filter_.r); }) &&
           timed(Phase::kRhsBackprop, [&] { return operators_.backprop(); }) &&
           timed(Phase::kRhsProjGrad,
                 [&] { return operators_.add_projection_gradient(-1.0F, projection_.r); });
  }

  bool rho() {
    return timed(Phase::kCgRho, [&] {
      return dot(filter_.r, filter_.r, projection_.r, projection_.r, kRho,
                 "cudaMemsetAsync scalar rho optimize");
    });
  }

  /// p = r at first, later r + beta * p.
  bool direction(int k) {
    if (k > 0) {
      return timed(Phase::kCgBeta, [&] {
        return dot(filter_.r_prev, filter_.r, projection_.r_prev, projection_.r, kRho2OrPq,
                   "cudaMemsetAsync scalar rho2 optimize") &&
               turn(filter_) && turn(projection_);
      });
    }
    return timed(Phase::kCgBeta, "joint_opt cg init_search_dir", [&] {
      return copy_on_device(filter_.r, filter_.p, filter_.size, "cudaMemcpyAsync p_filter optimize") &&
             copy_on_device(projection_.r, projection_.p, projection_.size,
                            "cudaMemcpyAsync p_projection optimize");
    });
  }

  bool turn(const Half& half) const {
    return detail::launch_combine_with_beta_from_scalars(half.r.get(), impl_.scalar.get(), half.p.get(),
                                                         half.size, stream_, error_);
  }

  /// q = (J^T W J + diag(lambda_f, lambda_p)) p.
  bool normal_operator() {
    return timed(Phase::kCgRegularize,
                 [&] {
                   return operators_.set_filter(filter_.p, filter_regularization_, filter_.q) &&
                          operators_.set_projection(projection_.p, projection_regularization_, projection_.q);
                 }) &&
           timed(Phase::kCgProject,
                 [&] { return operators_.project(projection_.p, impl_.projected_work); }) &&
           timed(Phase::kCgClassify, [&] { return operators_.classify_direction(); }) &&
           timed(Phase::kCgJtj, [&] { return operators_.weigh_direction(); }) &&
           timed(Phase::kCgFilterGrad, [&] { return operators_.add_filter_gradient(1.0F, filter_.q); }) &&
           timed(Phase::kCgBackprop, [&] { return operators_.backprop(); }) &&
           timed(Phase::kCgProjGrad, [&] { return operators_.add_projection_gradient(1.0F, projection_.q); });
  }

  bool curvature() {
    return timed(Phase::kCgPq, [&] {
      return dot(filter_.p, filter_.q, projection_.p, projection_.q, kRho2OrPq,
                 "cudaMemsetAsync scalar pq optimize");
    });
  }

  /// x += alpha * p, r -= alpha * q with one alpha, with the residual and rho kept for the next coefficient.
  bool advance() {
    return timed(Phase::kCgUpdate, [&] {
      return copy_on_device(filter_.r, filter_.r_prev, filter_.size,
                            "cudaMemcpyAsync r_prev_filter optimize") &&
             copy_on_device(projection_.r, projection_.r_prev, projection_.size,
                            "cudaMemcpyAsync r_prev_projection optimize") &&
             update(filter_) && update(projection_) &&
             detail::launch_store_scalar(impl_.scalar.get(), kPreviousRho, kRho, stream_, error_);
    });
  }

  bool update(const Half& half) const {
    return detail::launch_update_x_r_from_scalars(half.x.get(), half.r.get(), half.p.get(), half.q.get(),
                                                  impl_.scalar.get(), half.size, stream_, error_);
  }

  bool take_step() {
    return timed(Phase::kApply, [&] { return add_solution(filter_) && add_solution(projection_); });
  }

  bool add_solution(const Half& half) const {
    return detail::launch_add_in_place(half.current.get(), half.x.get(), half.size, stream_, error_);
  }

  JointImpl& impl_;
  JointOperators operators_;
  Half filter_;
  Half projection_;
  float filter_regularization_;
  float projection_regularization_;
  cudaStream_t stream_;
  std::string* error_;
  detail::JointOptTimingCollector timings_;
};

}  // namespace

bool CudaJointOptimizer::optimize(const std::vector<float>& features, const std::vector<float>& labels,
                                  int samples, const std::vector<float>& filter,
                                  const std::vector<float>& projection, float filter_regularization,
                                  float projection_regularization, float sample_weight,
                                  int gauss_newton_iterations, int conjugate_gradient_iterations,
                                  std::vector<float>* out_filter, std::vector<float>* out_projection,
                                  std::string* error) {
  if (impl_ == nullptr || out_filter == nullptr || out_projection == nullptr || samples < 1) {
    return refuse("invalid CUDA joint optimizer optimize request", error);
  }
  const Impl& impl = *impl_;
  if (features.size() != element_count({samples, impl.in_channels, impl.height, impl.width}) ||
      !impl.fits(labels, samples, filter, projection)) {
    return refuse("CUDA joint optimizer optimize sizes do not match requested dimensions", error);
  }
  return ensure_capacity(samples, impl.in_channels, impl.out_channels, impl.height, impl.width,
                         impl.filter_height, impl.filter_width, error) &&
         preload_raw_feature_spans({{features.data(), nullptr, 0, samples, nullptr}}, error) &&
         optimize_preloaded_raw_features(labels, samples, filter, projection, filter_regularization,
                                         projection_regularization, sample_weight, gauss_newton_iterations,
                                         conjugate_gradient_iterations, out_filter, out_projection, error);
}

bool CudaJointOptimizer::optimize_preloaded_raw_features(
    const std::vector<float>& labels, int samples, const std::vector<float>& filter,
    const std::vector<float>& projection, float filter_regularization, float projection_regularization,
    float sample_weight, int gauss_newton_iterations, int conjugate_gradient_iterations,
    std::vector<float>* out_filter, std::vector<float>* out_projection, std::string* error) {
  if (impl_ == nullptr || out_filter == nullptr || out_projection == nullptr || samples < 1) {
    return refuse("invalid CUDA joint optimizer preloaded optimize request", error);
  }
  Impl& impl = *impl_;
  if (!impl.fits(labels, samples, filter, projection)) {
    return refuse("CUDA joint optimizer preloaded optimize sizes do not match requested dimensions", error);
  }
  if (!ensure_capacity(samples, impl.in_channels, impl.out_channels, impl.height, impl.width,
                       impl.filter_height, impl.filter_width, error)) {
    return false;
  }
  const ProfilerRange range(range_names::kJointFit);
  JointFit fit(impl, samples, filter_regularization, projection_regularization, sample_weight, error);
  if (!fit.upload_inputs(labels, filter, projection)) return false;
  const int steps = std::max(gauss_newton_iterations, 1);
  const int iterations = std::max(conjugate_gradient_iterations, 1);
  for (int step = 0; step < steps; ++step) {
    const ProfilerRange step_range(range_names::kGaussNewtonStep);
    if (!fit.gauss_newton_step(iterations)) return false;
  }
  if (!fit.download(out_filter, out_projection)) return false;
  detail::log_joint_opt_timings(fit.timings(), samples, steps, iterations);
  impl.remember(samples, sample_weight);
  return true;
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
