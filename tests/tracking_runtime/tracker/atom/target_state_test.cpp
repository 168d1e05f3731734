#include "tracking_runtime/tracker/atom/target_state.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "support/golden.h"
#include "tracking_runtime/parameter/atom/resnet18.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

using ostrel_test::load_golden_case;
using ostrel_test::matches_golden;

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

TargetState default_state() {
  return TargetState(parameter::atom::parameters());
}

// A state of 10 x 10 pixels at scale 1, free to move between scales 0.1 and 10.
TargetState small_state() {
  TargetState state = default_state();
  state.base_target_size = {10.0F, 10.0F};
  state.target_size = {10.0F, 10.0F};
  state.target_pos = {50.0F, 40.0F};
  return state;
}

void append_boxes(const TargetState& state, const cv::Size& frame, std::vector<float>* row) {
  const base::BBox box = state.bboxf_from_state_(frame);
  const cv::Rect rect = state.bbox_from_state_(frame);
  row->insert(row->end(), {box.x, box.y, box.width, box.height});
  for (const int value : {rect.x, rect.y, rect.width, rect.height}) row->push_back(static_cast<float>(value));
}

TEST(TargetState, DerivesScaleAndBoundsFromTheStartBoxAsGolden) {
  const auto golden = load_golden_case("target_state", "derive");
  const auto rows = golden.input_as<int>("rect_image");
  std::vector<float> states;
  for (std::size_t i = 0; i + 6 <= rows.size(); i += 6) {
    TargetState state = default_state();
    state.config.search_size = golden.i32("search_size");
    state.config.search_area_factor = golden.f32("search_area_factor");
    state.config.enable_scale_predictor = true;
    state.config.scale_predictor_measurement_noise_scale = 0.03F;
    state.config.scale_predictor_process_noise_velocity = 0.00005F;
    state.image_size = {rows[i + 4], rows[i + 5]};
    const cv::Rect box(rows[i], rows[i + 1], rows[i + 2], rows[i + 3]);
    state.place_at_start_(box);
    state.derive_scale_at_start_(box);
    states.insert(states.end(),
                  {state.target_pos.x, state.target_pos.y, state.target_size.width, state.target_size.height,
                   state.base_target_size.width, state.base_target_size.height, state.target_scale,
                   state.initial_target_scale, state.min_target_scale, state.max_target_scale,
                   state.scale_log, state.scale_p00, state.scale_p01, state.scale_p10, state.scale_p11});
    append_boxes(state, state.image_size, &states);
  }
  EXPECT_TRUE(matches_golden(golden.output("state"), states));
}

TEST(TargetState, LeavesTheScaleFilterUnseededAtStartWhileThePredictorIsOff) {
  TargetState state = default_state();
  state.image_size = {640, 480};
  state.derive_scale_at_start_({10, 20, 48, 40});
  EXPECT_FALSE(state.scale_kalman_seeded);
  state.config.enable_scale_predictor = true;
  state.derive_scale_at_start_({10, 20, 48, 40});
  EXPECT_TRUE(state.scale_kalman_seeded);
}

TEST(TargetState, StartsAtScaleOneWhereNoneCanBeDerived) {
  TargetState state = default_state();
  state.config.search_area_factor = std::numeric_limits<float>::infinity();
  state.image_size = {640, 480};
  state.derive_scale_at_start_({10, 20, 48, 40});
  EXPECT_EQ(state.target_scale, 1.0F);
  EXPECT_EQ(state.initial_target_scale, 1.0F);
  EXPECT_EQ(state.base_target_size, cv::Size_<float>(48.0F, 40.0F));
}

TEST(TargetState, ClampsScalesAsGolden) {
  const auto golden = load_golden_case("target_state", "clamp");
  const auto rows = golden.input_as<float>("rows");
  std::vector<float> clamped;
  for (std::size_t i = 0; i + 6 <= rows.size(); i += 6) {
    TargetState state = default_state();
    state.min_target_scale = rows[i];
    state.max_target_scale = rows[i + 1];
    state.initial_target_scale = rows[i + 2];
    state.config.min_ratio_from_initial_size = rows[i + 3];
    state.config.max_ratio_from_initial_size = rows[i + 4];
    clamped.push_back(state.clamp_target_scale_physical_(rows[i + 5]));
    clamped.push_back(state.clamp_target_scale_(rows[i + 5]));
  }
  EXPECT_TRUE(matches_golden(golden.output("clamped"), clamped));
}

