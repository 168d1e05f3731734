#include "tracking_runtime/tracker/atom/gpu/cuda_error.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_projection_classifier.h"
#include "tracking_runtime/tracker/atom/gpu/profiler_range.h"
#include "tracking_runtime/tracker/atom/gpu/trt_classify.h"
#include "tracking_runtime/tracker/atom/gpu/trt_classify_common.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

constexpr ClassifyTexts kBatchTexts{
    "classifier filter state is not ready for TensorBatch classify path",
    "projection matrix input channels do not match TensorRT TensorBatch features",
    "classifier filter shape does not match TensorBatch classify path",
};

bool check_batch(const TrtBackbone* primary, const TrtInputBatch& batch, std::string* error) {
  if (primary == nullptr || !primary->ready) {
    return refuse("TensorRT backbone is not ready for TensorBatch classify path", error);
  }
  if (batch.data == nullptr || batch.count < 1 || batch.channels != 3 ||
      batch.height != primary->input_height || batch.width != primary->input_width || batch.dtype != 0 ||
      batch.layout != 0) {
    return refuse("invalid TensorBatch shape or dtype for TensorRT classify path", error);
  }
  return batch.count <= primary->max_batch || refuse("TensorBatch exceeds TensorRT batch capacity", error);
}

bool bind_batch(TrtBackbone* primary, const TrtInputBatch& batch, std::string* error) {
  const char* const name = primary->input_name.c_str();
  if (!primary->context->setInputShape(name, trt_input_dims(*primary, batch.count))) {
    return refuse("failed to set TensorRT TensorBatch input shape", error);
  }
  if (!is_trt_input_of_batch(primary->context->getTensorShape(name), *primary, batch.count)) {
    return refuse("TensorRT resolved TensorBatch input shape does not match request", error);
  }
  return primary->context->setTensorAddress(name, batch.data) ||
         refuse("failed to bind external TensorBatch input tensor", error);
}

bool wait_for_batch(const TrtBackbone& primary, const TrtInputBatch& batch, std::string* error) {
  if (batch.ready_event == nullptr) return true;
  return require_cuda(cudaStreamWaitEvent(primary.stream.get(), batch.ready_event, 0),
                      "failed to wait for TensorBatch ready event", error);
}

/// The channels are those of the engine as built; rows and columns are what this batch resolves to.
bool settle_feature_size(const TrtBackbone& primary, int count, ClassifyPlan* plan, std::string* error) {
  const TrtOutputTensor tensor = primary.feature_tensor();
  const nvinfer1::Dims shape = primary.context->getTensorShape(tensor.name.c_str());
  if (!is_four_dimensional_of_batch(shape, count) || !fits_trt_buffer(shape, tensor.bytes)) {
    return refuse("TensorRT resolved TensorBatch output shape does not match request", error);
  }
  plan->in_channels = tensor.channels;
  plan->height = static_cast<int>(shape.d[2]);
  plan->width = static_cast<int>(shape.d[3]);
  return true;
}

bool enqueue_network_and_classifier(TrtBackbone* primary, int count, std::string* error) {
  cudaStream_t const stream = primary->stream.get();
  if (!record_cuda_event(primary->trt_wait_events.start.get(), stream, "trt_wait start", error)) return false;
  if (!enqueue_network(primary)) {
    return refuse("TensorRT enqueue failed for TensorBatch classify path", error);
  }
  return project_and_classify(primary, count, error) &&
         record_cuda_event(primary->trt_wait_events.stop.get(), stream, "trt_wait stop", error);
}

bool collect_batch(const TrtBackbone& primary, const ClassifyPlan& plan, int count, ClassifyScratch* scratch,
                   const ClassifyOutputs& outputs, std::string* error) {
  const ProfilerRange range(range_names::kCollect);
  outputs.responses->resize(static_cast<std::size_t>(count));
  if (!collect_responses(primary, plan, count, scratch, outputs.responses->data(), error)) return false;
  if (outputs.features == nullptr) return true;
  outputs.features->resize(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) {
    FeatureMap* const feature = &(*outputs.features)[static_cast<std::size_t>(i)];
    if (!collect_projected_sample(primary, i, feature, error)) return false;
  }
  return true;
}

void read_timings(const TrtBackbone& primary, GpuTrackTimings* timings) {
  if (timings == nullptr) return;
  timings->trt_wait_ms = elapsed_cuda_event_pair_ms(primary.trt_wait_events);
  timings->d2h_response_ms = elapsed_cuda_event_pair_ms(primary.d2h_response_events);
  timings->d2h_projected_ms = elapsed_cuda_event_pair_ms(primary.d2h_projected_events);
}

}  // namespace

bool classify_tensor_batch(TrtBackbone* primary, const TrtInputBatch& batch,
                           const GuardedClassifier& classifier, ClassifyScratch* scratch,
                           const ClassifyOutputs& outputs, std::string* error) {
  if (!begin_classification(outputs, error) || !check_batch(primary, batch, error) ||
      !take_snapshot(classifier, kBatchTexts, scratch, error) || !bind_batch(primary, batch, error) ||
      !wait_for_batch(*primary, batch, error)) {
    return false;
  }
  ClassifyPlan plan{scratch->snapshot};
  if (!settle_feature_size(*primary, batch.count, &plan, error) ||
      !settle_channels(classifier.use_projection_matrix, kBatchTexts, &plan, error) ||
      !refresh_weights(primary, plan, primary->max_batch, outputs.timings, error)) {
    return false;
  }
  if (!enqueue_network_and_classifier(primary, batch.count, error) ||
      !collect_batch(*primary, plan, batch.count, scratch, outputs, error)) {
    return drain_after_failure(*primary);
  }
  read_timings(*primary, outputs.timings);
  return true;
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
