#include <algorithm>

#include "tracking_runtime/tracker/atom/gpu/cuda_error.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_projection_classifier.h"
#include "tracking_runtime/tracker/atom/gpu/profiler_range.h"
#include "tracking_runtime/tracker/atom/gpu/trt_classify.h"
#include "tracking_runtime/tracker/atom/gpu/trt_classify_common.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

constexpr ClassifyTexts kPatchTexts{
    "classifier filter state is not ready for GPU classify path",
    "projection matrix input channels do not match TensorRT feature channels",
    "classifier filter shape does not match GPU classify path",
};

/// Patches `first` to `first + count` go to the workers in order.
struct Group {
  std::size_t first;
  std::size_t count;
};

bool check_patches(const TrtBackbone* primary, PatchRange patches, std::string* error) {
  const bool ready = primary != nullptr && primary->ready && patches.count > 0;
  return ready || refuse("TensorRT backbone is not ready for GPU classify path", error);
}

/// The classification of a tensor batch leaves the input at memory that may be gone.
bool bind_own_input(TrtBackbone* primary, std::string* error) {
  return primary->context->setTensorAddress(primary->input_name.c_str(), primary->input_device.get()) ||
         refuse("failed to bind TensorRT worker input tensor", error);
}

void take_cached_feature_size(const TrtBackbone& primary, ClassifyPlan* plan) {
  const TrtOutputTensor tensor = primary.feature_tensor();
  plan->in_channels = tensor.channels;
  plan->height = tensor.height;
  plan->width = tensor.width;
}

bool launch_patch(TrtBackbone* worker, const cv::Mat& patch, const ClassifyPlan& plan,
                  GpuTrackTimings* timings, std::string* error) {
  if (!check_trt_worker(worker, error) || !upload_trt_input_patches(worker, PatchRange(&patch, 1), error)) {
    return false;
  }
  cudaStream_t const stream = worker->stream.get();
  if (!record_cuda_event(worker->trt_wait_events.start.get(), stream, "trt_wait start", error)) return false;
  if (!enqueue_network(worker)) {
    return refuse("TensorRT enqueue failed for GPU classify path", error);
  }
  return refresh_weights(worker, plan, 1, timings, error) && project_and_classify(worker, 1, error) &&
         record_cuda_event(worker->trt_wait_events.stop.get(), stream, "trt_wait stop", error);
}

bool collect_patch(const TrtBackbone& worker, std::size_t index, const ClassifyPlan& plan,
                   ClassifyScratch* scratch, const ClassifyOutputs& outputs, std::string* error) {
  const ProfilerRange range(range_names::kCollect);
  if (!collect_responses(worker, plan, 1, scratch, &(*outputs.responses)[index], error)) return false;
  return outputs.features == nullptr ||
         collect_projected_sample(worker, 0, &(*outputs.features)[index], error);
}

void keep_slowest(const TrtBackbone& worker, GpuTrackTimings* slowest) {
  const auto keep = [](float* maximum, const CudaEventPair& pair) {
    *maximum = std::max(*maximum, elapsed_cuda_event_pair_ms(pair));
  };
  keep(&slowest->upload_u8_ms, worker.upload_u8_events);
  keep(&slowest->preprocess_cuda_ms, worker.preprocess_events);
  keep(&slowest->trt_wait_ms, worker.trt_wait_events);
  keep(&slowest->d2h_response_ms, worker.d2h_response_events);
  keep(&slowest->d2h_projected_ms, worker.d2h_projected_events);
}

void add_group(const GpuTrackTimings& slowest, GpuTrackTimings* timings) {
  timings->upload_u8_ms += slowest.upload_u8_ms;
  timings->preprocess_cuda_ms += slowest.preprocess_cuda_ms;
  timings->trt_wait_ms += slowest.trt_wait_ms;
  timings->d2h_response_ms += slowest.d2h_response_ms;
  timings->d2h_projected_ms += slowest.d2h_projected_ms;
}

/// First queues the work of every worker, then waits for each in order, so that they overlap.
bool classify_group(const std::vector<TrtBackbone*>& workers, PatchRange patches, Group group,
                    const ClassifyPlan& plan, ClassifyScratch* scratch, const ClassifyOutputs& outputs,
                    std::string* error) {
  for (std::size_t i = 0; i < group.count; ++i) {
    if (!launch_patch(workers[i], patches.first[group.first + i], plan, outputs.timings, error)) return false;
  }
  GpuTrackTimings slowest;
  for (std::size_t i = 0; i < group.count; ++i) {
    if (!collect_patch(*workers[i], group.first + i, plan, scratch, outputs, error)) return false;
    if (outputs.timings != nullptr) keep_slowest(*workers[i], &slowest);
  }
  if (outputs.timings != nullptr) add_group(slowest, outputs.timings);
  return true;
}

}  // namespace

bool classify_patches(const std::unique_ptr<TrtBackbone>& primary,
                      const std::vector<std::unique_ptr<TrtBackbone>>& further, PatchRange patches,
                      const GuardedClassifier& classifier, ClassifyScratch* scratch,
                      const ClassifyOutputs& outputs, std::string* error) {
  if (!begin_classification(outputs, error) || !check_patches(primary.get(), patches, error) ||
      !take_snapshot(classifier, kPatchTexts, scratch, error)) {
    return false;
  }
  const std::vector<TrtBackbone*> workers = ready_trt_workers(primary, further);
  if (workers.empty()) return refuse("no ready TensorRT workers for GPU classify path", error);
  ClassifyPlan plan{scratch->snapshot};
  take_cached_feature_size(*primary, &plan);
  if (!settle_channels(classifier.use_projection_matrix, kPatchTexts, &plan, error) ||
      !bind_own_input(primary.get(), error)) {
    return false;
  }
  outputs.responses->resize(patches.count);
  if (outputs.features != nullptr) outputs.features->resize(patches.count);
  for (std::size_t first = 0; first < patches.count; first += workers.size()) {
    const Group group{first, std::min(workers.size(), patches.count - first)};
    if (classify_group(workers, patches, group, plan, scratch, outputs, error)) continue;
    for (const TrtBackbone* worker : workers) drain_after_failure(*worker);
    return false;
  }
  return true;
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
