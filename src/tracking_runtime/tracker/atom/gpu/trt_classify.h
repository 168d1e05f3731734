#pragma once

#include <cuda_runtime.h>

#include <memory>
#include <mutex>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "tracking_runtime/tracker/atom/classifier_state.h"
#include "tracking_runtime/tracker/atom/feature_map.h"
#include "tracking_runtime/tracker/atom/gpu/trt_backbone.h"
#include "tracking_runtime/tracker/atom/gpu/trt_forward.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// A batch of network inputs that lies on the device already: count x 3 x height x width floats, planes red,
/// green, blue, values 0 to 255. `ready_event`, where not null, completes when the data is written. The memory
/// must live until the classification has returned.
struct TrtInputBatch {
  float* data = nullptr;
  int count = 0;
  int channels = 0;
  int height = 0;
  int width = 0;
  int dtype = 0;   ///< 0 is float32
  int layout = 0;  ///< 0 is samples, channels, rows, columns
  cudaEvent_t ready_event = nullptr;
};

/// The learned weights where they live, with the lock that guards them.
struct GuardedClassifier {
  std::mutex& state_mutex;
  const ClassifierState& weights;
  bool use_projection_matrix;
};

/// Memory that the tracking thread reuses from frame to frame.
struct ClassifyScratch {
  ClassifierState snapshot;
  std::vector<float> response_values;
};

/// Where results go, in input order: `responses[i]` a `CV_32F` map as large as the feature map; `features[i]`,
/// where wanted, the projected sample. Both are emptied at the start. A failure may leave some of them filled.
struct ClassifyOutputs {
  std::vector<cv::Mat>* responses;
  std::vector<FeatureMap>* features = nullptr;  ///< may be null
  GpuTrackTimings* timings = nullptr;           ///< may be null; zeroed at the start
};

/// Responses to a batch on the device, by the primary worker in one launch. The network reads the batch in
/// place, after its ready event, and its input stays bound there. Waits for the stream once for the responses
/// and once for each projected sample; uploads weights only when a version or a shape changed.
///
/// Fails with "null GPU response output", "TensorRT backbone is not ready for TensorBatch classify path",
/// "invalid TensorBatch shape or dtype for TensorRT classify path", "TensorBatch exceeds TensorRT batch
/// capacity", "classifier filter state is not ready for TensorBatch classify path", "failed to set TensorRT
/// TensorBatch input shape", "TensorRT resolved TensorBatch input shape does not match request", "failed to bind
/// external TensorBatch input tensor", "failed to wait for TensorBatch ready event", "TensorRT resolved
/// TensorBatch output shape does not match request", "projection matrix input channels do not match TensorRT
/// TensorBatch features", "classifier filter shape does not match TensorBatch classify path", "TensorRT enqueue
/// failed for TensorBatch classify path", or the words of the classifier and the events. After a failure
/// nothing of the batch is read any more.
bool classify_tensor_batch(TrtBackbone* primary, const TrtInputBatch& batch,
                           const GuardedClassifier& classifier, ClassifyScratch* scratch,
                           const ClassifyOutputs& outputs, std::string* error);

/// Responses to host patches, one patch per worker at a time: the workers of a group run side by side, and each
/// timing takes the slowest worker of a group, summed over the groups. Runs at the batch at which each context
/// stands and reads its first sample. The primary's input is bound to its own memory again first.
///
/// Fails with "null GPU response output", "TensorRT backbone is not ready for GPU classify path", "classifier
/// filter state is not ready for GPU classify path", "no ready TensorRT workers for GPU classify path", "failed
/// to bind TensorRT worker input tensor", "projection matrix input channels do not match TensorRT feature
/// channels", "classifier filter shape does not match GPU classify path", "invalid TensorRT worker", "TensorRT
/// enqueue failed for GPU classify path", or the words of the upload, the classifier and the events.
bool classify_patches(const std::unique_ptr<TrtBackbone>& primary,
                      const std::vector<std::unique_ptr<TrtBackbone>>& further, PatchRange patches,
                      const GuardedClassifier& classifier, ClassifyScratch* scratch,
                      const ClassifyOutputs& outputs, std::string* error);

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
