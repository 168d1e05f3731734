#pragma once

#include <NvInfer.h>
#include <cuda_runtime.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tracking_runtime/tracker/atom/gpu/cuda_handles.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

class CudaProjectionClassifier;
struct TrtEngineCacheEntry;

/// Milliseconds of one classification, as the frame log shows them.
struct GpuTrackTimings {
  float upload_u8_ms = 0.0F;
  float preprocess_cuda_ms = 0.0F;
  float upload_weights_gpu_ms = 0.0F;  ///< host time of the weight uploads
  float trt_wait_ms = 0.0F;            ///< network, projection and correlation on the device
  float d2h_response_ms = 0.0F;
  float d2h_projected_ms = 0.0F;
};

/// Two events around a range of a stream; null until created.
struct CudaEventPair {
  CudaEvent start;
  CudaEvent stop;
};

/// Makes `start` and then `stop` where they are null, so that a second call changes nothing. Fails with
/// "failed to create CUDA event start for " or "... stop for " and the label.
bool create_cuda_event_pair(CudaEventPair* pair, const char* label, std::string* error);

/// Fails with "null CUDA event for " or "failed to record CUDA event for " and the label.
bool record_cuda_event(cudaEvent_t event, cudaStream_t stream, const char* label, std::string* error);

/// The last recorded range in milliseconds; 0 when an event is null, was never recorded or has not completed.
float elapsed_cuda_event_pair_ms(const CudaEventPair& pair);

/// One output of a worker: its buffers at `max_batch`, and its shape as resolved then.
struct TrtOutputTensor {
  const std::string& name;
  float* device;
  float* host;
  std::size_t bytes;
  int channels;
  int height;
  int width;
};

/// One worker: an execution context with the stream, buffers and events that it needs. Used by one thread at a
/// time; several workers run at once on one shared engine. Either absent or complete with `ready` set.
///
/// Destruction waits for the stream, so a worker may go while work is queued on it. The members stand in the
/// reverse of the order in which they go: classifier, context, pinned memory, device memory, stream, events,
/// engine.
struct TrtBackbone {
  TrtBackbone();
  ~TrtBackbone();
  TrtBackbone(const TrtBackbone&) = delete;
  TrtBackbone& operator=(const TrtBackbone&) = delete;

  std::shared_ptr<TrtEngineCacheEntry> engine_entry;

  CudaEventPair upload_u8_events;
  CudaEventPair preprocess_events;
  CudaEventPair trt_wait_events;
  CudaEventPair d2h_response_events;
  CudaEventPair d2h_projected_events;
  CudaStream stream;  ///< non-blocking, no priority

  DeviceBuffer<float> input_device;  ///< max_batch x 3 x input_height x input_width; planes red, green, blue
  DeviceBuffer<std::uint8_t>
      input_u8_device;              ///< max_batch x input_height x input_width x 3; blue, green, red
  DeviceBuffer<float> out0_device;  ///< null when the engine lacks the tensor
  DeviceBuffer<float> out1_device;
  PinnedBuffer<float> out0_host;  ///< as large as the device buffer
  PinnedBuffer<float> out1_host;

  std::unique_ptr<nvinfer1::IExecutionContext> context;
  std::unique_ptr<CudaProjectionClassifier> classifier;  ///< made by the first classification

  std::size_t input_bytes = 0;
  std::size_t input_u8_bytes = 0;
  std::size_t out0_bytes = 0;
  std::size_t out1_bytes = 0;
  std::string input_name;
  std::string out0_name;
  std::string out1_name;
  int input_height = 0;
  int input_width = 0;
  int max_batch = 1;           ///< largest batch that the buffers hold
  bool dynamic_batch = false;  ///< the engine's batch dimension is open
  bool dynamic_spatial =
      false;  ///< the engine's height or width is open, or its input is not four-dimensional
  int out0_channels = 0;
  int out0_height = 0;
  int out0_width = 0;
  int out1_channels = 0;
  int out1_height = 0;
  int out1_width = 0;
  bool ready = false;  ///< set as the last step of construction

  // The weights that `classifier` holds; versions start at 1, sizes of 0 match nothing.
  std::uint64_t uploaded_projection_version = 0;
  std::uint64_t uploaded_filter_version = 0;
  bool uploaded_has_projection = false;
  int uploaded_in_channels = 0;
  int uploaded_out_channels = 0;
  int uploaded_filter_height = 0;
  int uploaded_filter_width = 0;

  /// The output that holds the features: out1 where the engine has it, else out0.
  TrtOutputTensor feature_tensor() const;
};

/// What a worker is made from.
struct TrtWorkerSpec {
  std::shared_ptr<TrtEngineCacheEntry> entry;
  int batch = 1;
  int height = 1;
  int width = 1;
  bool dynamic_batch = false;
  bool dynamic_spatial = false;
};

/// A complete worker, or null with one of these texts: "failed to create TensorRT execution context", "failed
/// to set TensorRT input shape", "failed to allocate TensorRT input buffer", "failed to allocate TensorRT uint8
/// input buffer", "failed to allocate TensorRT output buffer out0" (or out1; also for a shape that is not
/// resolved), "failed to bind TensorRT input tensor", "failed to bind TensorRT output tensor out0" (or out1),
/// "failed to create TensorRT CUDA stream", or that of `create_cuda_event_pair`.
std::unique_ptr<TrtBackbone> make_trt_worker(const TrtWorkerSpec& spec, std::string* error);

/// True for a worker that exists and is ready; otherwise false with "invalid TensorRT worker".
bool check_trt_worker(const TrtBackbone* worker, std::string* error);

/// The primary worker, then every further worker; those that are missing or not ready are left out.
std::vector<TrtBackbone*> ready_trt_workers(const std::unique_ptr<TrtBackbone>& primary,
                                            const std::vector<std::unique_ptr<TrtBackbone>>& further);

/// The shape of `batch` network inputs of a worker.
nvinfer1::Dims trt_input_dims(const TrtBackbone& worker, int batch);

/// Whether a resolved input shape is that of `batch` network inputs; the channels are not compared.
bool is_trt_input_of_batch(const nvinfer1::Dims& resolved, const TrtBackbone& worker, int batch);

/// Whether a shape is four-dimensional with that batch.
bool is_four_dimensional_of_batch(const nvinfer1::Dims& resolved, int batch);

/// Whether a four-dimensional shape of floats has no empty side and takes at most `bytes`.
bool fits_trt_buffer(const nvinfer1::Dims& resolved, std::size_t bytes);

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
