// The best scale, the peaks and the score of a frame: every limit at its exact value.

#include "tracking_runtime/tracker/atom/frame_decision_fixture.h"

#include <limits>

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace decision_test {
namespace {

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

/// Two spikes of nearly one height at these distances: the best right of the middle, the other below it.
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

TEST(FrameDecision, MeasuresAnOblongResponseByBothOfItsSides) {
  NativeCppBackend::Config config = plain_config();
  config.prefer_stable_reacquisition = false;
  config.peak_exclusion_scale = 0.0F;
  config.peak_distance_ratio = 0.5F;
  TargetState state = started(config);
  Candidate oblong = candidate(1.0F, state, {{116, 26, 100.0F}});
  oblong.response = cv::Mat::zeros(48, kSide, CV_32F);  // a limit of half the root of 48 * 192 over 2: 24
  oblong.response.at<float>(26, 116) = 100.0F;          // 20 right of the middle, 2 below
  oblong.response.at<float>(24, 66) = 99.0F;            // 30 left of it
  const FrameDecision decision = decide(&state, {oblong});
  EXPECT_EQ(decision.flag, FrameFlag::kHardNegative);
  EXPECT_FLOAT_EQ(decision.mx, 20.0F);
  EXPECT_FLOAT_EQ(decision.my, 8.0F);  // a row stands for four pixels of the input
}

TEST(FrameDecision, AScaleOfNoSizeMasksTheWholeResponse) {
  TargetState state = started(plain_config());
  state.target_scale = -1.0F;
  EXPECT_EQ(decide_spikes(&state, {{kMiddle, kMiddle, 100.0F}, {5, 5, 60.0F}}).max2, 0.0F);
}

TEST(FrameDecision, DeadBandGrowsWithTheLargerSide) {
  NativeCppBackend::Config config = plain_config();
  config.micro_motion_deadband_ratio = 0.125F;  // of 48: 6 px
  TargetState state = started_oblong(config);
  EXPECT_FLOAT_EQ(decide_spikes(&state, {{kMiddle + 10, kMiddle, 100.0F}}).mx, 4.0F);
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

void expect_box_inside_frame(const FrameDecision& decision) {
  ASSERT_TRUE(decision.bbox.has_value());
  EXPECT_GE(decision.bbox->x, 0.0F);
  EXPECT_GE(decision.bbox->y, 0.0F);
  EXPECT_LE(decision.bbox->x + decision.bbox->width, 640.0F);
  EXPECT_LE(decision.bbox->y + decision.bbox->height, 480.0F);
}

TEST(FrameDecision, ANanPeakEndsInAnAnswer) {
  TargetState state = started(plain_config());
  Candidate broken = candidate(1.0F, state, {{kMiddle, kMiddle, kNan}});
  broken.response.setTo(kNan);
  broken.peak = {-1, -1};
  const FrameDecision decision = decide(&state, {broken});
  EXPECT_TRUE(decision.ok);
  expect_box_inside_frame(decision);
}

TEST(FrameDecision, ANanStateNeverIndexesMemory) {
  TargetState state = started(plain_config());
  state.target_pos = {kNan, 1e30F};
  state.target_size = {kNan, std::numeric_limits<float>::infinity()};
  state.target_scale = kNan;
  const FrameDecision decision = decide_spikes(&state, {{}});
  EXPECT_STRNE(decision.status, "");
  expect_box_inside_frame(decision);
}

}  // namespace
}  // namespace decision_test
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
