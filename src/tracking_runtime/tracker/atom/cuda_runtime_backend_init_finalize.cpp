// The end of a start: memory, first filter, its fall-back to the template alone, and the report.

#include <cstdio>

#include "tracking_runtime/tracker/atom/cuda_runtime_backend.h"
#include "tracking_runtime/tracker/atom/frame_rect.h"
#include "tracking_runtime/tracker/atom/gpu/profiler_range.h"
#include "tracking_runtime/tracker/atom/init_pipeline.h"
#include "tracking_runtime/tracker/atom/refuse.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

void print_stage_times(const InitTimings& t) {
  const double aug_cpu = t.shift + t.flip + t.blur + t.rotate + t.dropout_prep;
  std::fprintf(stderr,
               "[CudaRuntimeBackend] init timing cpu: total=%.1fms wait_prev_train=%.1f runtime=%.1f "
               "template_patch=%.1f template_host=%.1f template_device=%.1f projection_init=%.1f "
               "filter_init=%.1f aug_cpu=%.1f shift=%.1f flip=%.1f blur=%.1f rotate=%.1f dropout_prep=%.1f "
               "path=%s\n",
               t.total, t.wait_prev_train, t.runtime, t.template_patch, t.template_host, t.template_device,
               t.projection_init, t.filter_init, aug_cpu, t.shift, t.flip, t.blur, t.rotate, t.dropout_prep,
               t.path.c_str());
}

void print_path_times(const InitTimings& t) {
  std::fprintf(stderr,
               "[CudaRuntimeBackend] init timing path: direct_labels=%.1f direct_trt=%.1f "
               "direct_preload=%.1f direct_dropout=%.1f joint_opt=%.1f direct_filter_train=%.1f "
               "projected_download=%.1f host_aug_feat=%.1f host_dropout=%.1f host_labels=%.1f "
               "host_project=%.1f memory_init=%.1f memory_train=%.1f template_only=%.1f\n",
               t.direct_labels, t.direct_trt, t.direct_preload, t.direct_dropout, t.joint_opt,
               t.direct_filter_train, t.projected_download, t.host_aug_feat, t.host_dropout, t.host_labels,
               t.host_project, t.memory_init, t.memory_train, t.template_only);
}

}  // namespace

bool CudaRuntimeBackend::finalize_init_training_(const std::vector<FeatureMap>& features,
                                                 const std::vector<LabelMap>& labels, int iterations,
                                                 bool skip_filter_training, InitTimings* timings,
                                                 std::string* error) {
  if (timings == nullptr) return refuse("missing init timings state", error);
  StageClock clock;
  const bool filled = batch_init_memory_(features, labels);
  timings->memory_init += clock.lap_ms();
  if (!filled) return refuse("failed to initialize non-Torch training memory", error);
  if (!skip_filter_training) {
    const ProfilerRange range(range_names::kFirstTraining);
    const bool trained = train_filter_from_memory_(iterations, config.sample_memory_size, nullptr, nullptr);
    timings->memory_train += clock.lap_ms();
    if (!trained) return refuse("failed to optimize initial classifier", error);
  }
  if (error != nullptr) error->clear();
  return true;
}

void CudaRuntimeBackend::log_init_ready_(const cv::Rect_<int>& box, const cv::Size_<int>& frame_size,
                                         const InitTimings& timings) {
  std::fprintf(stderr, "[CudaRuntimeBackend] init ready: samples=%d feature=[1,%d,%d,%d] label=[1,%d,%d]\n",
               memory.num_stored_samples, memory.memory_channels, memory.memory_height, memory.memory_width,
               memory.memory_label_height, memory.memory_label_width);
  print_stage_times(timings);
  print_path_times(timings);
  if (trace_writer == nullptr) return;
  trace_writer->log("init_ok", frame_index, name(), "ok_memory_ready", clamp_rect(box, frame_size), 1.0F,
                    1.0F, 0.0F, 1.0F, target_scale);
}

bool InitPipeline::train_first_filter() {
  std::string finalize_text;
  if (backend.finalize_init_training_(features, labels, startup_iterations, filter_trained, &timings,
                                      &finalize_text)) {
    return true;
  }
  const StageClock clock;
  std::string text = finalize_text;
  const bool trained = train_on_template_alone(&text);
  timings.template_only += clock.elapsed_ms();
  return trained || fail(text, finalize_text, box_in_frame());
}

bool InitPipeline::train_on_template_alone(std::string* text) {
  if (!ensure_template_feature(text)) {
    if (text->empty()) *text = "failed to extract template feature";
    return false;
  }
  const FeatureMap projected = backend.project_feature_(template_feature);
  if (!projected.defined()) return refuse("failed to project template feature", text);
  const LabelMap label = backend.build_label_for_sample_(projected, backend.target_pos, backend.target_scale);
  if (!label.defined()) return refuse("failed to build template label", text);

  StageClock clock;
  const bool filled = backend.batch_init_memory_({projected}, {label});
  timings.memory_init += clock.lap_ms();
  if (!filled) return refuse("failed to initialize template-only training memory", text);
  const ProfilerRange range(range_names::kFirstTraining);
  const bool trained = backend.train_filter_from_memory_(startup_iterations,
                                                         backend.config.sample_memory_size, nullptr, nullptr);
  timings.memory_train += clock.lap_ms();
  if (!trained) return refuse("failed to optimize template-only classifier", text);
  timings.path = "template_only";
  return true;
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
