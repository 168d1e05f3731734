#include "tracking_runtime/tracker/atom/sample_memory.h"

#include <gtest/gtest.h>

#include <numeric>
#include <string>
#include <vector>

#include "support/golden.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

using ostrel_test::load_golden;
using ostrel_test::matches_golden;

// A sample of 2 x 1 x 2 whose values all tell its number, and its label.
FeatureMap feature_of(float number, int channels = 2) {
  return {1, channels, 1, 2, std::vector<float>(static_cast<std::size_t>(channels) * 2, number)};
}
LabelMap label_of(float number) {
  return {1, 1, 2, {number, number}};
}

SampleMemory memory_of(int init_samples, int capacity) {
  std::vector<FeatureMap> features;
  std::vector<LabelMap> labels;
  for (int i = 0; i < init_samples; ++i) {
    features.push_back(feature_of(static_cast<float>(i)));
    labels.push_back(label_of(static_cast<float>(i)));
  }
  SampleMemory memory;
  EXPECT_TRUE(memory.batch_init_(features, labels, capacity));
  return memory;
}

// Stores a sample and tells the slot that took it.
int store(SampleMemory* memory, float number, float rate, int capacity) {
  EXPECT_TRUE(memory->store_(feature_of(number), label_of(number), rate, capacity));
  return memory->previous_replace_index;
}

float weight_sum(const SampleMemory& memory) {
  return std::accumulate(memory.sample_weights.begin(), memory.sample_weights.end(), 0.0F);
}

TEST(SampleMemory, ChoosesSlotsAndWeightsAsGolden) {
  for (const auto& golden : load_golden("sample_memory")) {
    SCOPED_TRACE(golden.name());
    const int capacity = golden.i32("sample_memory_size");
    SampleMemory memory = memory_of(golden.i32("num_init"), capacity);
    const auto rates = golden.input_as<float>("rates");
    const std::size_t rows = golden.output("weights").shape[0];
    const bool every_store = rows == rates.size() + 1;
    std::vector<int> slots;
    std::vector<float> weights = memory.sample_weights;
    for (std::size_t i = 0; i < rates.size(); ++i) {
      slots.push_back(store(&memory, 1.0F, rates[i], capacity));
      if (!every_store && i % 20 != 0 && i + 1 != rates.size()) continue;
      weights.insert(weights.end(), memory.sample_weights.begin(), memory.sample_weights.end());
    }
    EXPECT_TRUE(matches_golden(golden.output("slots"), slots));
    EXPECT_TRUE(matches_golden(golden.output("weights"), weights));
    EXPECT_EQ(memory.num_stored_samples, golden.i32("num_stored_final"));
  }
}

TEST(SampleMemory, SelectsAndRenormalisesAsGolden) {
  for (const auto& golden : load_golden("training_selection")) {
    SCOPED_TRACE(golden.name());
    SampleMemory memory;
    memory.sample_weights = golden.input_as<float>("weights");
    memory.training_features.assign(memory.sample_weights.size(), 1.0F);
    memory.training_labels.assign(memory.sample_weights.size(), 1.0F);
    memory.memory_channels = memory.memory_height = memory.memory_width = 1;
    memory.memory_label_height = memory.memory_label_width = 1;
    memory.num_stored_samples = golden.i32("num_stored_samples");
    memory.num_init_samples = golden.i32("num_init_samples");
    TrainingSelection selection;
    ASSERT_TRUE(memory.select_(golden.i32("sample_cap"), &selection));
    EXPECT_TRUE(matches_golden(golden.output("selected"), selection.indices));
    EXPECT_TRUE(matches_golden(golden.output("renormalised"), selection.weights));
  }
}

