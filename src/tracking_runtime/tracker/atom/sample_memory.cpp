#include "tracking_runtime/tracker/atom/sample_memory.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <numeric>
#include <utility>

#include "tracking_runtime/tracker/atom/held.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

constexpr float kMinLearningRate = 1e-6F;
constexpr double kMinWeightSum = 1e-8;
constexpr double kInitShare = 0.25;  // of the whole weight, which the start-up set never falls below

double sum_of(const std::vector<float>& values, std::size_t first, std::size_t last) {
  double sum = 0.0;
  for (std::size_t i = first; i < last; ++i) sum += static_cast<double>(values[i]);
  return sum;
}

void divide(std::vector<float>* values, double divisor) {
  for (float& value : *values) value = static_cast<float>(static_cast<double>(value) / divisor);
}

void copy_to_slot(const std::vector<float>& sample, std::size_t stride, int slot, std::vector<float>* slots) {
  std::copy_n(sample.begin(), stride, slots->begin() + static_cast<std::ptrdiff_t>(stride) * slot);
}

void append_slot(const std::vector<float>& slots, std::size_t stride, int slot, std::vector<float>* out) {
  const auto first = slots.begin() + static_cast<std::ptrdiff_t>(stride) * slot;
  out->insert(out->end(), first, first + static_cast<std::ptrdiff_t>(stride));
}

std::size_t element_stride(int channels, int height, int width) {
  return static_cast<std::size_t>(channels) * static_cast<std::size_t>(height) *
         static_cast<std::size_t>(width);
}

// Start-up samples first in index order, then the others, heaviest first and the older of equals.
std::vector<int> chosen_slots(const std::vector<float>& weights, int available, int init_count, int limit) {
  const int head = held(init_count, 0, available);
  std::vector<int> slots(static_cast<std::size_t>(available));
  std::iota(slots.begin(), slots.end(), 0);
  std::stable_sort(slots.begin() + head, slots.end(), [&](int a, int b) {
    return weights[static_cast<std::size_t>(a)] > weights[static_cast<std::size_t>(b)];
  });
  slots.resize(static_cast<std::size_t>(limit));
  return slots;
}

void renormalise(std::vector<float>* weights) {
  for (float& weight : *weights) weight = std::max(0.0F, weight);
  const double sum = sum_of(*weights, 0, weights->size());
  if (sum > kMinWeightSum && std::isfinite(sum)) {
    divide(weights, sum);
  } else {
    std::fill(weights->begin(), weights->end(), 1.0F / static_cast<float>(weights->size()));
  }
}

}  // namespace

bool is_one_sample(const FeatureMap& feature, const LabelMap& label) {
  return feature.defined() && feature.samples == 1 && label.defined() && label.samples == 1;
}

bool is_start_up_set(const std::vector<FeatureMap>& features, const std::vector<LabelMap>& labels) {
  return !features.empty() && labels.size() == features.size() &&
         is_one_sample(features.front(), labels.front());
}

void SampleMemory::rebuild_(const FeatureMap& feature, const LabelMap& label, int capacity) {
  // Without weights nothing reads the memory, so that running out of memory half way leaves an empty one.
  sample_weights.clear();
  memory_channels = feature.channels;
  memory_height = feature.height;
  memory_width = feature.width;
  memory_label_height = label.height;
  memory_label_width = label.width;
  num_stored_samples = 0;
  num_init_samples = 0;
  previous_replace_index = -1;
  const auto slots = static_cast<std::size_t>(capacity);
  training_features.assign(slots * feature.sample_stride(), 0.0F);
  training_labels.assign(slots * label.stride(), 0.0F);
  sample_weights.assign(slots, 0.0F);
}

bool SampleMemory::batch_init_(const std::vector<FeatureMap>& features, const std::vector<LabelMap>& labels,
                               int capacity) {
  if (!is_start_up_set(features, labels)) return false;
  capacity = std::max(capacity, 1);
  const std::size_t feature_stride = features.front().sample_stride();
  const std::size_t label_stride = labels.front().stride();
  rebuild_(features.front(), labels.front(), capacity);

  const std::size_t count = std::min(static_cast<std::size_t>(capacity), features.size());
  for (std::size_t i = 0; i < count; ++i) {
    // A sample of another shape leaves its slot at zero and keeps its weight: the batch is not compacted.
    if (!features[i].defined() || features[i].sample_stride() != feature_stride) continue;
    if (!labels[i].defined() || labels[i].stride() != label_stride) continue;
    copy_to_slot(features[i].data, feature_stride, static_cast<int>(i), &training_features);
    copy_to_slot(labels[i].data, label_stride, static_cast<int>(i), &training_labels);
  }
  std::fill_n(sample_weights.begin(), count, 1.0F / static_cast<float>(count));
  num_stored_samples = static_cast<int>(count);
  num_init_samples = static_cast<int>(count);
  return true;
}