TEST(TargetState, SwapsRatioLimitsThatStandTheWrongWayRound) {
  TargetState state = small_state();
  state.config.min_ratio_from_initial_size = 3.0F;
  state.config.max_ratio_from_initial_size = 0.5F;
  EXPECT_EQ(state.clamp_target_scale_(9.0F), 3.0F);
  EXPECT_EQ(state.clamp_target_scale_(0.2F), 0.5F);
  EXPECT_EQ(state.clamp_target_scale_(1.7F), 1.7F);
}

TEST(TargetState, CountsARatioBelowOneThousandthAsOneThousandth) {
  TargetState state = small_state();
  state.min_target_scale = 1e-5F;
  state.config.min_ratio_from_initial_size = -4.0F;
  state.config.max_ratio_from_initial_size = 0.0F;
  EXPECT_EQ(state.clamp_target_scale_(1e-4F), 0.001F);
  EXPECT_EQ(state.clamp_target_scale_(5.0F), 0.001F);
}

TEST(TargetState, GivesTheRatioClampTheLastWordOverThePhysicalBounds) {
  TargetState state = small_state();
  state.max_target_scale = 2.0F;
  state.initial_target_scale = 8.0F;
  state.config.min_ratio_from_initial_size = 0.5F;
  EXPECT_EQ(state.clamp_target_scale_(9.0F), 4.0F);
}

TEST(TargetState, AppliesOnlyThePhysicalBoundsWithoutAnInitialScale) {
  TargetState state = small_state();
  state.initial_target_scale = 0.0F;
  EXPECT_EQ(state.clamp_target_scale_(99.0F), 10.0F);
  EXPECT_EQ(state.clamp_target_scale_(5.0F), 5.0F);
  EXPECT_EQ(state.clamp_target_scale_(0.01F), 0.1F);
}

TEST(TargetState, TurnsAScaleThatIsNoNumberIntoTheLowerBound) {
  EXPECT_EQ(small_state().clamp_target_scale_physical_(kNan), 0.1F);
}

class ScaleFilter : public ::testing::TestWithParam<const char*> {};

TEST_P(ScaleFilter, FollowsGoldenMeasurements) {
  const auto golden = load_golden_case("target_state", GetParam());
  TargetState state = default_state();
  state.config.enable_scale_predictor = golden.boolean("enable_scale_predictor");
  state.config.scale_predictor_process_noise_scale = golden.f32("process_noise_scale");
  state.config.scale_predictor_process_noise_velocity = golden.f32("process_noise_velocity");
  state.config.scale_predictor_measurement_noise_scale = golden.f32("measurement_noise_scale");
  state.initial_target_scale = golden.f32("initial_target_scale");
  state.min_target_scale = golden.f32("min_target_scale");
  state.max_target_scale = golden.f32("max_target_scale");
  state.reset_scale_kalman_();
  std::vector<float> states;
  for (const float measurement : golden.input_as<float>("measurements")) {
    const float result = state.filter_target_scale_(measurement);
    states.insert(states.end(), {result, state.scale_log, state.scale_log_velocity, state.scale_p00,
                                 state.scale_p01, state.scale_p10, state.scale_p11});
  }
  EXPECT_TRUE(matches_golden(golden.output("states"), states));
}

INSTANTIATE_TEST_SUITE_P(TargetState, ScaleFilter, ::testing::Values("kalman_default", "kalman_off"));

TEST(TargetState, ReturnsTheFirstFilteredSampleUnchangedAndSeedsFromIt) {
  TargetState state = small_state();
  state.config.enable_scale_predictor = true;
  EXPECT_EQ(state.filter_target_scale_(1.5F), 1.5F);
  EXPECT_TRUE(state.scale_kalman_seeded);
  EXPECT_FLOAT_EQ(state.scale_log, std::log(1.5F));
  EXPECT_EQ(state.scale_log_velocity, 0.0F);
}

TEST(TargetState, LeavesTheFilterAloneWhileThePredictorIsOff) {
  TargetState state = small_state();
  state.seed_scale_kalman_(2.0F);
  const float before = state.scale_log;
  EXPECT_EQ(state.filter_target_scale_(1.25F), 1.25F);
  EXPECT_EQ(state.scale_log, before);
}

