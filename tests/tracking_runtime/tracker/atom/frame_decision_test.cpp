// The decision of a frame on scripted candidates: every word, every limit at its exact value.

#include "tracking_runtime/tracker/atom/frame_decision.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <utility>

#include "tracking_runtime/parameter/atom/resnet18.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

constexpr int kSide = 192;
constexpr int kMiddle = kSide / 2;
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

struct Spike {
  int x = kMiddle;
  int y = kMiddle;
  float height = 100.0F;
};

/// Settings under which a single clean spike is a normal, accepted frame and nothing is smoothed.
NativeCppBackend::Config plain_config() {
  NativeCppBackend::Config config = parameter::atom::parameters();
  config.search_size = kSide;
  config.search_area_factor = 4.0F;
  config.target_not_found_score_threshold = 1.0F;
  config.use_soft_argmax = false;
  config.micro_motion_deadband_px = 0.0F;
  config.micro_motion_deadband_ratio = 0.0F;
  config.position_smoothing = 1.0F;
  config.jump_filter_enabled = false;
  config.min_update_scale_margin = 0.0F;
  config.frames_between_learning = 1000;
  config.roi_scale_deadband_px = 0.0F;
  config.roi_scale_deadband_ratio = 0.0F;
  config.scale_change_deadband = 0.0F;
  config.scale_smoothing = 1.0F;
  return config;
}

/// A target of 48 x 48 in the middle of 640 x 480: root area times 4 is 192, so the scale is 1.
TargetState started(const NativeCppBackend::Config& config) {
  TargetState state(config);
  state.initialized = true;
  state.runtime_initialized = true;
  state.image_size = {640, 480};
  const cv::Rect_<int> box{296, 216, 48, 48};
  state.place_at_start_(box);
  state.derive_scale_at_start_(box);
  return state;
}

Candidate candidate(float scale, const TargetState& state, const std::vector<Spike>& spikes) {
  Candidate result;
  result.scale = scale;
  result.target_scale = state.target_scale * scale;
  result.response = cv::Mat::zeros(kSide, kSide, CV_32F);
  for (const Spike& spike : spikes) result.response.at<float>(spike.y, spike.x) = spike.height;
  result.raw = spikes.front().height;
  result.peak = {spikes.front().x, spikes.front().y};
  result.feature = FeatureMap{1, 1, 1, 1, {1.0F}};
  return result;
}

FrameDecision decide(TargetState* state, std::vector<Candidate> candidates,
                     const FramePath& path = kViewPath) {
  for (std::size_t i = 0; i < candidates.size(); ++i) candidates[i].index = static_cast<int>(i);
  return decide_frame(state, &candidates, path);
}

FrameDecision decide_spikes(TargetState* state, const std::vector<Spike>& spikes,
                            const FramePath& path = kViewPath) {
  return decide(state, {candidate(1.0F, *state, spikes)}, path);
}

/// Two spikes of nearly one height at these distances right of the middle.
FrameDecision decide_distractor(TargetState* state, int best_distance, int second_distance) {
  return decide_spikes(
      state, {{kMiddle + best_distance, kMiddle, 100.0F}, {kMiddle, kMiddle + second_distance, 99.0F}});
}

TEST(FrameDecision, CountsTheFrameAndFailsWithoutCandidates) {
  TargetState state = started(plain_config());
  const FrameDecision decision = decide(&state, {});
  EXPECT_FALSE(decision.ok);
  EXPECT_STREQ(decision.status, "no_valid_candidate");
  EXPECT_STREQ(decision.trace_event, "track_fail");
  EXPECT_FALSE(decision.bbox.has_value());
  EXPECT_EQ(decision.score, 0.0F);
  EXPECT_EQ(decision.best_scale, 1.0F);
  EXPECT_EQ(state.frame_index, 1);
}

TEST(FrameDecision, UsesTheWordsOfItsPixelSource) {
  NativeCppBackend::Config config = plain_config();
  config.prefer_stable_reacquisition = false;
  const std::vector<Spike> hard_negative{{kMiddle, kMiddle, 100.0F}, {10, 10, 60.0F}};
  const auto word = [&](const std::vector<Spike>& spikes, const FramePath& path) {
    TargetState state = started(config);
    return std::string(decide_spikes(&state, spikes, path).status);
  };
  const std::vector<Spike> uncertain{{10, 10, 100.0F}, {180, 180, 99.0F}};
  EXPECT_EQ(word({{}}, kViewPath), "ok");
  EXPECT_EQ(word({{}}, kHostImagePath), "ok_native_cpp_backend");
  EXPECT_EQ(word(hard_negative, kViewPath), "ok_hard_negative");
  EXPECT_EQ(word(hard_negative, kHostImagePath), "ok_native_cpp_hard_negative");
  EXPECT_EQ(word(uncertain, kViewPath), "ok_uncertain");
  EXPECT_EQ(word(uncertain, kHostImagePath), "ok_native_cpp_uncertain");
}

