#include "tracking_runtime/tracker/atom/gpu/trt_classify_common.h"

#include <chrono>
#include <cstring>
#include <utility>

#include "tracking_runtime/tracker/atom/gpu/cuda_error.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_projection_classifier.h"
#include "tracking_runtime/tracker/atom/gpu/profiler_range.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

using SteadyClock = std::chrono::steady_clock;

float milliseconds_since(SteadyClock::time_point start) {
  const auto elapsed = std::chrono::duration_cast<std::chrono::nanoseconds>(SteadyClock::now() - start);
  return static_cast<float>(static_cast<double>(elapsed.count()) / 1000000.0);
}

bool holds_weights_of(const TrtBackbone& worker, const ClassifyPlan& plan) {
  const ClassifierState& weights = plan.weights;
  return worker.uploaded_filter_version == weights.filter_version &&
         worker.uploaded_has_projection == plan.use_projection &&
         (!plan.use_projection || worker.uploaded_projection_version == weights.projection_version) &&
         worker.uploaded_in_channels == plan.in_channels &&
         worker.uploaded_out_channels == plan.out_channels &&
         worker.uploaded_filter_height == weights.filter_height &&
         worker.uploaded_filter_width == weights.filter_width;
}

void remember_weights(TrtBackbone* worker, const ClassifyPlan& plan) {
  worker->uploaded_filter_version = plan.weights.filter_version;
  worker->uploaded_projection_version = plan.weights.projection_version;
  worker->uploaded_has_projection = plan.use_projection;
  worker->uploaded_in_channels = plan.in_channels;
  worker->uploaded_out_channels = plan.out_channels;
  worker->uploaded_filter_height = plan.weights.filter_height;
  worker->uploaded_filter_width = plan.weights.filter_width;
}

/// A failure in the middle may have lost a buffer that the old versions stand for.
bool forget_weights(TrtBackbone* worker) {
  worker->uploaded_filter_height = 0;
  return false;
}

bool upload_weights(TrtBackbone* worker, const ClassifyPlan& plan, GpuTrackTimings* timings,
                    std::string* error) {
  const ProfilerRange range(range_names::kUploadWeights);
  const ClassifierState& weights = plan.weights;
  const SteadyClock::time_point start = SteadyClock::now();
  const bool uploaded = worker->classifier->upload_weights(
      weights.projection_matrix, plan.use_projection, plan.in_channels, plan.out_channels,
      weights.filter_weights, weights.filter_height, weights.filter_width, error);
  if (timings != nullptr) timings->upload_weights_gpu_ms += milliseconds_since(start);
  return uploaded;
}

}  // namespace

bool begin_classification(const ClassifyOutputs& outputs, std::string* error) {
  if (outputs.responses == nullptr) return refuse("null GPU response output", error);
  outputs.responses->clear();
  if (outputs.features != nullptr) outputs.features->clear();
  if (outputs.timings != nullptr) *outputs.timings = {};
  return true;
}

bool take_snapshot(const GuardedClassifier& classifier, const ClassifyTexts& texts, ClassifyScratch* scratch,
                   std::string* error) {
  {
    const std::lock_guard<std::mutex> lock(classifier.state_mutex);
    scratch->snapshot = classifier.weights;
  }
  const ClassifierState& weights = scratch->snapshot;
  const bool ready = !weights.filter_weights.empty() && weights.filter_channels >= 1 &&
                     weights.filter_height >= 1 && weights.filter_width >= 1;
  return ready || refuse(texts.filter_not_ready, error);
}

bool settle_channels(bool use_projection_matrix, const ClassifyTexts& texts, ClassifyPlan* plan,
                     std::string* error) {
  const ClassifierState& weights = plan->weights;
  plan->use_projection =
      use_projection_matrix && !weights.projection_matrix.empty() && weights.proj_out_channels > 0;
  if (plan->use_projection && weights.proj_in_channels != plan->in_channels) {
    return refuse(texts.projection_mismatch, error);
  }
  plan->out_channels = plan->use_projection ? weights.proj_out_channels : plan->in_channels;
  const std::size_t values = element_count({weights.filter_height, weights.filter_width, plan->out_channels});
  const bool matches =
      plan->out_channels == weights.filter_channels && values == weights.filter_weights.size();
  return matches || refuse(texts.filter_mismatch, error);
}

bool refresh_weights(TrtBackbone* worker, const ClassifyPlan& plan, int batch_capacity,
                     GpuTrackTimings* timings, std::string* error) {
  if (!worker->classifier) worker->classifier = std::make_unique<CudaProjectionClassifier>();
  if (!worker->classifier->ensure_capacity(batch_capacity, plan.in_channels, plan.out_channels, plan.height,
                                           plan.width, plan.weights.filter_height, plan.weights.filter_width,
                                           error)) {
    return forget_weights(worker);
  }
  if (holds_weights_of(*worker, plan)) return true;
  if (!upload_weights(worker, plan, timings, error)) return forget_weights(worker);
  remember_weights(worker, plan);
  return true;
}

bool project_and_classify(TrtBackbone* worker, int count, std::string* error) {
  const ProfilerRange range(range_names::kClassify);
  return worker->classifier->project_and_classify(worker->feature_tensor().device, count,
                                                  worker->stream.get(), error);
}

bool collect_responses(const TrtBackbone& worker, const ClassifyPlan& plan, int count,
                       ClassifyScratch* scratch, cv::Mat* responses, std::string* error) {
  std::vector<float>& values = scratch->response_values;
  if (!worker.classifier->download_responses(count, &values, worker.stream.get(), error,
                                             worker.d2h_response_events.start.get(),
                                             worker.d2h_response_events.stop.get())) {
    return false;
  }
  const std::size_t plane = element_count({plan.height, plan.width});
  for (int i = 0; i < count; ++i) {
    responses[i].create(plan.height, plan.width, CV_32F);
    std::memcpy(responses[i].data, values.data() + static_cast<std::size_t>(i) * plane,
                plane * sizeof(float));
  }
  return true;
}

bool collect_projected_sample(const TrtBackbone& worker, int index, FeatureMap* feature, std::string* error) {
  const CudaProjectionClassifier& classifier = *worker.classifier;
  if (!classifier.download_projected_sample(index, &feature->data, worker.stream.get(), error,
                                            worker.d2h_projected_events.start.get(),
                                            worker.d2h_projected_events.stop.get())) {
    return false;
  }
  feature->samples = 1;
  feature->channels = classifier.output_channels();
  feature->height = classifier.height();
  feature->width = classifier.width();
  return true;
}

bool drain_after_failure(const TrtBackbone& worker) {
  static_cast<void>(require_cuda(cudaStreamSynchronize(worker.stream.get()), "", nullptr));
  return false;
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