TEST(SampleMemory, StartsWithEqualWeightsInProtectedSlots) {
  const SampleMemory memory = memory_of(4, 6);
  EXPECT_EQ(memory.sample_weights, (std::vector<float>{0.25F, 0.25F, 0.25F, 0.25F, 0.0F, 0.0F}));
  EXPECT_EQ(memory.num_stored_samples, 4);
  EXPECT_EQ(memory.num_init_samples, 4);
  EXPECT_EQ(memory.previous_replace_index, -1);
  EXPECT_EQ(memory.training_features.size(), 6U * 4U);
  EXPECT_EQ(memory.training_labels.size(), 6U * 2U);
  EXPECT_EQ(memory.training_features[3 * 4], 3.0F);
  EXPECT_EQ(memory.training_labels[3 * 2 + 1], 3.0F);
  EXPECT_EQ(memory.training_features[4 * 4], 0.0F);
}

struct BadBatch {
  const char* reason;
  std::vector<FeatureMap> features;
  std::vector<LabelMap> labels;
};

TEST(SampleMemory, RefusesABadBatchAndKeepsWhatItHeld) {
  const FeatureMap undefined{1, 2, 1, 2, {1.0F}};
  const FeatureMap two{2, 2, 1, 2, std::vector<float>(8, 1.0F)};
  const LabelMap undefined_label{1, 1, 2, {}};
  const LabelMap two_labels{2, 1, 2, std::vector<float>(4, 1.0F)};
  const std::vector<BadBatch> batches = {
      {"no features", {}, {}},
      {"no labels", {feature_of(1.0F)}, {}},
      {"fewer labels", {feature_of(1.0F), feature_of(2.0F)}, {label_of(1.0F)}},
      {"first feature undefined", {undefined}, {label_of(1.0F)}},
      {"first feature holds two samples", {two}, {label_of(1.0F)}},
      {"first label undefined", {feature_of(1.0F)}, {undefined_label}},
      {"first label holds two samples", {feature_of(1.0F)}, {two_labels}},
  };
  SampleMemory memory = memory_of(3, 5);
  const SampleMemory before = memory;
  for (const BadBatch& batch : batches) {
    SCOPED_TRACE(batch.reason);
    EXPECT_FALSE(memory.batch_init_(batch.features, batch.labels, 9));
    EXPECT_EQ(memory.training_features, before.training_features);
    EXPECT_EQ(memory.sample_weights, before.sample_weights);
    EXPECT_EQ(memory.num_stored_samples, 3);
  }
}

TEST(SampleMemory, DropsStartUpSamplesBeyondItsCapacity) {
  const SampleMemory memory = memory_of(7, 3);
  EXPECT_EQ(memory.num_stored_samples, 3);
  EXPECT_EQ(memory.num_init_samples, 3);
  EXPECT_EQ(memory.sample_weights, std::vector<float>(3, 1.0F / 3.0F));
}

TEST(SampleMemory, KeepsAZeroSampleAndItsWeightForABatchEntryOfAnotherShape) {
  SampleMemory memory;
  const LabelMap other_label{1, 1, 3, {5.0F, 5.0F, 5.0F}};
  ASSERT_TRUE(memory.batch_init_(
      {feature_of(7.0F), feature_of(8.0F, 3), feature_of(9.0F), feature_of(4.0F), FeatureMap()},
      {label_of(7.0F), label_of(8.0F), label_of(9.0F), other_label, label_of(1.0F)}, 8));
  EXPECT_EQ(memory.num_stored_samples, 5);
  EXPECT_EQ(memory.num_init_samples, 5);
  EXPECT_EQ(memory.sample_weights[1], 0.2F);
  EXPECT_EQ(memory.sample_weights[4], 0.2F);
  EXPECT_EQ(memory.sample_weights[5], 0.0F);
  std::vector<float> first_values;
  for (std::size_t slot = 0; slot < 5; ++slot) first_values.push_back(memory.training_features[slot * 4]);
  EXPECT_EQ(first_values, (std::vector<float>{7.0F, 0.0F, 9.0F, 0.0F, 0.0F}));
  EXPECT_EQ(memory.training_labels[1 * 2], 0.0F);
  EXPECT_EQ(memory.training_labels[3 * 2], 0.0F);
}