bool SampleMemory::holds_geometry_(const FeatureMap& feature, const LabelMap& label, int capacity) const {
  return feature.channels == memory_channels && feature.height == memory_height &&
         feature.width == memory_width && label.height == memory_label_height &&
         label.width == memory_label_width && sample_weights.size() == static_cast<std::size_t>(capacity);
}

bool SampleMemory::store_(const FeatureMap& feature, const LabelMap& label, float learning_rate,
                          int capacity) {
  if (!is_one_sample(feature, label)) return false;
  capacity = std::max(capacity, 1);
  int slot = 0;
  if (holds_geometry_(feature, label, capacity)) {
    slot = update_sample_weights_(learning_rate, capacity);
    ++num_stored_samples;
  } else {
    rebuild_(feature, label, capacity);
    sample_weights.front() = 1.0F;
    num_stored_samples = 1;
    num_init_samples = 1;
  }
  copy_to_slot(feature.data, feature.sample_stride(), slot, &training_features);
  copy_to_slot(label.data, label.stride(), slot, &training_labels);
  return true;
}

int SampleMemory::slot_for_new_sample_(int capacity) const {
  if (num_stored_samples < capacity) return num_stored_samples;
  const int first = std::max(std::min(capacity - 1, std::min(capacity, num_init_samples)), 0);
  const auto lightest = std::min_element(sample_weights.begin() + first, sample_weights.end());
  return static_cast<int>(lightest - sample_weights.begin());
}

void SampleMemory::restore_init_share_() {
  if (num_init_samples < 1) return;
  const std::size_t protected_count =
      std::min(static_cast<std::size_t>(num_init_samples), sample_weights.size());
  if (!(sum_of(sample_weights, 0, protected_count) < kInitShare)) return;
  const double others = sum_of(sample_weights, protected_count, sample_weights.size());
  divide(&sample_weights, std::max(kInitShare + others, kMinWeightSum));
  std::fill_n(sample_weights.begin(), protected_count,
              static_cast<float>(kInitShare / static_cast<double>(protected_count)));
}

int SampleMemory::update_sample_weights_(float learning_rate, int capacity) {
  capacity = std::max(capacity, 1);
  const float rate = held(learning_rate, kMinLearningRate, 1.0F);
  if (sample_weights.size() != static_cast<std::size_t>(capacity)) {
    sample_weights.assign(static_cast<std::size_t>(capacity), 0.0F);
  }
  if (num_stored_samples < 1 || rate >= 1.0F) {
    std::fill(sample_weights.begin(), sample_weights.end(), 0.0F);
    sample_weights.front() = 1.0F;
    previous_replace_index = 0;
    return 0;
  }
  const int slot = slot_for_new_sample_(capacity);
  const double decay = 1.0 - static_cast<double>(rate);
  float& slot_weight = sample_weights[static_cast<std::size_t>(slot)];
  if (previous_replace_index < 0 || previous_replace_index >= capacity) {
    divide(&sample_weights, decay);
    slot_weight = rate;
  } else {
    const float previous = sample_weights[static_cast<std::size_t>(previous_replace_index)];
    slot_weight = static_cast<float>(static_cast<double>(previous) / decay);
  }
  divide(&sample_weights, std::max(sum_of(sample_weights, 0, sample_weights.size()), kMinWeightSum));
  restore_init_share_();
  previous_replace_index = slot;
  return slot;
}

bool SampleMemory::empty() const {
  return training_features.empty() || training_labels.empty() || sample_weights.empty();
}

bool SampleMemory::select_(int sample_cap, TrainingSelection* selection) const {
  if (empty() || memory_channels < 1 || memory_height < 1 || memory_width < 1) return false;
  if (memory_label_height != memory_height || memory_label_width != memory_width) return false;
  const int slots = static_cast<int>(sample_weights.size());
  const int available = std::max(std::min(slots, num_stored_samples), 1);
  const int limit = sample_cap > 0 && sample_cap < available ? sample_cap : available;

  TrainingSelection chosen;
  chosen.available = available;
  chosen.indices = chosen_slots(sample_weights, available, num_init_samples, limit);
  const std::size_t feature_stride = element_stride(memory_channels, memory_height, memory_width);
  const std::size_t label_stride = element_stride(1, memory_label_height, memory_label_width);
  chosen.features.reserve(chosen.indices.size() * feature_stride);
  chosen.labels.reserve(chosen.indices.size() * label_stride);
  chosen.weights.reserve(chosen.indices.size());
  for (const int slot : chosen.indices) {
    append_slot(training_features, feature_stride, slot, &chosen.features);
    append_slot(training_labels, label_stride, slot, &chosen.labels);
    chosen.weights.push_back(sample_weights[static_cast<std::size_t>(slot)]);
  }
  renormalise(&chosen.weights);
  *selection = std::move(chosen);
  return true;
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
