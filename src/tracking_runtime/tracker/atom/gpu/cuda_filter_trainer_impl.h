#pragma once

#include <string>
#include <vector>

#include "tracking_runtime/tracker/atom/gpu/cuda_filter_trainer.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_handles.h"
#include "tracking_runtime/tracker/atom/gpu/stream_order.h"

/// The inside of the filter trainer, shared by its sources.

namespace ostrel_tracker::tracking_runtime::tracker::atom {

struct CudaFilterTrainer::Impl {
  DeviceBuffer<float> features;           // N, C, H, W of a job from host memory
  DeviceBuffer<float> labels;             // N, H, W
  DeviceBuffer<float> sample_weights;     // N
  DeviceBuffer<float> filter;             // C, fh, fw; the result in the end
  DeviceBuffer<float> response;           // N, H, W: classifier output, also J p
  DeviceBuffer<float> activation_grad;    // N, H, W: phi' where the model is linearised
  DeviceBuffer<float> weighted_response;  // N, H, W: weighted residual, later weighted J p
  DeviceBuffer<float> x;                  // the vectors of the conjugate gradient, as long as the filter
  DeviceBuffer<float> r;
  DeviceBuffer<float> r_prev;
  DeviceBuffer<float> p;
  DeviceBuffer<float> q;
  DeviceBuffer<double> scalar;       // rho; rho2 or pq; previous rho
  PinnedBuffer<float> filter_host;   // staging of the result
  PinnedBuffer<double> scalar_host;  // room to read the scalars, which the loop never does
  CudaStream stream;
  bool low_priority = true;  // how `stream` was made
  int samples = 0;
  int channels = 0;
  int height = 0;
  int width = 0;
  int filter_height = 0;
  int filter_width = 0;

  ~Impl() {
    release_in_order(features, labels, sample_weights, filter, response, activation_grad, weighted_response,
                     x, r, r_prev, p, q, scalar, filter_host, scalar_host, stream);
  }
};

/// Lets the trainer's stream wait for what `ready_stream` holds so far; the host does not wait. Nothing to do
/// without a trainer, a stream or a ready stream, or when both streams are the same.
template <typename TrainerImpl>
bool wait_for_ready_stream(TrainerImpl* impl, cudaStream_t ready_stream, std::string* error) {
  if (impl == nullptr || !impl->stream || ready_stream == nullptr || impl->stream.get() == ready_stream)
    return true;
  CudaEvent ready;
  return wait_for_stream(impl->stream.get(), ready_stream, "filter trainer ready", &ready, error);
}

/// The job itself, on features that the trainer's stream may read: linearises, solves, adds the step to the
/// filter and waits for the result. Needs an earlier `ensure_capacity` for these sizes.
template <typename TrainerImpl>
bool optimize_filter_on_device_features(TrainerImpl* impl, const float* features_device,
                                        const std::vector<float>& labels,
                                        const std::vector<float>& sample_weights, int samples, int channels,
                                        int height, int width, const std::vector<float>& filter,
                                        int filter_height, int filter_width, float regularization,
                                        int iterations, std::vector<float>* out_filter, std::string* error);

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
