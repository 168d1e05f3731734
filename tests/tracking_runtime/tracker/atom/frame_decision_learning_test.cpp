// What a judged frame teaches: the sample it stores and the training it asks for.

#include "tracking_runtime/tracker/atom/frame_decision_fixture.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace decision_test {
namespace {

TEST(FrameDecision, StoresFromExactlyTheLeastConfidenceAndMargin) {
  NativeCppBackend::Config config = plain_config();
  config.min_update_confidence = 1.0F;
  config.min_update_scale_margin = 0.25F;
  TargetState state = started(config);
  const auto decide_margin = [&](float other) {
    return decide(&state,
                  {candidate(0.9F, state, {{kMiddle, kMiddle, other}}), candidate(1.0F, state, {{}})});
  };
  EXPECT_TRUE(decide_margin(75.0F).store);
  EXPECT_FALSE(decide_margin(76.0F).store);
  EXPECT_FALSE(decide_margin(76.0F).qualifies);
  state.config.min_update_confidence = std::nextafter(1.0F, 2.0F);
  EXPECT_FALSE(decide_margin(75.0F).store);
}

TEST(FrameDecision, ACandidateWithoutFeatureStoresNothing) {
  TargetState state = started(plain_config());
  Candidate bare = candidate(1.0F, state, {{}});
  bare.feature = FeatureMap{};
  const FrameDecision decision = decide(&state, {bare});
  EXPECT_STREQ(decision.status, "ok");
  EXPECT_TRUE(decision.qualifies);
  EXPECT_FALSE(decision.store);
}

TEST(FrameDecision, UncertainFramesNeverStore) {
  NativeCppBackend::Config config = plain_config();
  config.prefer_stable_reacquisition = false;
  config.min_update_confidence = 0.0F;
  TargetState state = started(config);
  const FrameDecision decision = decide_spikes(&state, {{10, 10, 100.0F}, {180, 180, 99.0F}});
  EXPECT_TRUE(decision.accepted);
  EXPECT_FALSE(decision.qualifies);
  EXPECT_FALSE(decision.store);
}

TEST(FrameDecision, TrainsByPeriodOfTheFrameCounter) {
  NativeCppBackend::Config config = plain_config();
  config.frames_between_learning = 4;
  config.update_iterations = 7;
  config.max_sample_history = 11;
  TargetState state = started(config);
  for (int frame = 1; frame <= 8; ++frame) {
    const FrameDecision decision = decide_spikes(&state, {{}});
    ASSERT_TRUE(decision.store);
    EXPECT_EQ(decision.rate, config.learning_rate);
    ASSERT_EQ(decision.training.has_value(), frame % 4 == 0) << frame;
    if (!decision.training) continue;
    EXPECT_EQ(decision.training->iterations, 7);
    EXPECT_EQ(decision.training->sample_cap, 11);
    EXPECT_STREQ(decision.training->reason, "periodic");
  }
}

TEST(FrameDecision, APeriodOfOneOrBelowTrainsOnEverySample) {
  for (const int period : {1, 0, -3}) {
    NativeCppBackend::Config config = plain_config();
    config.frames_between_learning = period;
    config.update_iterations = 0;
    config.max_sample_history = -1;
    TargetState state = started(config);
    for (int frame = 0; frame < 3; ++frame) {
      const FrameDecision decision = decide_spikes(&state, {{}});
      ASSERT_TRUE(decision.training.has_value());
      EXPECT_EQ(decision.training->iterations, 1);
      EXPECT_EQ(decision.training->sample_cap, 1);
    }
  }
}

TEST(FrameDecision, AHardNegativeAlwaysTrainsAtItsOwnRate) {
  NativeCppBackend::Config config = plain_config();
  config.prefer_stable_reacquisition = false;
  config.min_update_confidence = 0.0F;
  TargetState state = started(config);
  const FrameDecision decision = decide_spikes(&state, {{kMiddle, kMiddle, 100.0F}, {5, 5, 60.0F}});
  ASSERT_TRUE(decision.store);
  EXPECT_EQ(decision.rate, config.hard_negative_learning_rate);
  ASSERT_TRUE(decision.training.has_value());
  EXPECT_EQ(decision.training->iterations, config.hard_negative_iterations);
  EXPECT_EQ(decision.training->sample_cap, config.max_hard_negative_history);
  EXPECT_STREQ(decision.training->reason, "hard_negative");
}

}  // namespace
}  // namespace decision_test
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
