// The start-up training set on the device: raw features go from the backbone's output to the joint optimiser,
// and only projected samples come back.

#include <algorithm>
#include <cstdio>
#include <utility>

#include "tracking_runtime/tracker/atom/gpu/cuda_error.h"
#include "tracking_runtime/tracker/atom/gpu/profiler_range.h"
#include "tracking_runtime/tracker/atom/init_pipeline.h"
#include "tracking_runtime/tracker/atom/refuse.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

void tell_chunk_unavailable(const char* what, const std::string& text) {
  std::fprintf(stderr,
               "[CudaRuntimeBackend] init: direct GPU augmented batch chunk %s, falling back to host "
               "extraction: %s\n",
               what, text.c_str());
}

}  // namespace

bool InitPipeline::copy_device_template(std::string* text) {
  TrtDeviceBatch batch;
  if (!backend.run_trt_device_batch_(PatchRange(&template_patch, 1), &batch, text)) return false;
  if (batch.samples != 1) return false;
  const std::size_t values = element_count({batch.channels, batch.height, batch.width});
  cudaError_t status = device_template.ensure(values);
  if (status == cudaSuccess) {
    status = cudaMemcpyAsync(device_template.get(), batch.features, values * sizeof(float),
                             cudaMemcpyDeviceToDevice, batch.stream);
  }
  if (!require_cuda(status, cudaGetErrorString(status), text)) {
    device_template.release();
    return false;
  }
  device_template_stream = batch.stream;
  set_raw_sizes(batch.channels, batch.height, batch.width);
  return true;
}

InitPipeline::DirectPath InitPipeline::take_direct_path() {
  DirectSet set;
  if (!make_direct_labels(&set)) return DirectPath::kFailed;
  JointFit fit = backend.begin_joint_fit_();
  std::fprintf(stderr, "[CudaRuntimeBackend] init stage=joint_opt start samples=%d\n", set.samples);

  const std::lock_guard<std::mutex> lock(backend.joint_optimizer_mutex);
  std::string text;
  if (!backend.prepare_joint_optimizer_(set.samples, raw_channels, raw_height, raw_width, &text)) {
    fail_untraced(text);
    return DirectPath::kFailed;
  }
  if (!preload_template()) return DirectPath::kFailed;
  if (!preload_further_patches(set)) return DirectPath::kLeftForHost;
  timings.path = "direct_gpu";
  const bool done = materialize_dropouts(set) && optimize_direct_set(set, &fit) && train_on_device(set) &&
                    take_projected_features(&set);
  return done ? DirectPath::kDone : DirectPath::kFailed;
}

bool InitPipeline::make_direct_labels(DirectSet* set) {
  const StageClock clock;
  const auto label_at = [this](const cv::Point_<float>& center) {
    return backend.build_label_for_sample_(raw_height, raw_width, center, backend.target_scale);
  };
  const LabelMap template_label = label_at(backend.target_pos);
  if (!template_label.defined()) {
    return fail("failed to build initialization labels", "failed_to_build_initialization_labels",
                box_in_frame());
  }
  set->labels.push_back(template_label);
  for (std::size_t i = 1; i < augmented.patches.size(); ++i) {
    set->further_images.push_back(augmented.patches[i].image);
    LabelMap label = label_at(augmented.patches[i].center);
    if (!label.defined()) label = template_label;
    set->labels.push_back(std::move(label));
  }
  for (int i = 0; i < kInitDropoutSamples; ++i) set->labels.push_back(template_label);
  std::fprintf(stderr, "[CudaRuntimeBackend] init stage=aug_raw count=%zu\n", set->labels.size());
  set->samples = static_cast<int>(set->labels.size());
  set->flat_labels = flattened(set->labels);
  timings.direct_labels += clock.elapsed_ms();
  return true;
}

bool InitPipeline::preload_span(const RawFeatureSpan& span, std::string* text) {
  const StageClock clock;
  const bool preloaded = backend.joint_optimizer->preload_raw_feature_spans({span}, text);
  timings.direct_preload += clock.elapsed_ms();
  return preloaded;
}

bool InitPipeline::preload_template() {
  RawFeatureSpan span;
  span.sample_count = 1;
  std::string text;
  if (device_template) {
    span.device_features = device_template.get();
    span.ready_stream = device_template_stream;
  } else {
    if (!ensure_template_feature(&text)) {
      return fail_untraced(text_or(text, "failed to extract template feature for direct GPU init"));
    }
    span.host_features = template_feature.data.data();
  }
  return preload_span(span, &text) ||
         fail_untraced(text_or(text, "CUDA joint optimizer failed to preload init raw features"));
}