TEST(FrameDecision, LowerScaleWinsATie) {
  TargetState state = started(plain_config());
  const FrameDecision decision = decide(
      &state, {candidate(0.9F, state, {{}}), candidate(1.0F, state, {{}}), candidate(1.1F, state, {{}})});
  EXPECT_EQ(decision.best, 0);
  EXPECT_EQ(decision.best_scale, 0.9F);
  EXPECT_EQ(decision.scale_margin, 0.0F);
}

TEST(FrameDecision, RefinesTheScaleOnlyBetweenTwoNeighbours) {
  const auto best_scale = [](float low, float middle, float high, bool refine) {
    NativeCppBackend::Config config = plain_config();
    config.use_log_scale_peak_refinement = refine;
    TargetState state = started(config);
    return decide(&state, {candidate(0.9F, state, {{kMiddle, kMiddle, low}}),
                           candidate(1.0F, state, {{kMiddle, kMiddle, middle}}),
                           candidate(1.1F, state, {{kMiddle, kMiddle, high}})})
        .best_scale;
  };
  EXPECT_GT(best_scale(80.0F, 100.0F, 95.0F, true), 1.001F);
  EXPECT_LT(best_scale(95.0F, 100.0F, 80.0F, true), 0.999F);
  EXPECT_EQ(best_scale(80.0F, 100.0F, 95.0F, false), 1.0F);
  EXPECT_EQ(best_scale(80.0F, 95.0F, 100.0F, true), 1.1F);
  EXPECT_EQ(best_scale(100.0F, 95.0F, 80.0F, true), 0.9F);
}

TEST(FrameDecision, MeasuresTheScaleMargin) {
  TargetState state = started(plain_config());
  const std::vector<Spike> best{{kMiddle, kMiddle, 100.0F}};
  EXPECT_EQ(decide(&state, {candidate(1.0F, state, best)}).scale_margin, 1.0F);
  EXPECT_NEAR(
      decide(&state, {candidate(0.9F, state, {{kMiddle, kMiddle, 75.0F}}), candidate(1.0F, state, best)})
          .scale_margin,
      0.25F, 1e-6F);
  // All others below zero: the margin is clamped, not above 1.
  EXPECT_EQ(
      decide(&state, {candidate(0.9F, state, {{kMiddle, kMiddle, -5.0F}}), candidate(1.0F, state, best)})
          .scale_margin,
      1.0F);
  state.config.target_not_found_score_threshold = -1.0F;
  EXPECT_EQ(decide(&state, {candidate(1.0F, state, {{kMiddle, kMiddle, 1e-6F}})}).scale_margin, 0.0F);
}

TEST(FrameDecision, TurnsResponsePixelsIntoFramePixels) {
  NativeCppBackend::Config config = plain_config();
  TargetState state = started(config);
  state.target_scale = 2.0F;
  const FrameDecision decision = decide_spikes(&state, {{kMiddle + 10, kMiddle - 4, 100.0F}});
  EXPECT_FLOAT_EQ(decision.mx, 20.0F);
  EXPECT_FLOAT_EQ(decision.my, -8.0F);
  EXPECT_FLOAT_EQ(decision.motion, std::sqrt(464.0F));
}

TEST(FrameDecision, MeasuresDisplacementFromTheRoundedCentre) {
  TargetState state = started(plain_config());
  ASSERT_EQ(state.target_pos.x, 319.5F);
  const FrameDecision decision = decide_spikes(&state, {{kMiddle + 10, kMiddle, 100.0F}});
  EXPECT_EQ(decision.sample_pos.x, 320.0F);  // half away from zero
  EXPECT_EQ(state.target_pos.x, 330.0F);
}

