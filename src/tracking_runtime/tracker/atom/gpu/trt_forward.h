#pragma once

#include <cstddef>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "tracking_runtime/tracker/atom/feature_map.h"
#include "tracking_runtime/tracker/atom/gpu/trt_backbone.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// Patches in a row, borrowed: `CV_8UC3`, blue, green, red, each as large as the network input.
struct PatchRange {
  PatchRange(const cv::Mat* first_patch, std::size_t patch_count) : first(first_patch), count(patch_count) {}
  PatchRange(const std::vector<cv::Mat>& patches)  // NOLINT: a list of patches is a range of them
      : PatchRange(patches.data(), patches.size()) {}

  const cv::Mat* first;
  std::size_t count;
};

/// Enqueues the network on the worker's stream, with the shapes and addresses of the moment, and returns without
/// waiting. False where TensorRT refuses.
bool enqueue_network(TrtBackbone* worker);

/// Enqueues upload and conversion of the patches to `input_device` on the worker's stream and returns without
/// waiting. The patches are ordinary memory, read before the return. Fails with "TensorRT worker is not ready
/// for input upload" (also for no patches), "TensorRT input upload exceeds worker batch capacity", "TensorRT
/// uint8 input buffer is not allocated or too small", "TensorRT input patch has invalid size or type", "failed
/// to copy TensorRT uint8 input to device", "failed to copy TensorRT uint8 input rows to device", or the words
/// of the events and the conversion.
bool upload_trt_input_patches(TrtBackbone* worker, PatchRange patches, std::string* error);

/// Runs the network on up to `max_batch` patches and waits for the features, out1 where the engine has it, else
/// out0. Leaves the context at that batch with `input_device` bound. A failure gives a map without sizes and a
/// text; the worker stays usable.
FeatureMap run_trt_forward_batched(TrtBackbone* worker, PatchRange patches, std::string* error);

/// The same for one patch; an empty one: "TensorRT input patch is empty".
FeatureMap run_trt_forward(TrtBackbone* worker, const cv::Mat& patch, std::string* error);

/// The first half of a forward of one patch at batch 1: shape, binding, upload, enqueue; returns without
/// waiting. Fails with "invalid TensorRT worker", "failed to set TensorRT worker input shape", "TensorRT worker
/// resolved input shape mismatch", "failed to bind TensorRT worker input tensor", "TensorRT worker enqueue
/// failed", or the words of the upload.
bool launch_trt_worker_forward(TrtBackbone* worker, const cv::Mat& patch, std::string* error);

/// The second half: copies the features of the one sample to `out` and waits for the stream. Fails with
/// "missing output buffer", "output shape mismatch", "d2h copy failed" or "stream sync failed".
bool collect_trt_worker_forward(TrtBackbone* worker, FeatureMap* out, std::string* error);

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
