#pragma once

#include <memory>
#include <string>

#include "tracking_runtime/tracker/atom/gpu/trt_classify.h"

/// What the two classify paths share.
namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// How a snapshot of the weights meets the feature tensor.
struct ClassifyPlan {
  const ClassifierState& weights;
  bool use_projection = false;
  int in_channels = 0;   ///< of the feature tensor
  int out_channels = 0;  ///< of the classifier: the projection's, or in_channels without one
  int height = 0;
  int width = 0;
};

/// The words that differ between the paths.
struct ClassifyTexts {
  const char* filter_not_ready;
  const char* projection_mismatch;
  const char* filter_mismatch;
};

/// Checks and empties the outputs: "null GPU response output".
bool begin_classification(const ClassifyOutputs& outputs, std::string* error);

/// Copies the weights under their lock, so that training may replace them from here on, and checks the filter.
bool take_snapshot(const GuardedClassifier& classifier, const ClassifyTexts& texts, ClassifyScratch* scratch,
                   std::string* error);

/// Decides about the projection and checks the filter against what the classifier will see.
bool settle_channels(bool use_projection_matrix, const ClassifyTexts& texts, ClassifyPlan* plan,
                     std::string* error);

/// Makes the worker's classifier large enough and uploads the weights when a version or a shape differs from
/// what it holds; the time of the upload is added to `timings`, where given.
bool refresh_weights(TrtBackbone* worker, const ClassifyPlan& plan, int batch_capacity,
                     GpuTrackTimings* timings, std::string* error);

/// Enqueues projection and correlation of the worker's first `count` feature samples on its stream.
bool project_and_classify(TrtBackbone* worker, int count, std::string* error);

/// Downloads the responses of a worker's first `count` samples to `responses`.
bool collect_responses(const TrtBackbone& worker, const ClassifyPlan& plan, int count,
                       ClassifyScratch* scratch, cv::Mat* responses, std::string* error);

/// Downloads one projected sample of a worker.
bool collect_projected_sample(const TrtBackbone& worker, int index, FeatureMap* feature, std::string* error);

/// Waits until nothing that a failed classification has queued reads the caller's memory or the classifier's.
/// Always false, for the end of a failed path.
bool drain_after_failure(const TrtBackbone& worker);

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