TEST(SampleMemory, CountsACapacityBelowOneAsOne) {
  SampleMemory memory;
  ASSERT_TRUE(memory.batch_init_({feature_of(1.0F)}, {label_of(1.0F)}, -5));
  EXPECT_EQ(memory.sample_weights, std::vector<float>{1.0F});
}

TEST(SampleMemory, RefusesABadSample) {
  SampleMemory memory = memory_of(2, 4);
  FeatureMap broken = feature_of(1.0F);
  broken.data.pop_back();
  EXPECT_FALSE(memory.store_(broken, label_of(1.0F), 0.1F, 4));
  EXPECT_FALSE(memory.store_(feature_of(1.0F), LabelMap(), 0.1F, 4));
  const FeatureMap two{2, 2, 1, 2, std::vector<float>(8, 1.0F)};
  EXPECT_FALSE(memory.store_(two, label_of(1.0F), 0.1F, 4));
  const LabelMap two_labels{2, 1, 2, std::vector<float>(4, 1.0F)};
  EXPECT_FALSE(memory.store_(feature_of(1.0F), two_labels, 0.1F, 4));
  EXPECT_EQ(memory.num_stored_samples, 2);
  EXPECT_EQ(memory.previous_replace_index, -1);
}

TEST(SampleMemory, PutsTheFirstSampleBehindTheStartUpSetWithItsRateAsWeight) {
  SampleMemory memory = memory_of(9, 250);
  EXPECT_EQ(store(&memory, 42.0F, 0.04F, 250), 9);
  const double sum = 1.0 / 0.96 + 0.04;
  EXPECT_NEAR(memory.sample_weights[0], 1.0 / 9.0 / 0.96 / sum, 1e-6);
  EXPECT_NEAR(memory.sample_weights[9], 0.04 / sum, 1e-6);
  EXPECT_EQ(memory.training_features[9 * 4 + 3], 42.0F);
  EXPECT_EQ(memory.training_labels[9 * 2 + 1], 42.0F);
  EXPECT_EQ(memory.num_stored_samples, 10);
}

TEST(SampleMemory, RaisesEachNewWeightAboveThePreviousByTheDecay) {
  SampleMemory memory = memory_of(9, 250);
  store(&memory, 1.0F, 0.04F, 250);
  store(&memory, 2.0F, 0.04F, 250);
  store(&memory, 3.0F, 0.04F, 250);
  EXPECT_NEAR(memory.sample_weights[11] / memory.sample_weights[10], 1.0 / 0.96, 1e-5);
}

TEST(SampleMemory, PutsASampleOfRateOneOverTheFirstSlot) {
  for (const float rate : {1.0F, 3.0F}) {
    SampleMemory memory = memory_of(3, 5);
    EXPECT_EQ(store(&memory, 42.0F, rate, 5), 0);
    EXPECT_EQ(memory.sample_weights, (std::vector<float>{1.0F, 0.0F, 0.0F, 0.0F, 0.0F}));
    EXPECT_EQ(memory.training_features[0], 42.0F);
    EXPECT_EQ(memory.num_stored_samples, 4);
  }
}

TEST(SampleMemory, TreatsARateOfZeroAsOneMillionth) {
  for (const float rate : {0.0F, -2.0F, std::numeric_limits<float>::quiet_NaN()}) {
    SampleMemory memory = memory_of(2, 5);
    SampleMemory twin = memory_of(2, 5);
    store(&memory, 1.0F, rate, 5);
    store(&twin, 1.0F, 1e-6F, 5);
    EXPECT_EQ(memory.sample_weights, twin.sample_weights);
    EXPECT_GT(memory.sample_weights[2], 0.0F);
  }
}

TEST(SampleMemory, ReplacesTheLightestUnprotectedSlotAndTheLowestOfEquals) {
  SampleMemory memory = memory_of(2, 6);
  for (int i = 0; i < 4; ++i) store(&memory, 1.0F, 0.1F, 6);
  memory.sample_weights = {0.0F, 0.01F, 0.3F, 0.2F, 0.2F, 0.29F};
  EXPECT_EQ(store(&memory, 42.0F, 0.1F, 6), 3);
}

