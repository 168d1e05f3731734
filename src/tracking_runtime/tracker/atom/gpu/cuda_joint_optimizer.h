#pragma once

#include <cuda_runtime.h>

#include <memory>
#include <string>
#include <vector>

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// A run of raw samples to preload, from exactly one source: in_channels x height x width floats per sample.
struct RawFeatureSpan {
  const float* host_features = nullptr;
  const float* device_features = nullptr;
  int first_sample = 0;                 // where the run goes among the optimiser's samples
  int sample_count = 0;                 // samples in the run
  cudaStream_t ready_stream = nullptr;  // the stream that produces a device source; null when it is ready
};

/// Projected features in the optimiser's own memory, samples x channels x height x width, valid in the order
/// of `stream` until the optimiser's next call: a reader on another stream must order itself after it.
struct ProjectedFeatureView {
  float* data = nullptr;
  int samples = 0;
  int channels = 0;
  int height = 0;
  int width = 0;
  cudaStream_t stream = nullptr;
};

/// Fits the projection matrix and the correlation filter together on the first samples of a track:
///   E(f, P) = 1/2 * w * sum (phi(s) - y)^2 + 1/2 * lambda_f * |f|^2 + 1/2 * lambda_p * |P|^2
/// with s the correlation of the projected samples with f, by Gauss-Newton steps whose linear systems a fixed
/// number of conjugate gradient iterations on the joint vector (f, P) solve (ATOM, Danelljan et al. 2019,
/// section 3.3). Each step is taken in full: no line search, no test of convergence. The host enqueues a whole
/// fit on one private stream, reads no scalar back and waits once, for the result.
///
/// Layouts: raw features samples x in_channels x height x width; labels samples x height x width; filter
/// out_channels x filter_height x filter_width; projection out_channels x in_channels. Sizes come from the
/// last `ensure_capacity`; the counts of elements must fit 31 bits.
///
/// One thread uses an optimiser at a time, under the caller's lock. Buffers grow and are kept. Every call
/// returns false on failure, with a text in a non-null `error`; work that a failed call queued stays on the
/// stream, and the next call enters behind it.
class CudaJointOptimizer {
 public:
  /// The buffers, the stream and the cuBLAS handle, for the optimiser's own sources.
  struct Impl;

  CudaJointOptimizer();
  ~CudaJointOptimizer();
  /// A moved-from optimiser refuses every call.
  CudaJointOptimizer(CudaJointOptimizer&&) noexcept;
  CudaJointOptimizer& operator=(CudaJointOptimizer&&) noexcept;

  /// Sets the sizes and grows the buffers; makes the non-blocking stream and the cuBLAS handle at the first
  /// call. A buffer that grows loses its contents, so that samples are preloaded after this call. A view,
  /// a download or the normal operator after it needs a new fit when the sizes have changed: without one it
  /// is refused where the buffers cannot hold the last fit's samples, and means nothing where they can.
  bool ensure_capacity(int samples, int in_channels, int out_channels, int height, int width,
                       int filter_height, int filter_width, std::string* error);

  /// Copies raw samples to their places. Does not wait: host sources may be reused on return, device sources
  /// must live until the stream has read them (`hold_back_producer`). Spans before a refused one stay copied.
  bool preload_raw_feature_spans(const std::vector<RawFeatureSpan>& spans, std::string* error);

  /// Lets `producer` wait, on the device, until everything preloaded so far has been read, so that what it runs
  /// next may overwrite the sources. The host does not wait. Null and the optimiser's own stream need no order.
  bool hold_back_producer(cudaStream_t producer, std::string* error);

  /// Writes `count` copies of one sample from `first_target_sample` on, channel c of copy i times
  /// scales[i * in_channels + c]. The source must lie outside the targets, which nothing checks. Does not wait.
  bool materialize_scaled_sample_copies(int source_sample, int first_target_sample, int count,
                                        const std::vector<float>& scales, std::string* error);

  /// Preloads `features` as samples 0 and on, then fits as `optimize_preloaded_raw_features`.
  bool optimize(const std::vector<float>& features, const std::vector<float>& labels, int samples,
                const std::vector<float>& filter, const std::vector<float>& projection,
                float filter_regularization, float projection_regularization, float sample_weight,
                int gauss_newton_iterations, int conjugate_gradient_iterations,
                std::vector<float>* out_filter, std::vector<float>* out_projection, std::string* error);

  /// Fits on the first `samples` preloaded samples, from `filter` and `projection` on, with one weight for all
  /// samples. Counts of iterations below 1 count as 1. Blocks until the result is on the host, then writes two
  /// lines of stage timings to standard error. After a failure the outputs may be resized and unfilled, and
  /// what an earlier fit made ready stays ready.
  bool optimize_preloaded_raw_features(const std::vector<float>& labels, int samples,
                                       const std::vector<float>& filter, const std::vector<float>& projection,
                                       float filter_regularization, float projection_regularization,
                                       float sample_weight, int gauss_newton_iterations,
                                       int conjugate_gradient_iterations, std::vector<float>* out_filter,
                                       std::vector<float>* out_projection, std::string* error);

  /// Projects the samples of the last fit with its resulting matrix, and shows where. Does not wait. Refused
  /// before the first successful fit or right-hand side.
  bool get_projected_feature_device_view(ProjectedFeatureView* view, std::string* error);

  /// The same, into `out`, which is resized. Blocks.
  bool download_projected_features(std::vector<float>* out, std::string* error);

  /// The system's right-hand side, minus the gradient of E at (filter, projection), filter part first, for a
  /// solver on the host. Leaves the fitted projection alone. Blocks.
  bool compute_rhs(const std::vector<float>& features, const std::vector<float>& labels, int samples,
                   const std::vector<float>& filter, const std::vector<float>& projection,
                   float filter_regularization, float projection_regularization, float sample_weight,
                   std::vector<float>* out_rhs, std::string* error);

  /// The system's matrix times a direction, (J^T W J + diag(lambda_f, lambda_p)) (direction_filter,
  /// direction_projection), filter part first, linearised where the last fit or right-hand side stands, with
  /// its samples and its weight. Blocks.
  bool apply_normal_operator(const std::vector<float>& direction_filter,
                             const std::vector<float>& direction_projection, float filter_regularization,
                             float projection_regularization, std::vector<float>* out, std::string* error);

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
