#pragma once

#include <vector>

#include "tracking_runtime/tracker/atom/feature_map.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// What one training works on: samples, labels and weights in the order of selection, contiguous.
struct TrainingSelection {
  std::vector<float> features;  ///< count x channels x height x width
  std::vector<float> labels;    ///< count x height x width
  std::vector<float> weights;   ///< count, non-negative, sum 1
  std::vector<int> indices;     ///< slots, the start-up samples first
  int available = 0;            ///< samples that could have been selected
};

/// Whether both are defined and hold one sample: what the memory takes.
bool is_one_sample(const FeatureMap& feature, const LabelMap& label);

/// Whether a start-up set can fill the memory: a label for each feature, and the first of both one sample.
bool is_start_up_set(const std::vector<FeatureMap>& features, const std::vector<LabelMap>& labels);

/// Bounded, weighted store of projected samples and their labels. Weights decay exponentially, so the newest
/// sample weighs most, while the start-up set keeps a quarter of the whole. The backend guards it with its
/// state mutex; `capacity` is `max(sample_memory_size, 1)` of the running configuration.
struct SampleMemory {
  std::vector<float> training_features;  ///< capacity x feature stride
  std::vector<float> training_labels;    ///< capacity x label stride
  std::vector<float> sample_weights;     ///< capacity; an empty slot weighs 0
  int memory_channels = 0;
  int memory_height = 0;
  int memory_width = 0;
  int memory_label_height = 0;
  int memory_label_width = 0;
  int num_stored_samples = 0;       ///< keeps counting past the capacity; readers clamp it
  int num_init_samples = 0;         ///< leading slots protected from replacement
  int previous_replace_index = -1;  ///< slot of the last sample written, -1 after a batch

  /// Fills the memory from the start-up set; bad input gives false and changes nothing.
  bool batch_init_(const std::vector<FeatureMap>& features, const std::vector<LabelMap>& labels,
                   int capacity);
  /// Writes one sample; a sample of another geometry rebuilds the memory around itself.
  bool store_(const FeatureMap& feature, const LabelMap& label, float learning_rate, int capacity);
  /// Chooses the slot of a new sample and updates all weights; returns the slot.
  int update_sample_weights_(float learning_rate, int capacity);
  /// Start-up samples first, then the heaviest others, at most `sample_cap` (0 or below: all); weights
  /// renormalised. False when nothing can be selected or the geometry is unusable.
  bool select_(int sample_cap, TrainingSelection* selection) const;
  /// Nothing has been stored yet.
  bool empty() const;

 private:
  void rebuild_(const FeatureMap& feature, const LabelMap& label, int capacity);
  bool holds_geometry_(const FeatureMap& feature, const LabelMap& label, int capacity) const;
  int slot_for_new_sample_(int capacity) const;
  void restore_init_share_();
};

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
