// What a judged frame does to the state: jump filter, scale, recovery mode.

#include "tracking_runtime/tracker/atom/frame_decision_fixture.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace decision_test {
namespace {

TEST(FrameDecision, JumpFilterHoldsEveryFrameUpToItsScore) {
  NativeCppBackend::Config config = plain_config();
  config.jump_filter_enabled = true;
  config.jump_max_motion_factor = 0.25F;  // of 48: 12 px
  const std::vector<Spike> weak{{kMiddle + 4, kMiddle, 100.0F}, {5, 5, 49.0F}};
  TargetState probe = started(plain_config());
  const float score = decide_spikes(&probe, weak).score;

  config.jump_min_score = score;
  TargetState state = started(config);
  const FrameDecision held = decide_spikes(&state, weak);
  EXPECT_TRUE(held.ok);
  EXPECT_STREQ(held.status, "ok_low_confidence_freeze_hold");
  EXPECT_STREQ(held.trace_event, "track_hold");
  EXPECT_EQ(held.score, score);
  EXPECT_EQ(state.target_pos.x, 319.5F);
  EXPECT_TRUE(state.recovery_active);
  EXPECT_FALSE(held.store);

  state.config.jump_min_score = std::nextafter(score, 0.0F);
  state.config.prefer_stable_reacquisition = false;
  EXPECT_STREQ(decide_spikes(&state, weak).status, "ok");
}

TEST(FrameDecision, LargeMotionOrScaleChangeChoosesTheJumpWord) {
  NativeCppBackend::Config config = plain_config();
  config.jump_filter_enabled = true;
  config.jump_min_score = 1.0F;
  config.jump_max_motion_factor = 0.25F;
  config.jump_max_scale_change = 0.08F;
  config.prefer_stable_reacquisition = false;
  const auto word = [&](int dx, float scale) {
    TargetState state = started(config);
    state.recovery_confirm_count = 5;
    const std::string result =
        decide(&state, {candidate(scale, state, {{kMiddle + dx, kMiddle, 100.0F}})}).status;
    EXPECT_FALSE(state.recovery_active);
    EXPECT_EQ(state.recovery_confirm_count, 5);
    return result;
  };
  EXPECT_EQ(word(12, 1.0F), "ok_low_confidence_freeze_hold");
  EXPECT_EQ(word(13, 1.0F), "ok_low_confidence_jump_hold");
  EXPECT_EQ(word(0, 1.05F), "ok_low_confidence_freeze_hold");
  EXPECT_EQ(word(0, 1.1F), "ok_low_confidence_jump_hold");
  EXPECT_EQ(word(0, 0.9F), "ok_low_confidence_jump_hold");
}

TEST(FrameDecision, ScaleStaysInsideItsDeadBandsAndIsSmoothedBeyond) {
  const auto scale_after = [](float band_px, float change_band, float smoothing) {
    NativeCppBackend::Config config = plain_config();
    config.roi_scale_deadband_px = band_px;
    config.scale_change_deadband = change_band;
    config.scale_smoothing = smoothing;
    TargetState state = started(config);
    decide(&state, {candidate(1.25F, state, {{}})});  // 48 px become 60: half the change is 6 px
    return state.target_scale;
  };
  EXPECT_FLOAT_EQ(scale_after(6.0F, 0.0F, 1.0F), 1.0F);
  EXPECT_FLOAT_EQ(scale_after(5.9F, 0.0F, 1.0F), 1.25F);
  EXPECT_FLOAT_EQ(scale_after(0.0F, 0.25F, 1.0F), 1.0F);
  EXPECT_FLOAT_EQ(scale_after(0.0F, 0.0F, 0.999F), 1.25F);
  EXPECT_FLOAT_EQ(scale_after(0.0F, 0.0F, 0.5F), 1.125F);
  EXPECT_FLOAT_EQ(scale_after(0.0F, 0.0F, -1.0F), 1.0F);
}

TEST(FrameDecision, ScaleBandGrowsWithTheTarget) {
  NativeCppBackend::Config config = plain_config();
  config.roi_scale_deadband_ratio = 0.125F;  // of 48: 6 px
  TargetState state = started(config);
  decide(&state, {candidate(1.25F, state, {{}})});
  EXPECT_FLOAT_EQ(state.target_scale, 1.0F);
}

TEST(FrameDecision, LimitsFollowTheLargerSideAndItsChange) {
  NativeCppBackend::Config config = plain_config();
  config.jump_filter_enabled = true;
  config.jump_min_score = 1.0F;
  config.jump_max_motion_factor = 0.25F;  // of 48: 12 px
  TargetState state = started_oblong(config);
  EXPECT_STREQ(decide_spikes(&state, {{kMiddle + 12, kMiddle, 100.0F}}).status,
               "ok_low_confidence_freeze_hold");

  const auto scale_after = [](float band_px, float band_ratio) {
    NativeCppBackend::Config banded = plain_config();
    banded.roi_scale_deadband_px = band_px;
    banded.roi_scale_deadband_ratio = band_ratio;
    TargetState oblong = started_oblong(banded);
    decide(&oblong, {candidate(1.25F, oblong, {{}})});  // 48 px become 60, 12 px become 15
    return oblong.target_scale;
  };
  EXPECT_FLOAT_EQ(scale_after(5.0F, 0.0F), 1.25F);
  EXPECT_FLOAT_EQ(scale_after(0.0F, 0.125F), 1.0F);
}

TEST(FrameDecision, SidesBelowTwoPixelsDoNotChange) {
  TargetState state = started(plain_config());
  state.target_size = {1.0F, 1.0F};
  state.base_target_size = {1.0F, 1.0F};
  EXPECT_EQ(decide(&state, {candidate(1.25F, state, {{}})}).size_change, 0.0F);
  EXPECT_EQ(state.target_scale, 1.0F);
}

TEST(FrameDecision, FlaggedFramesSkipTheScaleBands) {
  const auto scale_after = [](const std::vector<Spike>& spikes, bool on_uncertain) {
    NativeCppBackend::Config config = plain_config();
    config.prefer_stable_reacquisition = false;
    config.roi_scale_deadband_px = 1000.0F;
    config.scale_smoothing = 0.5F;
    config.scale_update_on_uncertain = on_uncertain;
    TargetState state = started(config);
    decide(&state, {candidate(1.25F, state, spikes)});
    return state.target_scale;
  };
  const std::vector<Spike> hard_negative{{kMiddle, kMiddle, 100.0F}, {5, 5, 60.0F}};
  const std::vector<Spike> uncertain{{10, 10, 100.0F}, {180, 180, 99.0F}};
  EXPECT_FLOAT_EQ(scale_after(hard_negative, false), 1.25F);
  EXPECT_FLOAT_EQ(scale_after(uncertain, true), 1.25F);
  EXPECT_FLOAT_EQ(scale_after(uncertain, false), 1.0F);
}

TEST(FrameDecision, WithoutOnlineUpdateTheBoxNeverMovesNorLearns) {
  NativeCppBackend::Config config = plain_config();
  config.enable_online_update = false;
  config.frames_between_learning = 1;
  TargetState state = started(config);
  const FrameDecision decision = decide(&state, {candidate(1.25F, state, {{kMiddle + 20, kMiddle, 100.0F}})});
  EXPECT_STREQ(decision.status, "ok");
  EXPECT_EQ(decision.bbox->x, 295.5F);
  EXPECT_EQ(state.target_scale, 1.0F);
  EXPECT_TRUE(decision.qualifies);
  EXPECT_FALSE(decision.store);
  EXPECT_FALSE(decision.training.has_value());
}

TEST(FrameDecision, RecoveryHoldsUntilEnoughFramesConfirm) {
  NativeCppBackend::Config config = plain_config();
  config.reacquire_confirm_frames = 3;
  TargetState state = started(config);
  state.enter_recovery_mode_();
  for (int frame = 1; frame <= 2; ++frame) {
    const FrameDecision held = decide_spikes(&state, {{kMiddle + 4, kMiddle, 100.0F}});
    EXPECT_TRUE(held.ok);
    EXPECT_STREQ(held.status, "ok_reacquire_hold");
    EXPECT_STREQ(held.trace_event, "track_hold");
    EXPECT_EQ(held.score, 1.0F);
    EXPECT_FALSE(held.store);
    EXPECT_TRUE(held.state_updated);
    EXPECT_EQ(state.recovery_confirm_count, frame);
    EXPECT_EQ(state.recovery_frame_count, frame);
  }
  EXPECT_FLOAT_EQ(state.target_pos.x, 328.0F);  // the target follows its estimate meanwhile
  EXPECT_STREQ(decide_spikes(&state, {{}}).status, "ok");
  EXPECT_FALSE(state.recovery_active);
  EXPECT_EQ(state.recovery_confirm_count, 0);
  EXPECT_EQ(state.recovery_frame_count, 0);
}

TEST(FrameDecision, AFlaggedFrameStartsRecoveryAndIsHeld) {
  TargetState state = started(plain_config());
  state.recovery_frame_count = 40;  // of an earlier recovery
  const FrameDecision held = decide_spikes(&state, {{kMiddle, kMiddle, 100.0F}, {5, 5, 60.0F}});
  EXPECT_STREQ(held.status, "ok_reacquire_hold");
  EXPECT_TRUE(state.recovery_active);
  EXPECT_EQ(state.recovery_frame_count, 1);
  decide_spikes(&state, {{kMiddle, kMiddle, 100.0F}, {5, 5, 60.0F}});
  EXPECT_EQ(state.recovery_frame_count, 2);
}

TEST(FrameDecision, ConfirmationNeedsScoreAndSmallMotion) {
  NativeCppBackend::Config config = plain_config();
  config.reacquire_confirm_frames = 2;
  config.reacquire_min_score = 0.9F;
  config.reacquire_max_motion_factor = 0.25F;  // of 48: 12 px
  const auto confirmed = [&](const std::vector<Spike>& spikes) {
    TargetState state = started(config);
    state.enter_recovery_mode_();
    decide_spikes(&state, spikes);
    return state.recovery_confirm_count;
  };
  EXPECT_EQ(confirmed({{kMiddle + 12, kMiddle, 100.0F}}), 1);
  EXPECT_EQ(confirmed({{kMiddle + 13, kMiddle, 100.0F}}), 0);
  EXPECT_EQ(confirmed({{kMiddle, kMiddle, 100.0F}, {5, 5, 40.0F}}), 0);
}

TEST(FrameDecision, ConfirmationMeasuresMotionByTheUpdatedSize) {
  NativeCppBackend::Config config = plain_config();
  config.reacquire_confirm_frames = 2;
  config.reacquire_max_motion_factor = 0.25F;  // of 48: 12 px; of 60: 15 px
  TargetState state = started(config);
  state.enter_recovery_mode_();
  decide(&state, {candidate(1.25F, state, {{kMiddle + 14, kMiddle, 100.0F}})});
  ASSERT_FLOAT_EQ(state.target_size.width, 60.0F);
  EXPECT_EQ(state.recovery_confirm_count, 1);
}

TEST(FrameDecision, AScoreExactlyAtTheMinimumConfirms) {
  NativeCppBackend::Config config = plain_config();
  config.reacquire_confirm_frames = 2;
  config.reacquire_min_score = 1.0F;
  TargetState state = started(config);
  state.enter_recovery_mode_();
  decide_spikes(&state, {{}});
  EXPECT_EQ(state.recovery_confirm_count, 1);
}

TEST(FrameDecision, OneFailedConfirmationStartsTheCountAnew) {
  NativeCppBackend::Config config = plain_config();
  TargetState state = started(config);
  state.enter_recovery_mode_();
  decide_spikes(&state, {{}});
  decide_spikes(&state, {{}});
  ASSERT_EQ(state.recovery_confirm_count, 2);
  decide_spikes(&state, {{kMiddle, kMiddle, 100.0F}, {5, 5, 49.0F}});
  EXPECT_EQ(state.recovery_confirm_count, 0);
  EXPECT_TRUE(state.recovery_active);
}

TEST(FrameDecision, ConfirmFramesOfZeroCountAsOne) {
  NativeCppBackend::Config config = plain_config();
  config.reacquire_confirm_frames = 0;
  TargetState state = started(config);
  state.enter_recovery_mode_();
  EXPECT_STREQ(decide_spikes(&state, {{}}).status, "ok");
  EXPECT_FALSE(state.recovery_active);
}

TEST(FrameDecision, RecoveryTimesOutAfterItsFrames) {
  NativeCppBackend::Config config = plain_config();
  config.reacquire_max_frames = 2;
  config.reacquire_min_score = 1.0F;
  TargetState state = started(config);
  state.enter_recovery_mode_();
  const std::vector<Spike> weak{{kMiddle + 4, kMiddle, 100.0F}, {5, 5, 40.0F}};
  EXPECT_STREQ(decide_spikes(&state, weak).status, "ok_reacquire_hold");
  EXPECT_STREQ(decide_spikes(&state, weak).status, "ok_reacquire_hold");
  const FrameDecision lost = decide_spikes(&state, weak);
  EXPECT_FALSE(lost.ok);
  EXPECT_STREQ(lost.status, "reacquire_timeout");
  EXPECT_EQ(lost.trace_event, nullptr);
  EXPECT_EQ(lost.score, 0.0F);
  EXPECT_FLOAT_EQ(lost.computed_score, 0.35F + 0.65F * 0.6F);
  ASSERT_TRUE(lost.bbox.has_value());
  EXPECT_FLOAT_EQ(state.target_pos.x, 332.0F);  // the state moved all the same
  EXPECT_FLOAT_EQ(lost.bbox->x, 308.0F);
  EXPECT_FALSE(state.recovery_active);
  EXPECT_EQ(state.recovery_frame_count, 0);
}

TEST(FrameDecision, MaxFramesOfZeroNeverTimesOut) {
  NativeCppBackend::Config config = plain_config();
  config.reacquire_max_frames = 0;
  config.reacquire_min_score = 2.0F;
  TargetState state = started(config);
  state.enter_recovery_mode_();
  for (int frame = 0; frame < 200; ++frame) {
    ASSERT_STREQ(decide_spikes(&state, {{}}).status, "ok_reacquire_hold");
  }
}

TEST(FrameDecision, HoldsDoNotCountAsFramesOfRecovery) {
  NativeCppBackend::Config config = plain_config();
  config.reacquire_max_frames = 1;
  config.target_not_found_score_threshold = 1000.0F;
  TargetState state = started(config);
  for (int frame = 0; frame < 5; ++frame) {
    ASSERT_STREQ(decide_spikes(&state, {{}}).status, "ok_low_confidence_hold");
  }
  EXPECT_EQ(state.recovery_frame_count, 0);
}

}  // namespace
}  // namespace decision_test
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