TEST(FrameDecision, SoftArgmaxMovesThePeakBetweenPixels) {
  NativeCppBackend::Config config = plain_config();
  config.use_soft_argmax = true;
  config.soft_argmax_radius = 2;
  config.soft_argmax_sharpness = 1.0F;
  TargetState state = started(config);
  const FrameDecision decision =
      decide_spikes(&state, {{kMiddle, kMiddle, 100.0F}, {kMiddle + 1, kMiddle, 100.0F}});
  EXPECT_NEAR(decision.mx, 0.5F, 1e-4F);
}

TEST(FrameDecision, HoldsAPeakBelowTheThresholdWithoutTouchingTheState) {
  for (const bool analysis : {true, false}) {
    for (const bool stable : {true, false}) {
      NativeCppBackend::Config config = plain_config();
      config.enable_hard_negative_analysis = analysis;
      config.prefer_stable_reacquisition = stable;
      config.target_not_found_score_threshold = 100.5F;
      TargetState state = started(config);
      state.recovery_confirm_count = 2;
      state.recovery_frame_count = 7;
      const FrameDecision decision = decide_spikes(&state, {{kMiddle + 10, kMiddle, 100.0F}});
      EXPECT_TRUE(decision.ok);
      EXPECT_STREQ(decision.status, "ok_low_confidence_hold");
      EXPECT_STREQ(decision.trace_event, "track_hold");
      EXPECT_EQ(decision.score, 0.0F);
      ASSERT_TRUE(decision.bbox.has_value());
      EXPECT_EQ(decision.bbox->x, 295.5F);
      EXPECT_EQ(state.target_pos.x, 319.5F);
      EXPECT_FALSE(decision.store);
      EXPECT_FALSE(decision.state_updated);
      EXPECT_EQ(state.recovery_active, stable);
      EXPECT_EQ(state.recovery_confirm_count, 0);
      EXPECT_EQ(state.recovery_frame_count, 7);
    }
  }
}

TEST(FrameDecision, APeakAtTheThresholdIsNotHeld) {
  NativeCppBackend::Config config = plain_config();
  config.target_not_found_score_threshold = 100.0F;
  TargetState state = started(config);
  EXPECT_STREQ(decide_spikes(&state, {{}}).status, "ok");
}

TEST(FrameDecision, OnlyTheUnanalysedBranchScalesTheDisplacementByTheChosenScale) {
  const auto displacement = [](bool analysis) {
    NativeCppBackend::Config config = plain_config();
    config.enable_hard_negative_analysis = analysis;
    config.use_log_scale_peak_refinement = false;
    TargetState state = started(config);
    return decide(&state, {candidate(0.5F, state, {{kMiddle + 10, kMiddle, 100.0F}})}).mx;
  };
  EXPECT_FLOAT_EQ(displacement(true), 10.0F);
  EXPECT_FLOAT_EQ(displacement(false), 5.0F);
}

TEST(FrameDecision, MasksTheNeighbourhoodOfTheBestPeak) {
  // Target 48 px at scale 1, exclusion 2.2: 105.6 response pixels, from -53 up to, excluding, +54.
  TargetState state = started(plain_config());
  const auto second_at = [&](int dx) {
    return decide_spikes(&state, {{kMiddle, kMiddle, 100.0F}, {kMiddle + dx, kMiddle, 30.0F}}).max2;
  };
  EXPECT_EQ(second_at(-53), 0.0F);
  EXPECT_EQ(second_at(-54), 30.0F);
  EXPECT_EQ(second_at(53), 0.0F);
  EXPECT_EQ(second_at(54), 30.0F);
}

TEST(FrameDecision, SecondPeakIsNeverBelowZero) {
  NativeCppBackend::Config config = plain_config();
  TargetState state = started(config);
  Candidate negative = candidate(1.0F, state, {{}});
  negative.response.setTo(-1.0F);
  negative.response.at<float>(kMiddle, kMiddle) = 100.0F;
  state.config.peak_exclusion_scale = 0.0F;
  EXPECT_EQ(decide(&state, {negative}).max2, 0.0F);
}

TEST(FrameDecision, ASecondPeakExactlyAtTheDistractorRatioIsNone) {
  NativeCppBackend::Config config = plain_config();
  config.prefer_stable_reacquisition = false;
  config.hard_negative_ratio = 2.0F;
  const float limit = config.distractor_ratio * 100.0F;
  const auto flag = [&](float second) {
    TargetState state = started(config);
    return decide_spikes(&state, {{kMiddle, kMiddle, 100.0F}, {5, 5, second}}).flag;
  };
  EXPECT_EQ(flag(limit), FrameFlag::kNormal);
  EXPECT_NE(flag(std::nextafter(limit, 1e9F)), FrameFlag::kNormal);
}

