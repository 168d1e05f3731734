#include "tracking_runtime/tracker/atom/gpu/cuda_filter_trainer.h"

#include <algorithm>

#include "tracking_runtime/tracker/atom/gpu/correlation_device.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_filter_trainer_impl.h"
#include "tracking_runtime/tracker/atom/gpu/kernel_launch.h"
#include "tracking_runtime/tracker/atom/gpu/profiler_range.h"
#include "tracking_runtime/tracker/atom/gpu/solver_device.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

using ostrel::launch::Block;
using ostrel::launch::this_block;

__global__ void classify_samples_kernel(const float* features, const float* filter, float* out, int samples,
                                        int channels, int height, int width, int filter_height,
                                        int filter_width) {
  const Block block = this_block();
  block.for_each_thread([&](int thread) {
    const int t = block.index() * block.threads() + thread;
    if (t >= samples * height * width) return;
    out[t] = correlate_at(features, filter, t, channels, MapSize{height, width},
                          AnyFilter{filter_height, filter_width});
  });
}

template <int kFilterHeight, int kFilterWidth>
__global__ void classify_samples_fixed_filter_kernel(const float* features, const float* filter, float* out,
                                                     int samples, int channels, int height, int width) {
  const Block block = this_block();
  float* staged = block.dynamic_shared<float>();
  stage(block, filter, staged, channels * kFilterHeight * kFilterWidth);
  block.for_each_thread([&](int thread) {
    const int t = block.index() * block.threads() + thread;
    if (t >= samples * height * width) return;
    out[t] = correlate_at(features, staged, t, channels, MapSize{height, width},
                          FixedFilter<kFilterHeight, kFilterWidth>{});
  });
}

__global__ void compute_weighted_residual_grad_kernel(const float* response, const float* labels,
                                                      const float* sample_weights, float* activation_grad,
                                                      float* weighted_response, int samples, int height,
                                                      int width) {
  const Block block = this_block();
  block.for_each_thread([&](int thread) {
    const int t = block.index() * block.threads() + thread;
    if (t >= samples * height * width) return;
    weighted_residual_at(t, response, labels, sample_weights[t / (height * width)], activation_grad,
                         weighted_response);
  });
}

