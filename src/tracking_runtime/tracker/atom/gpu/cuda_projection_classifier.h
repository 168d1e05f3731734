#pragma once

#include <cuda_runtime.h>

#include <memory>
#include <string>
#include <vector>

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// Turns the raw feature maps that an engine left on the device into response maps: a 1 x 1 projection of the
/// channels, then a correlation with the target filter. One instance belongs to one worker and is driven by
/// that worker's thread alone; it has no lock.
///
/// Order of calls: `ensure_capacity`, `upload_weights` whenever weights or sizes changed,
/// `project_and_classify` per batch, then the downloads on the same stream. Every call returns false on
/// failure, with a text in a non-null `error`: the words given here, or a label, ": " and the CUDA text.
/// Nothing throws; buffers stay valid or empty.
class CudaProjectionClassifier {
 public:
  CudaProjectionClassifier();
  ~CudaProjectionClassifier();
  /// A moved-from classifier refuses every call.
  CudaProjectionClassifier(CudaProjectionClassifier&&) noexcept;
  CudaProjectionClassifier& operator=(CudaProjectionClassifier&&) noexcept;

  /// Grows the buffers to the given sizes and keeps those sizes; capacity never shrinks. A buffer that grew
  /// has lost its contents, so weights must be uploaded again after a change of any size. Each size must be
  /// at least 1: "invalid CUDA projection/classifier dimensions". A failure leaves the old sizes in place.
  bool ensure_capacity(int max_batch, int in_channels, int out_channels, int height, int width,
                       int filter_height, int filter_width, std::string* error);

  /// Copies the weights with blocking copies and returns when they are on the device, for work on any stream. The
  /// copies wait for nothing: no classification of this instance may be running.
  /// `projection`: host, out_channels rows of in_channels values, read only
  /// with `use_projection`; `filter`: host, out_channels x filter_height x filter_width.
  bool upload_weights(const std::vector<float>& projection, bool use_projection, int in_channels,
                      int out_channels, const std::vector<float>& filter, int filter_height, int filter_width,
                      std::string* error);

  /// Enqueues projection and correlation of `batch` samples and returns without waiting. `features`: device,
  /// batch x in_channels x height x width; without a projection they pass through as they are, and
  /// in_channels must equal out_channels.
  bool project_and_classify(const float* features, int batch, cudaStream_t stream, std::string* error);

  /// Copies the responses of the last batch, batch x height x width, to `out` and waits for `stream`. The
  /// events, where given, are recorded before and after the copy.
  bool download_responses(int batch, std::vector<float>* out, cudaStream_t stream, std::string* error,
                          cudaEvent_t start_event = nullptr, cudaEvent_t stop_event = nullptr) const;

  /// The same for the projected features of one sample, out_channels x height x width, without a pinned
  /// stage.
  bool download_projected_sample(int index, std::vector<float>* out, cudaStream_t stream, std::string* error,
                                 cudaEvent_t start_event = nullptr, cudaEvent_t stop_event = nullptr) const;

  int output_channels() const;
  int height() const;
  int width() const;
  /// Batch of the last successful `project_and_classify`.
  int last_batch() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