TEST(FrameDecision, AHardNegativeNeedsBothItsRatioAndTheThreshold) {
  NativeCppBackend::Config config = plain_config();
  config.prefer_stable_reacquisition = false;
  const auto flag = [&](float second, float threshold) {
    config.target_not_found_score_threshold = threshold;
    TargetState state = started(config);
    return decide_spikes(&state, {{kMiddle, kMiddle, 100.0F}, {5, 5, second}}).flag;
  };
  const float limit = config.hard_negative_ratio * 100.0F;
  EXPECT_EQ(flag(limit, 1.0F), FrameFlag::kNormal);
  EXPECT_EQ(flag(limit + 1.0F, 1.0F), FrameFlag::kHardNegative);
  EXPECT_EQ(flag(limit + 1.0F, limit + 1.0F), FrameFlag::kNormal);
}

TEST(FrameDecision, DistanceTellsWhichOfTwoPeaksIsTheTarget) {
  NativeCppBackend::Config config = plain_config();
  config.prefer_stable_reacquisition = false;
  config.peak_exclusion_scale = 0.0F;
  config.peak_distance_ratio = 0.5F;  // a limit of 48 response pixels
  const auto run = [&](int best_distance, int second_distance) {
    TargetState state = started(config);
    return decide_distractor(&state, best_distance, second_distance);
  };
  const FrameDecision best_is_close = run(47, 49);
  EXPECT_EQ(best_is_close.flag, FrameFlag::kHardNegative);
  EXPECT_FLOAT_EQ(best_is_close.mx, 47.0F);
  const FrameDecision second_is_close = run(49, 47);
  EXPECT_EQ(second_is_close.flag, FrameFlag::kHardNegative);
  EXPECT_FLOAT_EQ(second_is_close.mx, 0.0F);
  EXPECT_FLOAT_EQ(second_is_close.my, 47.0F);
  EXPECT_EQ(run(48, 80).flag, FrameFlag::kUncertain);
  EXPECT_EQ(run(10, 48).flag, FrameFlag::kUncertain);
  EXPECT_EQ(run(10, 20).flag, FrameFlag::kUncertain);
  EXPECT_EQ(run(80, 90).flag, FrameFlag::kUncertain);
}

TEST(FrameDecision, DeadBandActsOnNormalFramesOnly) {
  NativeCppBackend::Config config = plain_config();
  config.prefer_stable_reacquisition = false;
  config.micro_motion_deadband_px = 3.0F;
  TargetState state = started(config);
  EXPECT_FLOAT_EQ(decide_spikes(&state, {{kMiddle + 10, kMiddle - 2, 100.0F}}).mx, 7.0F);
  EXPECT_FLOAT_EQ(decide_spikes(&state, {{kMiddle + 10, kMiddle - 2, 100.0F}}).my, 0.0F);
  EXPECT_FLOAT_EQ(decide_spikes(&state, {{kMiddle + 10, kMiddle, 100.0F}, {5, 5, 60.0F}}).mx, 10.0F);
  state.config.micro_motion_deadband_ratio = 0.125F;  // of 48: 6 px, the larger of the two
  EXPECT_FLOAT_EQ(decide_spikes(&state, {{kMiddle + 10, kMiddle, 100.0F}}).mx, 4.0F);
}

TEST(FrameDecision, PositionSmoothingBlendsNormalFramesOnly) {
  const auto moved_to = [](float smoothing, bool flagged) {
    NativeCppBackend::Config config = plain_config();
    config.prefer_stable_reacquisition = false;
    config.position_smoothing = smoothing;
    TargetState state = started(config);
    std::vector<Spike> spikes{{kMiddle + 10, kMiddle, 100.0F}};
    if (flagged) spikes.push_back({5, 5, 60.0F});
    decide_spikes(&state, spikes);
    return state.target_pos.x;
  };
  EXPECT_FLOAT_EQ(moved_to(0.999F, false), 330.0F);
  EXPECT_FLOAT_EQ(moved_to(0.5F, false), 0.5F * 319.5F + 0.5F * 330.0F);
  EXPECT_FLOAT_EQ(moved_to(0.0F, false), 319.5F);
  EXPECT_FLOAT_EQ(moved_to(0.0F, true), 330.0F);
}

