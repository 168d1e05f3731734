// The start of tracking, from the arguments to the first projection, filter and patches.

#include <algorithm>
#include <cstdio>
#include <optional>
#include <string>

#include "tracking_runtime/tracker/atom/cuda_runtime_backend.h"
#include "tracking_runtime/tracker/atom/frame_rect.h"
#include "tracking_runtime/tracker/atom/fresh_generator.h"
#include "tracking_runtime/tracker/atom/gpu/profiler_range.h"
#include "tracking_runtime/tracker/atom/init_pipeline.h"
#include "tracking_runtime/tracker/atom/projection_setup.h"
#include "tracking_runtime/tracker/atom/refuse.h"
#include "tracking_runtime/tracker/atom/square_patch.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

bool CudaRuntimeBackend::initialize(const cv::Mat& image, const cv::Rect_<int>& init_rect,
                                    std::string* error) {
  return InitPipeline(this, image, init_rect, error).run();
}

InitPipeline::InitPipeline(CudaRuntimeBackend* owner, const cv::Mat& start_frame,
                           const cv::Rect_<int>& start_box, std::string* error_text)
    : backend(*owner),
      frame(start_frame),
      box(start_box),
      error(error_text),
      startup_iterations(std::max(owner->config.startup_filter_iterations, 1)) {}

bool InitPipeline::run() {
  const ProfilerRange range(range_names::kStart);
  wait_for_previous_training();
  reset_run_state();
  if (!check_arguments() || !start_runtime() || !cut_template_patch()) return false;
  place_target();
  probe_device_template();
  if (!learn_raw_sizes() || !set_up_projection() || !set_up_filter()) return false;
  make_augmented_set();
  if (!gather_training_set() || !train_first_filter()) return false;
  finish();
  return true;
}

void InitPipeline::wait_for_previous_training() {
  const StageClock clock;
  if (const std::optional<std::string> text = backend.collect_training_job_()) {
    std::fprintf(stderr, "[CudaRuntimeBackend][train] initialize previous_job_exception=%s\n", text->c_str());
  }
  timings.wait_prev_train += clock.elapsed_ms();
}

void InitPipeline::reset_run_state() {
  backend.training_in_flight = false;
  backend.active_training_job = 0;
  backend.recovery_active = false;
  backend.recovery_confirm_count = 0;
  backend.recovery_frame_count = 0;
  backend.reset_scale_kalman_();
}

bool InitPipeline::check_arguments() {
  if (frame.empty()) return fail("initialize image is empty", "initialize image is empty", {});
  if (box.width < 1 || box.height < 1) {
    return fail("initialize bbox is invalid", "initialize bbox is invalid", {});
  }
  return true;
}

bool InitPipeline::start_runtime() {
  const ProfilerRange range(range_names::kEngine);
  backend.image_size = frame.size();
  const StageClock clock;
  std::string text;
  const bool ready = backend.initialize_runtime_(&text);
  timings.runtime += clock.elapsed_ms();
  return ready || fail(text, "initialize_runtime_failed", {});
}

bool InitPipeline::cut_template_patch() {
  const ProfilerRange range(range_names::kCrops);
  const StageClock clock;
  template_patch =
      cut_square_patch(frame, center_of(box), static_cast<float>(box.width), static_cast<float>(box.height),
                       backend.config.search_area_factor, backend.config.search_size);
  timings.template_patch += clock.elapsed_ms();
  return !template_patch.empty() || fail("failed to sample initialization search patch",
                                         "failed_to_sample_initialization_search_patch", {});
}

void InitPipeline::place_target() {
  backend.place_at_start_(box);
  std::fprintf(stderr,
               "[TRACK_DEBUG][ATOM] init: rect_proc=[%d,%d,%d,%d] → center=(%.1f,%.1f) size=(%.1f,%.1f) "
               "image=%dx%d\n",
               box.x, box.y, box.width, box.height, static_cast<double>(backend.target_pos.x),
               static_cast<double>(backend.target_pos.y), static_cast<double>(backend.target_size.width),
               static_cast<double>(backend.target_size.height), frame.cols, frame.rows);
  backend.derive_scale_at_start_(box);
}

/// A random projection that the joint solver will refine needs no template on the host.
void InitPipeline::probe_device_template() {
  const ProfilerRange range(range_names::kTemplate);
  const StageClock clock;
  const bool randn = is_randn(backend.config.proj_init_method);
  needs_template_feature = backend.config.use_projection_matrix && !randn;
  if (!backend.config.use_projection_matrix || !randn || !backend.config.update_projection_matrix) return;
  std::string text;
  if (!copy_device_template(&text)) {
    std::fprintf(
        stderr,
        "[CudaRuntimeBackend] init: direct GPU template unavailable, falling back to host extraction: "
        "%s\n",
        text_or(text, "unknown_error").c_str());
  }
  timings.template_device += clock.elapsed_ms();
}