TEST(TargetState, SeedsTheCovarianceFromMeasurementAndVelocityNoiseWithAFloor) {
  TargetState state = small_state();
  state.config.scale_predictor_measurement_noise_scale = 0.25F;
  state.config.scale_predictor_process_noise_velocity = 0.5F;
  state.scale_p01 = state.scale_p10 = 9.0F;
  state.scale_log_velocity = 3.0F;
  state.seed_scale_kalman_(2.0F);
  EXPECT_EQ(state.scale_p00, 0.25F);
  EXPECT_EQ(state.scale_p11, 0.5F);
  EXPECT_EQ(state.scale_p01, 0.0F);
  EXPECT_EQ(state.scale_p10, 0.0F);
  EXPECT_EQ(state.scale_log_velocity, 0.0F);
  state.config.scale_predictor_measurement_noise_scale = 0.0F;
  state.config.scale_predictor_process_noise_velocity = 0.0F;
  state.seed_scale_kalman_(2.0F);
  EXPECT_EQ(state.scale_p00, 1e-4F);
  EXPECT_EQ(state.scale_p11, 1e-4F);
}

TEST(TargetState, ResetsTheFilterToTheUnitCovariance) {
  TargetState state = small_state();
  state.config.enable_scale_predictor = true;
  for (const float scale : {1.0F, 1.2F, 1.4F}) static_cast<void>(state.filter_target_scale_(scale));
  state.reset_scale_kalman_();
  EXPECT_FALSE(state.scale_kalman_seeded);
  EXPECT_EQ(state.scale_log, 0.0F);
  EXPECT_EQ(state.scale_log_velocity, 0.0F);
  EXPECT_EQ(state.scale_p00, 1.0F);
  EXPECT_EQ(state.scale_p01, 0.0F);
  EXPECT_EQ(state.scale_p10, 0.0F);
  EXPECT_EQ(state.scale_p11, 1.0F);
}

TEST(TargetState, MovesWithFramesAndCorrectionsAsGolden) {
  const auto golden = load_golden_case("target_state", "update");
  const auto rows = golden.input_as<float>("rows");
  const cv::Size frame(320, 240);
  std::vector<float> states;
  for (std::size_t i = 0; i + 15 <= rows.size(); i += 15) {
    const float* row = rows.data() + i;
    TargetState state = default_state();
    state.config.scale_predictor_process_noise_scale = 0.0002F;
    state.config.scale_predictor_process_noise_velocity = 0.00005F;
    state.config.scale_predictor_measurement_noise_scale = 0.03F;
    state.config.enable_scale_predictor = row[14] != 0.0F;
    state.target_pos = {row[0], row[1]};
    state.target_size = {row[2], row[3]};
    state.base_target_size = {row[4], row[5]};
    state.target_scale = row[6];
    state.initial_target_scale = row[7];
    state.min_target_scale = row[8];
    state.max_target_scale = row[9];
    if (state.config.enable_scale_predictor) state.seed_scale_kalman_(state.target_scale);
    const cv::Point_<float> position(row[10], row[11]);
    const std::optional<float> scale = std::isnan(row[12]) ? std::nullopt : std::make_optional(row[12]);
    if (row[13] == 0.0F) {
      state.update_state_(position, scale, frame);
    } else {
      state.apply_external_state_(position, scale, frame, row[13] == 2.0F);
    }
    states.insert(states.end(),
                  {state.target_pos.x, state.target_pos.y, state.target_size.width, state.target_size.height,
                   state.target_scale, state.initial_target_scale, state.scale_log, state.scale_log_velocity,
                   state.scale_p00, state.scale_p01, state.scale_p10, state.scale_p11});
    append_boxes(state, frame, &states);
  }
  EXPECT_TRUE(matches_golden(golden.output("state"), states));
}

TEST(TargetState, LetsTheCentreLeaveTheFrameByThreeTenthsOfTheTarget) {
  TargetState state = small_state();
  state.update_state_({-1000.0F, 1e6F}, std::nullopt, {100, 80});
  EXPECT_FLOAT_EQ(state.target_pos.x, -3.0F);
  EXPECT_FLOAT_EQ(state.target_pos.y, 83.0F);
  const base::BBox box = state.bboxf_from_state_({100, 80});
  EXPECT_EQ(box.x, 0.0F);
  EXPECT_EQ(box.y, 70.0F);
}