TEST(SampleMemory, ProtectsStartUpSlotsFromReplacement) {
  SampleMemory memory = memory_of(3, 6);
  for (int i = 0; i < 200; ++i) {
    const int slot = store(&memory, 100.0F, 0.05F, 6);
    EXPECT_GE(slot, 3);
  }
  EXPECT_EQ(memory.training_features[2 * 4], 2.0F);
}

TEST(SampleMemory, StillReplacesTheLastSlotWhenAllAreProtected) {
  SampleMemory memory = memory_of(4, 4);
  EXPECT_EQ(store(&memory, 42.0F, 0.1F, 4), 3);
  EXPECT_EQ(store(&memory, 43.0F, 0.1F, 4), 3);
  EXPECT_EQ(memory.num_init_samples, 4);
}

TEST(SampleMemory, KeepsAQuarterOfTheWeightForTheStartUpSet) {
  SampleMemory memory = memory_of(9, 250);
  for (int i = 0; i < 3000; ++i) store(&memory, 1.0F, 0.04F, 250);
  float protected_sum = 0.0F;
  for (std::size_t i = 0; i < 9; ++i) {
    EXPECT_EQ(memory.sample_weights[i], static_cast<float>(0.25 / 9.0));
    protected_sum += memory.sample_weights[i];
  }
  EXPECT_FLOAT_EQ(protected_sum, 0.25F);
  EXPECT_GT(weight_sum(memory), 0.99F);
}

TEST(SampleMemory, KeepsCountingPastItsCapacity) {
  SampleMemory memory = memory_of(2, 4);
  for (int i = 0; i < 10; ++i) store(&memory, 1.0F, 0.1F, 4);
  EXPECT_EQ(memory.num_stored_samples, 12);
  EXPECT_EQ(memory.sample_weights.size(), 4U);
  TrainingSelection selection;
  ASSERT_TRUE(memory.select_(0, &selection));
  EXPECT_EQ(selection.available, 4);
}

TEST(SampleMemory, IsRebuiltAroundASampleOfAnotherShape) {
  SampleMemory memory = memory_of(3, 5);
  store(&memory, 1.0F, 0.1F, 5);
  ASSERT_TRUE(memory.store_(feature_of(42.0F, 3), label_of(41.0F), 0.1F, 5));
  EXPECT_EQ(memory.memory_channels, 3);
  EXPECT_EQ(memory.sample_weights, (std::vector<float>{1.0F, 0.0F, 0.0F, 0.0F, 0.0F}));
  EXPECT_EQ(memory.num_stored_samples, 1);
  EXPECT_EQ(memory.num_init_samples, 1);
  EXPECT_EQ(memory.previous_replace_index, -1);
  EXPECT_EQ(memory.training_features.size(), 5U * 6U);
  EXPECT_EQ(memory.training_features[5], 42.0F);
  EXPECT_EQ(memory.training_features[6], 0.0F);
  EXPECT_EQ(memory.training_labels[0], 41.0F);
}

TEST(SampleMemory, IsRebuiltAtAnotherCapacity) {
  SampleMemory memory = memory_of(3, 5);
  ASSERT_TRUE(memory.store_(feature_of(1.0F), label_of(1.0F), 0.1F, 7));
  EXPECT_EQ(memory.sample_weights.size(), 7U);
  EXPECT_EQ(memory.num_stored_samples, 1);
}

TEST(SampleMemory, TakesItsFirstSampleWithoutABatch) {
  SampleMemory memory;
  ASSERT_TRUE(memory.store_(feature_of(1.0F), label_of(1.0F), 0.1F, 3));
  EXPECT_EQ(memory.num_init_samples, 1);
  EXPECT_EQ(memory.sample_weights[0], 1.0F);
}