bool InitPipeline::learn_raw_sizes() {
  if (raw_channels > 0) return true;
  std::string reason;
  return ensure_template_feature(&reason) ||
         fail("failed to extract template feature", "failed_to_extract_template_feature", {});
}

bool InitPipeline::ensure_template_feature(std::string* text) {
  if (template_feature.defined()) return true;
  const ProfilerRange range(range_names::kTemplate);
  const StageClock clock;
  const bool extracted = backend.extract_feature_map_(template_patch, &template_feature, text);
  timings.template_host += clock.elapsed_ms();
  if (extracted && raw_channels == 0) {
    set_raw_sizes(template_feature.channels, template_feature.height, template_feature.width);
  }
  return extracted;
}

void InitPipeline::set_raw_sizes(int channels, int height, int width) {
  raw_channels = channels;
  raw_height = height;
  raw_width = width;
  std::fprintf(stderr, "[CudaRuntimeBackend] init stage=template_feature raw=[1,%d,%d,%d]\n", raw_channels,
               raw_height, raw_width);
}

bool InitPipeline::set_up_projection() {
  const ProfilerRange range(range_names::kFirstProjection);
  const StageClock clock;
  const bool done = needs_template_feature
                        ? backend.init_projection_matrix_(template_feature)
                        : backend.init_projection_matrix_(raw_channels, raw_height, raw_width, nullptr);
  timings.projection_init += clock.elapsed_ms();
  return done || fail("failed to initialize projection matrix", "failed_to_initialize_projection_matrix",
                      box_in_frame());
}

bool InitPipeline::set_up_filter() {
  const ProfilerRange range(range_names::kFirstFilter);
  const StageClock clock;
  const float scale = std::max(backend.target_scale, 1e-6F);
  const float patch_side = static_cast<float>(backend.config.search_size);
  const float width = static_cast<float>(box.width) / scale;
  const float height = static_cast<float>(box.height) / scale;
  const cv::Rect_<float> target_in_patch((patch_side - width) / 2.0F, (patch_side - height) / 2.0F, width,
                                         height);
  const bool projected = backend.config.use_projection_matrix && !backend.weights.projection_matrix.empty() &&
                         backend.weights.proj_out_channels >= 1;
  const int channels = projected ? backend.weights.proj_out_channels : raw_channels;
  const bool done = backend.init_filter_weights_(channels, raw_height, raw_width, target_in_patch);
  timings.filter_init += clock.elapsed_ms();
  return done || fail("failed to initialize classifier filter weights",
                      "failed_to_initialize_classifier_filter_weights", box_in_frame());
}

void InitPipeline::make_augmented_set() {
  const ProfilerRange range(range_names::kAugment);
  augmented.patches = augmented_patches(frame, template_patch, box, backend, &timings);
  const StageClock clock;
  std::mt19937 generator = fresh_generator();
  augmented.dropout_masks = draw_dropout_masks(raw_channels, &generator);
  timings.dropout_prep += clock.elapsed_ms();
  std::fprintf(stderr, "[CudaRuntimeBackend] init stage=aug_patches count=%zu\n", augmented.patches.size());
}

bool InitPipeline::gather_training_set() {
  if (backend.joint_fit_wanted_()) {
    const DirectPath outcome = take_direct_path();
    if (outcome != DirectPath::kLeftForHost) return outcome == DirectPath::kDone;
  }
  return take_host_path();
}

void InitPipeline::finish() {
  backend.frame_index = 0;
  backend.initialized = true;
  if (error != nullptr) error->clear();
  timings.total = total.elapsed_ms();
  backend.log_init_ready_(box, backend.image_size, timings);
}

bool InitPipeline::fail(const std::string& text, const std::string& word, const cv::Rect_<int>& rect) {
  fail_untraced(text);
  if (backend.trace_writer != nullptr) {
    backend.trace_writer->log("init_fail", backend.frame_index, backend.name(),
                              error != nullptr ? *error : word, rect, 0.0F, 0.0F, 0.0F, 1.0F,
                              backend.target_scale);
  }
  return false;
}

bool InitPipeline::fail_untraced(const std::string& text) {
  if (error != nullptr) *error = text;
  return false;
}

cv::Rect_<int> InitPipeline::box_in_frame() const {
  return clamp_rect(box, backend.image_size);
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
