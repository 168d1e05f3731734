#pragma once

#include <cuda_runtime.h>

#include <memory>
#include <string>
#include <vector>

#include "tracking_runtime/tracker/atom/gpu/cuda_error.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// Features that are on the device already.
struct DeviceFeatureView {
  const float* features = nullptr;      // samples x channels x height x width
  cudaStream_t ready_stream = nullptr;  // the stream that produces them; null when they are ready
};

/// Improves the correlation filter from weighted samples by one Gauss-Newton step of
///   E(f) = 1/2 * sum_k w_k * |phi(f * x_k) - y_k|^2 + 1/2 * regularization * |f|^2
/// (ATOM, Danelljan et al. 2019, equations 3 and 6), whose linear system is solved by a fixed number of
/// conjugate gradient iterations (Polak-Ribiere, restarted at negative coefficients) on the device. The host
/// enqueues the whole job on one private stream, reads no scalar back and waits once, for the result.
///
/// Layouts: features samples x channels x height x width; labels samples x height x width; filter channels x
/// filter_height x filter_width; one weight per sample, further weights are ignored. `iterations` below 1
/// count as 1.
///
/// One job runs at a time, under the caller's lock. Buffers grow and are kept for the next job. Every call
/// returns false on failure, with a text in a non-null `error`, and changes `out_filter` on success only;
/// work that a failed job queued stays on the stream, and the next job enters behind it.
class CudaFilterTrainer {
 public:
  /// The buffers and the stream, for the trainer's own sources.
  struct Impl;

  CudaFilterTrainer();
  ~CudaFilterTrainer();
  /// A moved-from trainer refuses every call.
  CudaFilterTrainer(CudaFilterTrainer&&) noexcept;
  CudaFilterTrainer& operator=(CudaFilterTrainer&&) noexcept;

  /// Trains from host features, on a stream of the least priority, so that the frame loop's kernels go first.
  /// Blocks until the result is on the host.
  bool optimize_filter(const std::vector<float>& features, const std::vector<float>& labels,
                       const std::vector<float>& sample_weights, int samples, int channels, int height,
                       int width, const std::vector<float>& filter, int filter_height, int filter_width,
                       float regularization, int iterations, std::vector<float>* out_filter,
                       std::string* error);

  /// Trains from features on the device, on a stream of default priority that waits for the view's
  /// `ready_stream`. Blocks until the result is on the host; the features must live until then.
  bool optimize_filter_device_features(const DeviceFeatureView& view, const std::vector<float>& labels,
                                       const std::vector<float>& sample_weights, int samples, int channels,
                                       int height, int width, const std::vector<float>& filter,
                                       int filter_height, int filter_width, float regularization,
                                       int iterations, std::vector<float>* out_filter, std::string* error);

  /// Grows the buffers and makes the stream of the wanted priority; another priority than the last one
  /// destroys and remakes the stream and keeps the buffers.
  bool ensure_capacity(int samples, int channels, int height, int width, int filter_height, int filter_width,
                       bool low_priority_stream, std::string* error);

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