TEST(SampleMemory, PutsWeightsOfAnotherLengthBackToZeroFirst) {
  SampleMemory memory;
  memory.num_stored_samples = 2;
  memory.previous_replace_index = 9;
  EXPECT_EQ(memory.update_sample_weights_(0.5F, 4), 2);
  EXPECT_EQ(memory.sample_weights, (std::vector<float>{0.0F, 0.0F, 1.0F, 0.0F}));
}

TEST(TrainingSelection, CopiesSamplesInTheOrderOfSelection) {
  SampleMemory memory = memory_of(2, 6);
  store(&memory, 10.0F, 0.1F, 6);
  store(&memory, 11.0F, 0.1F, 6);
  store(&memory, 12.0F, 0.1F, 6);
  TrainingSelection selection;
  ASSERT_TRUE(memory.select_(4, &selection));
  EXPECT_EQ(selection.indices, (std::vector<int>{0, 1, 4, 3}));
  EXPECT_EQ(selection.available, 5);
  ASSERT_EQ(selection.features.size(), 4U * 4U);
  ASSERT_EQ(selection.labels.size(), 4U * 2U);
  EXPECT_EQ(selection.features[2 * 4], 12.0F);
  EXPECT_EQ(selection.features[3 * 4 + 3], 11.0F);
  EXPECT_EQ(selection.labels[2 * 2], 12.0F);
}

TEST(TrainingSelection, TakesNoLaterSampleWhenTheStartUpSetFillsTheCap) {
  SampleMemory memory = memory_of(4, 8);
  store(&memory, 10.0F, 0.9F, 8);
  TrainingSelection selection;
  ASSERT_TRUE(memory.select_(3, &selection));
  EXPECT_EQ(selection.indices, (std::vector<int>{0, 1, 2}));
}

TEST(TrainingSelection, TakesOneLaterSampleUnderTheDefaultCap) {
  SampleMemory memory = memory_of(9, 250);
  for (int i = 0; i < 40; ++i) store(&memory, 1.0F, 0.04F, 250);
  TrainingSelection selection;
  ASSERT_TRUE(memory.select_(10, &selection));
  EXPECT_EQ(selection.indices, (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 48}));
}

TEST(TrainingSelection, FallsBackToUniformWeights) {
  SampleMemory memory = memory_of(2, 4);
  memory.sample_weights = {-1.0F, -0.5F, 0.0F, 0.0F};
  memory.num_stored_samples = 4;
  TrainingSelection selection;
  ASSERT_TRUE(memory.select_(0, &selection));
  EXPECT_EQ(selection.weights, std::vector<float>(4, 0.25F));
  memory.sample_weights[2] = std::numeric_limits<float>::infinity();
  ASSERT_TRUE(memory.select_(0, &selection));
  EXPECT_EQ(selection.weights, std::vector<float>(4, 0.25F));
}

TEST(TrainingSelection, RefusesAMemoryThatCannotBeTrainedOn) {
  const SampleMemory good = memory_of(2, 4);
  TrainingSelection selection;
  selection.available = 17;
  EXPECT_FALSE(SampleMemory().select_(0, &selection));
  for (const auto& spoil : std::vector<void (*)(SampleMemory&)>{
           [](SampleMemory& m) { m.training_features.clear(); },
           [](SampleMemory& m) { m.training_labels.clear(); },
           [](SampleMemory& m) { m.sample_weights.clear(); }, [](SampleMemory& m) { m.memory_channels = 0; },
           [](SampleMemory& m) { m.memory_height = 0; }, [](SampleMemory& m) { m.memory_width = 0; },
           [](SampleMemory& m) { m.memory_label_height = 2; },
           [](SampleMemory& m) { m.memory_label_width = 1; }}) {
    SampleMemory memory = good;
    spoil(memory);
    EXPECT_FALSE(memory.select_(0, &selection));
  }
  EXPECT_EQ(selection.available, 17);
}

}  // namespace
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