__global__ void compute_weighted_jtj_response_kernel(const float* response, const float* activation_grad,
                                                     const float* sample_weights, float* out, int samples,
                                                     int height, int width) {
  const Block block = this_block();
  block.for_each_thread([&](int thread) {
    const int t = block.index() * block.threads() + thread;
    if (t >= samples * height * width) return;
    out[t] = sample_weights[t / (height * width)] * activation_grad[t] * activation_grad[t] * response[t];
  });
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

/// One training job on the trainer's stream: each step enqueues work, and false means that a call failed and
/// `error` has its text.
class TrainingJob {
 public:
  TrainingJob(CudaFilterTrainer::Impl& impl, const float* features, int samples, int channels, MapSize map,
              AnyFilter filter_size, float regularization, std::string* error)
      : impl_(impl),
        features_(features),
        samples_(samples),
        channels_(channels),
        map_(map),
        filter_size_(filter_size),
        positions_(samples * map.height * map.width),
        taps_(channels * filter_size.height * filter_size.width),
        regularization_(regularization),
        stream_(impl.stream.get()),
        error_(error) {}

  bool upload(const std::vector<float>& labels, const std::vector<float>& sample_weights,
              const std::vector<float>& filter) {
    return to_device(labels.data(), impl_.labels, positions_, "cudaMemcpyAsync labels") &&
           to_device(sample_weights.data(), impl_.sample_weights, samples_,
                     "cudaMemcpyAsync sample_weights") &&
           to_device(filter.data(), impl_.filter, taps_, "cudaMemcpyAsync filter") &&
           check(cudaMemsetAsync(impl_.x.get(), 0, floats(taps_), stream_), "cudaMemsetAsync x");
  }

  /// r = -grad E at the current filter, with the activation's derivative kept for the normal operator.
  bool right_hand_side() {
    return classify(impl_.filter, "classify_samples_kernel rhs",
                    "classify_samples_fixed_filter_kernel<4,4> rhs") &&
           launch("compute_weighted_residual_grad_kernel", compute_weighted_residual_grad_kernel, positions_,
                  impl_.response.get(), impl_.labels.get(), impl_.sample_weights.get(),
                  impl_.activation_grad.get(), impl_.weighted_response.get(), samples_, map_.height,
                  map_.width) &&
           set_scaled(impl_.filter, -regularization_, impl_.r, "set_scaled_vector_kernel rhs") &&
           add_filter_gradient(-1.0F, impl_.r, "accumulate_filter_gradient_kernel rhs");
  }

  /// Iteration k of the conjugate gradient, counted from 0.
  bool iterate(int k) {
    return dot(impl_.r, impl_.r, kRho, "cudaMemsetAsync scalar rho", "dot_product_kernel rho") &&
           direction(k) && apply_normal_operator() &&
           dot(impl_.p, impl_.q, kRho2OrPq, "cudaMemsetAsync scalar pq", "dot_product_kernel pq") && step();
  }

  bool add_step_to_filter() {
    return launch("add_in_place_kernel", add_in_place_kernel, taps_, impl_.filter.get(), impl_.x.get(),
                  taps_);
  }

  bool download(std::vector<float>* out_filter) {
    if (!check(cudaMemcpyAsync(impl_.filter_host.get(), impl_.filter.get(), floats(taps_),
                               cudaMemcpyDeviceToHost, stream_),
               "cudaMemcpyAsync optimized filter") ||
        !check(cudaStreamSynchronize(stream_), "cudaStreamSynchronize optimized filter")) {
      return false;
    }
    out_filter->assign(impl_.filter_host.get(), impl_.filter_host.get() + taps_);
    return true;
  }

 private:
  static std::size_t floats(int count) { return static_cast<std::size_t>(count) * sizeof(float); }

  bool check(cudaError_t status, const char* label) { return set_cuda_error(status, label, error_); }

  template <typename... Parameters, typename... Arguments>
  bool launch(LaunchName name, void (*kernel)(Parameters...), int elements, Arguments... arguments) {
    return launch_over(name, kernel, elements, 0, stream_, error_, arguments...);
  }

  bool to_device(const float* source, const DeviceBuffer<float>& target, int count, const char* label) {
    return check(cudaMemcpyAsync(target.get(), source, floats(count), cudaMemcpyHostToDevice, stream_),
                 label);
  }

  bool copy_vector(const DeviceBuffer<float>& source, const DeviceBuffer<float>& target, const char* label) {
    return check(
        cudaMemcpyAsync(target.get(), source.get(), floats(taps_), cudaMemcpyDeviceToDevice, stream_), label);
  }

  /// response = correlation of the features with `filter`, which may be a direction: the correlation is
  /// linear.
  bool classify(const DeviceBuffer<float>& filter, const char* general_label, const char* fixed_label) {
    if (filter_size_.height == 4 && filter_size_.width == 4) {
      return launch_over({"classify_samples_fixed_filter_kernel<4,4>", fixed_label},
                         classify_samples_fixed_filter_kernel<4, 4>, positions_, floats(taps_), stream_,
                         error_, features_, filter.get(), impl_.response.get(), samples_, channels_,
                         map_.height, map_.width);
    }
    return launch({"classify_samples_kernel", general_label}, classify_samples_kernel, positions_, features_,
                  filter.get(), impl_.response.get(), samples_, channels_, map_.height, map_.width,
                  filter_size_.height, filter_size_.width);
  }

  bool set_scaled(const DeviceBuffer<float>& source, float scale, const DeviceBuffer<float>& target,
                  const char* label) {
    return launch({"set_scaled_vector_kernel", label}, set_scaled_vector_kernel, taps_, source.get(), scale,
                  target.get(), taps_);
  }

  /// out += scale * gradient with regard to the filter of weighted_response.
  bool add_filter_gradient(float scale, const DeviceBuffer<float>& out, const char* label) {
    return launch({"accumulate_filter_gradient_kernel", label}, accumulate_filter_gradient_kernel, taps_,
                  features_, impl_.weighted_response.get(), scale, out.get(), samples_, channels_,
                  map_.height, map_.width, filter_size_.height, filter_size_.width);
  }

  bool dot(const DeviceBuffer<float>& a, const DeviceBuffer<float>& b, SolverScalar scalar,
           const char* clear_label, const char* label) {
    double* out = impl_.scalar.get() + scalar;
    return check(cudaMemsetAsync(out, 0, sizeof(double), stream_), clear_label) &&
           launch({"dot_product_kernel", label}, dot_product_kernel, taps_, a.get(), b.get(), taps_, out);
  }

  /// p = r at first, later r + beta * p.
  bool direction(int k) {
    if (k == 0) return copy_vector(impl_.r, impl_.p, "cudaMemcpyAsync p");
    return dot(impl_.r_prev, impl_.r, kRho2OrPq, "cudaMemsetAsync scalar rho2", "dot_product_kernel rho2") &&
           launch("combine_with_beta_from_scalars_kernel", combine_with_beta_from_scalars_kernel, taps_,
                  impl_.r.get(), impl_.scalar.get(), impl_.p.get(), taps_);
  }

  /// q = (J^T W J + regularization) p.
  bool apply_normal_operator() {
    return set_scaled(impl_.p, regularization_, impl_.q, "set_scaled_vector_kernel q") &&
           classify(impl_.p, "classify_samples_kernel q", "classify_samples_fixed_filter_kernel<4,4> q") &&
           launch("compute_weighted_jtj_response_kernel", compute_weighted_jtj_response_kernel, positions_,
                  impl_.response.get(), impl_.activation_grad.get(), impl_.sample_weights.get(),
                  impl_.weighted_response.get(), samples_, map_.height, map_.width) &&
           add_filter_gradient(1.0F, impl_.q, "accumulate_filter_gradient_kernel q");
  }

  /// x += alpha * p, r -= alpha * q, with the residual and rho kept for the next coefficient.
  bool step() {
    return copy_vector(impl_.r, impl_.r_prev, "cudaMemcpyAsync r_prev") &&
           launch("update_x_r_from_scalars_kernel", update_x_r_from_scalars_kernel, taps_, impl_.x.get(),
                  impl_.r.get(), impl_.p.get(), impl_.q.get(), impl_.scalar.get(), taps_) &&
           launch_single_thread("store_scalar_kernel", store_scalar_kernel, stream_, error_,
                                impl_.scalar.get(), static_cast<int>(kPreviousRho), static_cast<int>(kRho));
  }

  CudaFilterTrainer::Impl& impl_;
  const float* features_;
  int samples_;
  int channels_;
  MapSize map_;
  AnyFilter filter_size_;
  int positions_;
  int taps_;
  float regularization_;
  cudaStream_t stream_;
  std::string* error_;
};

bool any_below_one(std::initializer_list<int> sizes) {
  return std::min(sizes) < 1;
}

}  // namespace