bool InitPipeline::preload_further_patches(const DirectSet& set) {
  const ProfilerRange range(range_names::kStartFeatures);
  const auto largest =
      static_cast<std::size_t>(std::max(backend.trt != nullptr ? backend.trt->max_batch : 1, 1));
  for (std::size_t first = 0; first < set.further_images.size(); first += largest) {
    if (!preload_chunk(set, first, std::min(largest, set.further_images.size() - first))) return false;
  }
  return true;
}

bool InitPipeline::preload_chunk(const DirectSet& set, std::size_t first, std::size_t count) {
  const StageClock clock;
  TrtDeviceBatch batch;
  std::string text;
  const bool forwarded =
      backend.run_trt_device_batch_(PatchRange(set.further_images.data() + first, count), &batch, &text);
  timings.direct_trt += clock.elapsed_ms();
  if (!forwarded) {
    tell_chunk_unavailable("unavailable", text_or(text, "unknown_error"));
    return false;
  }
  if (batch.samples != static_cast<int>(count) || batch.channels != raw_channels ||
      batch.height != raw_height || batch.width != raw_width) {
    std::fprintf(
        stderr,
        "[CudaRuntimeBackend] init: direct GPU augmented batch chunk shape mismatch, falling back to "
        "host extraction\n");
    return false;
  }
  RawFeatureSpan span;
  span.device_features = batch.features;
  span.first_sample = static_cast<int>(first) + 1;
  span.sample_count = batch.samples;
  span.ready_stream = batch.stream;
  // The next forward, of whichever path, overwrites what the optimiser's stream is about to read.
  if (!preload_span(span, &text) || !backend.joint_optimizer->hold_back_producer(batch.stream, &text)) {
    tell_chunk_unavailable("preload failed", text);
    return false;
  }
  return true;
}

bool InitPipeline::materialize_dropouts(const DirectSet& set) {
  if (augmented.dropout_masks.empty()) return true;
  const StageClock clock;
  std::string text;
  const bool made = backend.joint_optimizer->materialize_scaled_sample_copies(
      0, static_cast<int>(set.further_images.size()) + 1, kInitDropoutSamples, augmented.dropout_masks,
      &text);
  timings.direct_dropout += clock.elapsed_ms();
  return made ||
         fail_untraced(text_or(text, "CUDA joint optimizer failed to materialize init dropout samples"));
}

bool InitPipeline::optimize_direct_set(const DirectSet& set, JointFit* fit) {
  const StageClock clock;
  const JointFitSettings settings = backend.joint_fit_settings_(set.samples);
  std::string text;
  const bool optimized = backend.joint_optimizer->optimize_preloaded_raw_features(
      set.flat_labels, set.samples, fit->filter, fit->projection, settings.filter_regularization,
      settings.projection_regularization, settings.sample_weight, settings.gauss_newton_iterations,
      settings.conjugate_gradient_iterations, &fit->optimized_filter, &fit->optimized_projection, &text);
  timings.joint_opt += clock.elapsed_ms();
  if (!optimized) return fail_untraced(text_or(text, "CUDA joint optimizer failed to optimize jointly"));
  const std::lock_guard<std::mutex> lock(backend.state_mutex);
  backend.adopt_joint_fit_(std::move(*fit));
  return true;
}

bool InitPipeline::train_on_device(const DirectSet& set) {
  const ProfilerRange range(range_names::kFirstTraining);
  ProjectedFeatureView view;
  std::string text;
  if (!backend.joint_optimizer->get_projected_feature_device_view(&view, &text)) {
    return fail_untraced(text_or(text, "CUDA joint optimizer failed to expose projected init features"));
  }
  const StageClock clock;
  filter_trained =
      backend.train_filter_from_device_batch_(view.data, view.stream, set.labels, view.samples, view.channels,
                                              view.height, view.width, startup_iterations, &text);
  timings.direct_filter_train += clock.elapsed_ms();
  return filter_trained ||
         fail_untraced(text_or(text, "CUDA filter trainer failed on direct init projected batch"));
}

bool InitPipeline::take_projected_features(DirectSet* set) {
  const ProfilerRange range(range_names::kCollect);
  const StageClock clock;
  std::vector<float> projected;
  std::string text;
  const bool downloaded = backend.download_joint_features_(&projected, &text);
  timings.projected_download += clock.elapsed_ms();
  if (!downloaded) return fail_untraced(text);
  features =
      split_in_samples(projected, set->samples, backend.weights.proj_out_channels, raw_height, raw_width);
  labels = std::move(set->labels);
  std::fprintf(stderr, "[CudaRuntimeBackend] init stage=joint_opt done samples=%d\n", set->samples);
  return true;
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
