// The joint fit of projection and filter at a start: what the solver is given, and what becomes of its result.

#include <algorithm>
#include <cstddef>
#include <new>
#include <utility>

#include "tracking_runtime/tracker/atom/cuda_runtime_backend.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_joint_optimizer.h"
#include "tracking_runtime/tracker/atom/joint_fit.h"
#include "tracking_runtime/tracker/atom/refuse.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

bool is_sample_like(const FeatureMap* feature, const FeatureMap& first, int channels) {
  return feature != nullptr && feature->defined() && feature->samples == 1 && feature->channels == channels &&
         feature->height == first.height && feature->width == first.width;
}

bool is_label_of(const LabelMap& label, const FeatureMap& first) {
  return label.defined() && label.samples == 1 && label.height == first.height && label.width == first.width;
}

bool is_consistent_set(const std::vector<const FeatureMap*>& raw_features,
                       const std::vector<LabelMap>& labels, int channels) {
  const FeatureMap* const first = raw_features.front();
  return first != nullptr &&
         std::all_of(raw_features.begin(), raw_features.end(),
                     [&](const FeatureMap* feature) { return is_sample_like(feature, *first, channels); }) &&
         std::all_of(labels.begin(), labels.end(),
                     [&](const LabelMap& label) { return is_label_of(label, *first); });
}

/// A label's, or a feature's, share of one flat array.
void append(const std::vector<float>& values, std::vector<float>* flat) {
  flat->insert(flat->end(), values.begin(), values.end());
}

}  // namespace

std::vector<float> flattened(const std::vector<LabelMap>& labels) {
  std::vector<float> flat;
  for (const LabelMap& label : labels) append(label.data, &flat);
  return flat;
}

std::vector<FeatureMap> split_in_samples(const std::vector<float>& flat, int samples, int channels,
                                         int height, int width) {
  const FeatureMap shape{1, channels, height, width, {}};
  const auto stride = static_cast<std::ptrdiff_t>(shape.sample_stride());
  std::vector<FeatureMap> maps(static_cast<std::size_t>(samples), shape);
  auto first = flat.begin();
  for (FeatureMap& map : maps) {
    map.data.assign(first, first + stride);
    first += stride;
  }
  return maps;
}

bool CudaRuntimeBackend::joint_fit_wanted_() const {
  return config.use_projection_matrix && config.update_projection_matrix &&
         !weights.projection_matrix.empty();
}

JointFitSettings CudaRuntimeBackend::joint_fit_settings_(int samples) const {
  JointFitSettings settings;
  settings.filter_regularization = training_regularization_();
  settings.projection_regularization = config.projection_regularization;
  settings.sample_weight = 1.0F / static_cast<float>(std::max(samples, 1));
  settings.gauss_newton_iterations = std::max(config.startup_box_refinement_iterations, 1);
  // The configured iterations are a total over all linear systems.
  settings.conjugate_gradient_iterations =
      std::max(std::max(config.startup_filter_iterations, 1) / settings.gauss_newton_iterations, 1);
  return settings;
}

bool CudaRuntimeBackend::prepare_joint_optimizer_(int samples, int raw_channels, int height, int width,
                                                  std::string* error) {
  if (joint_optimizer == nullptr) {
    try {
      joint_optimizer = std::make_unique<CudaJointOptimizer>();
    } catch (const std::bad_alloc&) {
      return refuse("CUDA joint optimizer is unavailable", error);
    }
  }
  std::string text;
  return joint_optimizer->ensure_capacity(samples, raw_channels, weights.proj_out_channels, height, width,
                                          weights.filter_height, weights.filter_width, &text) ||
         refuse(text_or(text, "CUDA joint optimizer failed to initialize buffers"), error);
}

bool CudaRuntimeBackend::check_joint_set_(const std::vector<const FeatureMap*>& raw_features,
                                          const std::vector<LabelMap>& labels, std::string* error) const {
  if (raw_features.empty() || labels.size() != raw_features.size()) {
    return refuse("joint optimization got an invalid augmented sample set", error);
  }
  if (weights.projection_matrix.empty() || weights.filter_weights.empty() || weights.proj_in_channels < 1 ||
      weights.proj_out_channels < 1 || weights.proj_out_channels != weights.filter_channels) {
    return refuse("joint optimization state is incomplete", error);
  }
  if (!is_consistent_set(raw_features, labels, weights.proj_in_channels)) {
    return refuse("joint optimization received inconsistent augmented sample dimensions", error);
  }
  return true;
}

bool CudaRuntimeBackend::optimize_joint_init_(const std::vector<const FeatureMap*>& raw_features,
                                              const std::vector<LabelMap>& labels,
                                              std::vector<FeatureMap>* projected_out, std::string* error) {
  if (!check_joint_set_(raw_features, labels, error)) return false;
  JointFit fit = begin_joint_fit_();
  std::vector<float> raw;
  for (const FeatureMap* feature : raw_features) append(feature->data, &raw);

  const auto samples = static_cast<int>(raw_features.size());
  const int height = raw_features.front()->height;
  const int width = raw_features.front()->width;
  const JointFitSettings settings = joint_fit_settings_(samples);
  const std::lock_guard<std::mutex> lock(joint_optimizer_mutex);
  if (!prepare_joint_optimizer_(samples, weights.proj_in_channels, height, width, error)) return false;
  std::string text;
  if (!joint_optimizer->optimize(
          raw, flattened(labels), samples, fit.filter, fit.projection, settings.filter_regularization,
          settings.projection_regularization, settings.sample_weight, settings.gauss_newton_iterations,
          settings.conjugate_gradient_iterations, &fit.optimized_filter, &fit.optimized_projection, &text)) {
    return refuse(text_or(text, "CUDA joint optimizer failed to optimize jointly"), error);
  }
  if (projected_out != nullptr) {
    std::vector<float> projected;
    if (!download_joint_features_(&projected, error)) return false;
    *projected_out = split_in_samples(projected, samples, weights.proj_out_channels, height, width);
  }
  adopt_joint_fit_(std::move(fit));
  return true;
}

bool CudaRuntimeBackend::download_joint_features_(std::vector<float>* projected, std::string* error) {
  std::string text;
  return joint_optimizer->download_projected_features(projected, &text) ||
         refuse(text_or(text, "CUDA joint optimizer failed to export projected init features"), error);
}

JointFit CudaRuntimeBackend::begin_joint_fit_() const {
  JointFit fit;
  fit.filter = weights.filter_weights;
  fit.projection = weights.projection_matrix;
  return fit;
}

void CudaRuntimeBackend::adopt_joint_fit_(JointFit fit) {
  weights.projection_matrix = std::move(fit.optimized_projection);
  weights.filter_weights = std::move(fit.optimized_filter);
  ++weights.projection_version;
  ++weights.filter_version;
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
