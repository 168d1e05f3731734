#pragma once

#include <string>

#include "tracking_runtime/tracker/atom/gpu/cublas_handle.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_handles.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_joint_optimizer.h"

/// The inside of the joint optimiser, shared by its sources.

namespace ostrel_tracker::tracking_runtime::tracker::atom {

struct CudaJointOptimizer::Impl {
  DeviceBuffer<float> raw_features;        // N, Cin, H, W
  DeviceBuffer<float> labels;              // N, H, W
  DeviceBuffer<float> filter_current;      // Cout, fh, fw: f, the result in the end
  DeviceBuffer<float> filter_work;         // filter halves: of the search direction p,
  DeviceBuffer<float> filter_delta;        // of the solution x,
  DeviceBuffer<float> r_filter;            // of the residual r,
  DeviceBuffer<float> r_prev_filter;       // of the residual before it,
  DeviceBuffer<float> grad_filter;         // and of q, what the operator makes of p
  DeviceBuffer<float> projection_current;  // Cout, Cin: P, the result in the end
  DeviceBuffer<float> projection_work;     // projection halves, in the same order
  DeviceBuffer<float> projection_delta;
  DeviceBuffer<float> r_projection;
  DeviceBuffer<float> r_prev_projection;
  DeviceBuffer<float> grad_projection;
  DeviceBuffer<float> projected_cached;       // N, Cout, H, W: z where the model is linearised
  DeviceBuffer<float> projected_work;         // N, Cout, H, W: z of a direction, or the gradient of z
  DeviceBuffer<float> response;               // N, H, W
  DeviceBuffer<float> response_aux;           // N, H, W: the projection half's part of J p
  DeviceBuffer<float> activation_grad;        // N, H, W: phi' where the model is linearised
  DeviceBuffer<float> weighted_response;      // N, H, W: weighted residual, later weighted J p
  DeviceBuffer<float> projection_grad_batch;  // N, Cout, Cin: the gradient of P by sample
  DeviceBuffer<float> channel_scales;         // N, Cin
  DeviceBuffer<double> scalar;                // rho; rho2 or pq; previous rho
  CudaStream stream;
  CublasHandle cublas;  // bound to `stream`
  int samples = 0;      // the sizes of the last ensure_capacity
  int in_channels = 0;
  int out_channels = 0;
  int height = 0;
  int width = 0;
  int filter_height = 0;
  int filter_width = 0;
  int last_samples = 0;             // of the last successful fit or right-hand side
  float last_sample_weight = 0.0F;  // of the same
  bool state_ready = false;         // there was one

  ~Impl() {
    release_in_order(raw_features, labels, filter_current, filter_work, filter_delta, r_filter, r_prev_filter,
                     grad_filter, projection_current, projection_work, projection_delta, r_projection,
                     r_prev_projection, grad_projection, projected_cached, projected_work, response,
                     response_aux, activation_grad, weighted_response, projection_grad_batch, channel_scales,
                     scalar, cublas, stream);
  }

  /// Elements of the filter and of the projection.
  int filter_size() const { return out_channels * filter_height * filter_width; }
  int projection_size() const { return in_channels * out_channels; }

  /// Whether host arrays for `count` samples have the lengths that the stored sizes ask for.
  bool fits(const std::vector<float>& labels_in, int count, const std::vector<float>& filter,
            const std::vector<float>& projection) const {
    return labels_in.size() == element_count({count, height, width}) &&
           filter.size() == element_count({out_channels, filter_height, filter_width}) &&
           projection.size() == element_count({in_channels, out_channels});
  }

  /// Whether the buffers hold the last result's samples at the stored sizes, both of which a later
  /// ensure_capacity may have changed: what projecting them again touches, and beyond it the normal operator.
  bool holds_projected() const {
    return raw_features.holds(element_count({last_samples, in_channels, height, width})) &&
           projected_cached.holds(element_count({last_samples, out_channels, height, width})) &&
           projection_current.holds(element_count({in_channels, out_channels}));
  }
  bool holds_linearisation() const {
    return holds_projected() && response.holds(element_count({last_samples, height, width})) &&
           filter_current.holds(element_count({out_channels, filter_height, filter_width})) &&
           projection_grad_batch.holds(element_count({last_samples, out_channels, in_channels}));
  }

  /// What a fit or a right-hand side leaves for the calls after it.
  void remember(int count, float sample_weight) {
    last_samples = count;
    last_sample_weight = sample_weight;
    state_ready = true;
  }
};

/// The model's operators on the optimiser's buffers, for its first `samples` samples and one weight for all.
/// Each enqueues on the optimiser's stream; false means that a call failed and `error` has its text.
class JointOperators {
 public:
  using Impl = CudaJointOptimizer::Impl;

  JointOperators(Impl& impl, int samples, float sample_weight, std::string* error)
      : impl_(impl), samples_(samples), sample_weight_(sample_weight), error_(error) {}

  /// out = z of every raw sample under the projection.
  bool project(const DeviceBuffer<float>& projection, const DeviceBuffer<float>& out) const;
  /// response = s, the correlation of projected_cached with filter_current.
  bool classify() const;
  /// activation_grad = phi'(s); weighted_response = w * phi'(s) * (phi(s) - y).
  bool weigh_residual() const;
  /// response + response_aux = J p: what the filter half and the projection half of the direction, which
  /// projected_work holds as z, change in the response. Products of both halves are left out.
  bool classify_direction() const;
  /// weighted_response = w * phi'^2 * (response + response_aux).
  bool weigh_direction() const;
  /// target = scale * source, of a filter's or a projection's length.
  bool set_filter(const DeviceBuffer<float>& source, float scale, const DeviceBuffer<float>& target) const;
  bool set_projection(const DeviceBuffer<float>& source, float scale,
                      const DeviceBuffer<float>& target) const;
  /// out += scale * gradient with regard to the filter of <weighted_response, s>.
  bool add_filter_gradient(float scale, const DeviceBuffer<float>& out) const;
  /// projected_work = gradient with regard to z of the same.
  bool backprop() const;
  /// out += scale * gradient with regard to the projection, from projected_work.
  bool add_projection_gradient(float scale, const DeviceBuffer<float>& out) const;

 private:
  Impl& impl_;
  int samples_;
  float sample_weight_;
  std::string* error_;
};

/// Copies `count` floats from the host to the device on the optimiser's stream; staged before the return.
inline bool upload(const CudaJointOptimizer::Impl& impl, const float* source,
                   const DeviceBuffer<float>& target, std::size_t count, const char* label,
                   std::string* error) {
  return set_cuda_error(
      cudaMemcpyAsync(target.get(), source, count * sizeof(float), cudaMemcpyHostToDevice, impl.stream.get()),
      label, error);
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
