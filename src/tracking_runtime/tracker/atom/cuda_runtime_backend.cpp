// The backend's life, and the operations that change a running tracker from outside.

#include "tracking_runtime/tracker/atom/cuda_runtime_backend.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <optional>
#include <utility>

#include "tracking_runtime/tracker/atom/config_update.h"
#include "tracking_runtime/tracker/atom/external_correction.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_filter_trainer.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_joint_optimizer.h"
#include "tracking_runtime/tracker/atom/refuse.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

CudaRuntimeBackend::CudaRuntimeBackend(NativeCppBackend::Config initial_config)
    : TargetState(std::move(initial_config)),
      trace_writer(std::make_unique<ReferenceTraceWriter>(config.reference_trace_path)) {}

CudaRuntimeBackend::~CudaRuntimeBackend() {
  if (!training_future.valid()) return;
  std::fprintf(stderr, "[CudaRuntimeBackend][train] shutdown wait active_job=%d\n",
               active_training_job.load());
  training_future.wait();
}

std::string CudaRuntimeBackend::not_implemented_error_(const char* stage) const {
  std::string text =
      "runtime_backend='" + config.runtime_backend + "' selected, but this ATOM stage is not implemented";
  if (stage != nullptr && *stage != '\0') text += std::string(" at stage '") + stage + "'";
  return text;
}

bool CudaRuntimeBackend::teleport(const base::BBox& expected, base::BBox* bbox, std::string* status) {
  const char* word = teleport_target(this, expected);
  if (std::strcmp(word, kTeleportOk) != 0) return refuse(word, status);
  report_correction_("teleport", word, 1.0F, bbox, status);
  return true;
}

bool CudaRuntimeBackend::zoomChanged(float scale_factor, base::BBox* bbox, std::string* status) {
  const char* word = zoom_target(this, scale_factor);
  if (std::strcmp(word, kZoomChangedOk) != 0) return refuse(word, status);
  report_correction_("zoom_changed", word, scale_factor, bbox, status);
  return true;
}

void CudaRuntimeBackend::report_correction_(const char* event, const char* word, float rel_scale,
                                            base::BBox* bbox, std::string* status) {
  if (bbox != nullptr) *bbox = bboxf_from_state_(image_size);
  if (status != nullptr) *status = word;
  if (trace_writer == nullptr) return;
  trace_writer->log(event, frame_index, name(), word, bbox_from_state_(image_size), 0.0F, 0.0F, 0.0F,
                    rel_scale, target_scale);
}

bool CudaRuntimeBackend::updateConfig(NativeCppBackend::Config* new_config, std::string* status) {
  if (new_config == nullptr) return refuse("invalid_config_pointer", status);
  if (status != nullptr) status->clear();
  // The one other thread that reads the configuration goes first.
  const std::optional<std::string> exception = collect_training_job_();
  if (exception) add_note("previous_training_exception=" + *exception, status);

  NativeCppBackend::Config taken = *new_config;
  {
    const std::lock_guard<std::mutex> lock(state_mutex);
    keep_fixed_fields(config, &taken, status);
    take_config_(taken);
  }
  *new_config = std::move(taken);
  if (status != nullptr && status->empty()) *status = "config_updated";
  return true;
}

void CudaRuntimeBackend::take_config_(const NativeCppBackend::Config& taken) {
  const bool filter_differs = scale_filter_differs(config, taken);
  const bool trace_differs = config.reference_trace_path != taken.reference_trace_path;
  config = taken;
  if (trace_differs) trace_writer = std::make_unique<ReferenceTraceWriter>(config.reference_trace_path);
  if (!filter_differs) return;
  if (config.enable_scale_predictor) {
    seed_scale_kalman_(std::max(kMinTargetScale, target_scale));
  } else {
    reset_scale_kalman_();
  }
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