template <typename TrainerImpl>
bool optimize_filter_on_device_features(TrainerImpl* impl, const float* features_device,
                                        const std::vector<float>& labels,
                                        const std::vector<float>& sample_weights, int samples, int channels,
                                        int height, int width, const std::vector<float>& filter,
                                        int filter_height, int filter_width, float regularization,
                                        int iterations, std::vector<float>* out_filter, std::string* error) {
  if (impl == nullptr || features_device == nullptr || out_filter == nullptr ||
      any_below_one({samples, channels, height, width, filter_height, filter_width})) {
    return refuse("invalid CUDA filter trainer device optimize request", error);
  }
  if (labels.size() != element_count({samples, height, width}) ||
      sample_weights.size() < element_count({samples}) ||
      filter.size() != element_count({channels, filter_height, filter_width})) {
    return refuse("CUDA filter trainer input sizes do not match requested dimensions", error);
  }
  const ProfilerRange range(range_names::kFilterSolve);
  TrainingJob job(*impl, features_device, samples, channels, {height, width}, {filter_height, filter_width},
                  regularization, error);
  if (!job.upload(labels, sample_weights, filter) || !job.right_hand_side()) return false;
  for (int k = 0; k < std::max(iterations, 1); ++k) {
    if (!job.iterate(k)) return false;
  }
  return job.add_step_to_filter() && job.download(out_filter);
}

template bool optimize_filter_on_device_features<CudaFilterTrainer::Impl>(
    CudaFilterTrainer::Impl*, const float*, const std::vector<float>&, const std::vector<float>&, int, int,
    int, int, const std::vector<float>&, int, int, float, int, std::vector<float>*, std::string*);

bool CudaFilterTrainer::optimize_filter(const std::vector<float>& features, const std::vector<float>& labels,
                                        const std::vector<float>& sample_weights, int samples, int channels,
                                        int height, int width, const std::vector<float>& filter,
                                        int filter_height, int filter_width, float regularization,
                                        int iterations, std::vector<float>* out_filter, std::string* error) {
  if (impl_ == nullptr || out_filter == nullptr ||
      any_below_one({samples, channels, height, width, filter_height, filter_width})) {
    return refuse("invalid CUDA filter trainer request", error);
  }
  if (features.size() != element_count({samples, channels, height, width})) {
    return refuse("CUDA filter trainer feature size does not match requested dimensions", error);
  }
  return ensure_capacity(samples, channels, height, width, filter_height, filter_width, true, error) &&
         set_cuda_error(
             cudaMemcpyAsync(impl_->features.get(), features.data(), features.size() * sizeof(float),
                             cudaMemcpyHostToDevice, impl_->stream.get()),
             "cudaMemcpyAsync features", error) &&
         optimize_filter_on_device_features(impl_.get(), impl_->features.get(), labels, sample_weights,
                                            samples, channels, height, width, filter, filter_height,
                                            filter_width, regularization, iterations, out_filter, error);
}

bool CudaFilterTrainer::optimize_filter_device_features(
    const DeviceFeatureView& view, const std::vector<float>& labels, const std::vector<float>& sample_weights,
    int samples, int channels, int height, int width, const std::vector<float>& filter, int filter_height,
    int filter_width, float regularization, int iterations, std::vector<float>* out_filter,
    std::string* error) {
  if (impl_ == nullptr || view.features == nullptr || out_filter == nullptr ||
      any_below_one({samples, channels, height, width, filter_height, filter_width})) {
    return refuse("invalid CUDA filter trainer device feature request", error);
  }
  return ensure_capacity(samples, channels, height, width, filter_height, filter_width, false, error) &&
         wait_for_ready_stream(impl_.get(), view.ready_stream, error) &&
         optimize_filter_on_device_features(impl_.get(), view.features, labels, sample_weights, samples,
                                            channels, height, width, filter, filter_height, filter_width,
                                            regularization, iterations, out_filter, error);
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
