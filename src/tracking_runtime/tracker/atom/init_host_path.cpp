// The start-up training set through host memory: raw features, labels, projection.

#include <algorithm>
#include <cstdio>
#include <utility>

#include "tracking_runtime/tracker/atom/gpu/profiler_range.h"
#include "tracking_runtime/tracker/atom/init_pipeline.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

bool all_defined(const std::vector<FeatureMap>& features) {
  return std::all_of(features.begin(), features.end(),
                     [](const FeatureMap& feature) { return feature.defined(); });
}

}  // namespace

bool InitPipeline::take_host_path() {
  if (timings.path == "unresolved") timings.path = "host_path";
  if (!gather_raw_items() || !make_labels() || !fit_host_set()) return false;
  project_items();
  return true;
}

bool InitPipeline::gather_raw_items() {
  const ProfilerRange range(range_names::kStartFeatures);
  std::string reason;
  if (!ensure_template_feature(&reason)) {
    return fail("failed to extract template feature", "failed_to_extract_template_feature", {});
  }
  items.push_back({template_feature, backend.target_pos});
  add_augmented_items();
  if (!add_dropout_items()) return false;
  std::fprintf(stderr, "[CudaRuntimeBackend] init stage=aug_raw count=%zu\n", items.size());
  return true;
}

void InitPipeline::add_augmented_items() {
  if (augmented.patches.size() < 2) return;
  const StageClock clock;
  std::vector<cv::Mat> images;
  for (std::size_t i = 1; i < augmented.patches.size(); ++i) images.push_back(augmented.patches[i].image);
  std::vector<FeatureMap> batch = backend.extract_feature_maps_batched_(images);
  if (batch.size() == images.size() && all_defined(batch)) {
    for (std::size_t i = 0; i < batch.size(); ++i) {
      items.push_back({std::move(batch[i]), augmented.patches[i + 1].center});
    }
  } else {
    std::fprintf(
        stderr,
        "[CudaRuntimeBackend] init: batched augmented feature extraction unavailable, falling back to "
        "sequential\n");
    add_items_one_by_one();
  }
  timings.host_aug_feat += clock.elapsed_ms();
}

void InitPipeline::add_items_one_by_one() {
  for (std::size_t i = 1; i < augmented.patches.size(); ++i) {
    FeatureMap feature;
    std::string reason;
    if (backend.extract_feature_map_(augmented.patches[i].image, &feature, &reason)) {
      items.push_back({std::move(feature), augmented.patches[i].center});
      continue;
    }
    std::fprintf(stderr, "[CudaRuntimeBackend] init skip augmented sample %zu: %s\n", i,
                 reason.empty() ? "feature extraction failed" : reason.c_str());
  }
}

bool InitPipeline::add_dropout_items() {
  std::string reason;
  if (!ensure_template_feature(&reason)) {
    return fail_untraced(reason.empty() ? "failed to build host dropout samples" : reason);
  }
  const StageClock clock;
  for (int i = 0; i < kInitDropoutSamples; ++i) {
    items.push_back({dropout_feature(template_feature, augmented.dropout_masks, i), backend.target_pos});
  }
  timings.host_dropout += clock.elapsed_ms();
  return true;
}

bool InitPipeline::make_labels() {
  const StageClock clock;
  const auto label_at = [this](const cv::Point_<float>& center) {
    return backend.build_label_for_sample_(raw_height, raw_width, center, backend.target_scale);
  };
  const LabelMap template_label = label_at(backend.target_pos);
  for (const Item& item : items) {
    LabelMap label = label_at(item.center);
    if (!label.defined()) label = template_label;
    item_labels.push_back(std::move(label));
  }
  timings.host_labels += clock.elapsed_ms();
  if (template_label.defined() && !item_labels.empty()) return true;
  return keep_template_only();
}

bool InitPipeline::keep_template_only() {
  std::fprintf(stderr,
               "[CudaRuntimeBackend] init fallback: augmented labels unavailable, using template-only "
               "initialization\n");
  items.clear();
  items.push_back({template_feature, backend.target_pos});
  item_labels.clear();
  LabelMap label =
      backend.build_label_for_sample_(template_feature, backend.target_pos, backend.target_scale);
  if (!label.defined()) {
    return fail("failed to build initialization labels", "failed_to_build_initialization_labels",
                box_in_frame());
  }
  item_labels.push_back(std::move(label));
  return true;
}

bool InitPipeline::fit_host_set() {
  if (!backend.joint_fit_wanted_()) return true;
  const std::size_t count = std::min(items.size(), item_labels.size());
  std::vector<const FeatureMap*> raw;
  for (std::size_t i = 0; i < count; ++i) raw.push_back(&items[i].feature);
  const std::vector<LabelMap> paired(item_labels.begin(),
                                     item_labels.begin() + static_cast<std::ptrdiff_t>(count));
  std::fprintf(stderr, "[CudaRuntimeBackend] init stage=joint_opt start samples=%zu\n", count);
  const StageClock clock;
  std::string text;
  const bool fit = backend.optimize_joint_init_(raw, paired, &fitted, &text);
  timings.joint_opt += clock.elapsed_ms();
  if (!fit) return fail_untraced(text);
  std::fprintf(stderr, "[CudaRuntimeBackend] init stage=joint_opt done samples=%zu\n", count);
  return true;
}

void InitPipeline::project_items() {
  const StageClock clock;
  const std::size_t count = std::min(items.size(), item_labels.size());
  for (std::size_t i = 0; i < count; ++i) {
    FeatureMap projected =
        fitted.size() == count ? std::move(fitted[i]) : backend.project_feature_(items[i].feature);
    if (!projected.defined()) continue;
    features.push_back(std::move(projected));
    labels.push_back(std::move(item_labels[i]));
  }
  timings.host_project += clock.elapsed_ms();
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