TEST(FrameDecision, ScoresPeakRatioAndFlags) {
  NativeCppBackend::Config config = plain_config();
  config.prefer_stable_reacquisition = false;
  config.peak_exclusion_scale = 0.5F;
  config.peak_distance_ratio = 0.5F;
  const auto score = [&](const std::vector<Spike>& spikes) {
    TargetState state = started(config);
    return decide_spikes(&state, spikes).score;
  };
  EXPECT_FLOAT_EQ(score({{}}), 1.0F);
  EXPECT_FLOAT_EQ(score({{}, {5, 5, 40.0F}}), 0.35F + 0.65F * 0.6F);
  EXPECT_FLOAT_EQ(score({{}, {5, 5, 60.0F}}), 0.75F * (0.35F + 0.65F * 0.4F));
  EXPECT_FLOAT_EQ(score({{}, {kMiddle + 30, kMiddle, 90.0F}}), 0.5F * (0.35F + 0.65F * 0.1F));
  config.target_not_found_score_threshold = 100.0F;
  EXPECT_FLOAT_EQ(score({{}}), 0.5F);
}

TEST(FrameDecision, ATinyPeakScoresTheBaseMultiplier) {
  NativeCppBackend::Config config = plain_config();
  config.prefer_stable_reacquisition = false;
  config.target_not_found_score_threshold = -10.0F;
  TargetState state = started(config);
  EXPECT_FLOAT_EQ(decide_spikes(&state, {{kMiddle, kMiddle, 1e-4F}}).score, 0.35F);
  EXPECT_GT(decide_spikes(&state, {{kMiddle, kMiddle, 2e-4F}}).score, 0.9F);
}

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

TEST(FrameDecision, ANanPeakEndsInAnAnswer) {
  TargetState state = started(plain_config());
  Candidate broken = candidate(1.0F, state, {{kMiddle, kMiddle, kNan}});
  broken.response.setTo(kNan);
  broken.peak = {-1, -1};
  const FrameDecision decision = decide(&state, {broken});
  EXPECT_TRUE(decision.ok);
  EXPECT_TRUE(decision.bbox.has_value());
}

TEST(FrameDecision, ANanStateNeverIndexesMemory) {
  TargetState state = started(plain_config());
  state.target_pos = {kNan, 1e30F};
  state.target_size = {kNan, std::numeric_limits<float>::infinity()};
  state.target_scale = kNan;
  const FrameDecision decision = decide_spikes(&state, {{}});
  EXPECT_NE(decision.status, nullptr);
}

TEST(SearchScales, AreSortedAndMerged) {
  EXPECT_EQ(sorted_search_scales({1.1F, 0.9F, 1.0F, 1.0F, 0.0F}),
            (std::vector<float>{0.0F, 0.9F, 1.0F, 1.1F}));
  EXPECT_EQ(sorted_search_scales({}), std::vector<float>{1.0F});
}

TEST(MakeCandidate, DropsAnEmptyResponseAndOneLargerThanTheSearchSize) {
  EXPECT_FALSE(make_candidate(cv::Mat(), 1.0F, 1.0F, 4, 4, 192).has_value());
  EXPECT_FALSE(make_candidate(cv::Mat::ones(9, 9, CV_32F), 1.0F, 1.0F, 4, 4, 8).has_value());
}

TEST(MakeCandidate, CentresZeroDisplacementAndRatesItsPeak) {
  // An even filter: zero displacement is the cell right below the middle of the low-resolution map.
  cv::Mat response = cv::Mat::zeros(12, 12, CV_32F);
  response.at<float>(6, 6) = 1.0F;
  const std::optional<Candidate> candidate = make_candidate(response, 0.95F, 2.0F, 4, 4, 192);
  ASSERT_TRUE(candidate.has_value());
  EXPECT_EQ(candidate->peak, cv::Point(96, 96));
  EXPECT_EQ(candidate->response.size(), cv::Size(192, 192));
  EXPECT_NEAR(candidate->raw, 144.0F, 12.5F);  // rows times columns: the transforms are not normalised
  EXPECT_FLOAT_EQ(candidate->target_scale, 1.9F);
  EXPECT_GT(candidate->confidence, 0.99F);
  EXPECT_LE(candidate->confidence, 1.0F);
}

}  // namespace
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