TEST(TargetState, PutsTheCentreAtTheLowerLimitWhereTheLimitsCross) {
  TargetState state = small_state();
  state.update_state_({40.0F, 40.0F}, std::nullopt, {-10, -6});
  EXPECT_FLOAT_EQ(state.target_pos.x, -3.0F);
  EXPECT_FLOAT_EQ(state.target_pos.y, -3.0F);
}

TEST(TargetState, ClampsThePositionByTheSizeThatTheSameUpdateSet) {
  TargetState state = small_state();
  state.update_state_({-1000.0F, 40.0F}, 2.0F, {100, 80});
  EXPECT_FLOAT_EQ(state.target_size.width, 20.0F);
  EXPECT_FLOAT_EQ(state.target_pos.x, -6.0F);
}

TEST(TargetState, ReportsATinyTargetAsTwoByTwoWhereTheFrameHoldsIt) {
  TargetState state = small_state();
  state.target_size = {1.0F, 1.0F};
  EXPECT_EQ(state.bbox_from_state_({100, 80}).size(), cv::Size(2, 2));
  const base::BBox box = state.bboxf_from_state_({100, 80});
  EXPECT_EQ(box.width, 2.0F);
  EXPECT_EQ(box.height, 2.0F);
  EXPECT_EQ(state.bbox_from_state_({1, 1}), cv::Rect(0, 0, 1, 1));
  const base::BBox single = state.bboxf_from_state_({1, 1});
  EXPECT_EQ(single.width, 1.0F);
  EXPECT_EQ(single.height, 1.0F);
  EXPECT_EQ(single.x, 0.0F);
}

TEST(TargetState, ReturnsTheStartBoxHalfAPixelToTheUpperLeft) {
  TargetState state = default_state();
  state.image_size = {640, 480};
  state.place_at_start_({300, 200, 48, 40});
  const base::BBox box = state.bboxf_from_state_(state.image_size);
  EXPECT_EQ(box.x, 299.5F);
  EXPECT_EQ(box.y, 199.5F);
  EXPECT_EQ(box.width, 48.0F);
  EXPECT_EQ(box.height, 40.0F);
}

TEST(TargetState, RecentresTheRatioClampOnAPhysicalCorrectionOnly) {
  TargetState state = small_state();
  state.apply_external_state_(state.target_pos, 6.0F, {100, 80}, true);
  EXPECT_EQ(state.target_scale, 6.0F);
  EXPECT_EQ(state.initial_target_scale, 6.0F);
  state = small_state();
  state.apply_external_state_(state.target_pos, 6.0F, {100, 80}, false);
  EXPECT_EQ(state.target_scale, 2.5F);
  EXPECT_EQ(state.initial_target_scale, 1.0F);
}

TEST(TargetState, SeedsTheFilterAtACorrectionInsteadOfFilteringIt) {
  TargetState state = small_state();
  state.config.enable_scale_predictor = true;
  state.seed_scale_kalman_(1.0F);
  state.apply_external_state_(state.target_pos, 2.0F, {100, 80}, false);
  EXPECT_EQ(state.target_scale, 2.0F);
  EXPECT_FLOAT_EQ(state.scale_log, std::log(2.0F));
}

TEST(TargetState, EntersRecoveryOnlyWhereItIsPreferred) {
  TargetState state = small_state();
  state.recovery_confirm_count = 4;
  state.recovery_frame_count = 5;
  state.enter_recovery_mode_();
  EXPECT_TRUE(state.recovery_active);
  EXPECT_EQ(state.recovery_confirm_count, 0);
  EXPECT_EQ(state.recovery_frame_count, 0);
  state.config.prefer_stable_reacquisition = false;
  state.enter_recovery_mode_();
  EXPECT_FALSE(state.recovery_active);
}

TEST(TargetState, DerivesWholeBoxesFromNumbersThatAreNone) {
  TargetState state = small_state();
  state.target_pos = {kNan, 1e30F};
  EXPECT_EQ(state.bbox_from_state_({100, 80}), cv::Rect(0, 70, 10, 10));
}

}  // namespace
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
