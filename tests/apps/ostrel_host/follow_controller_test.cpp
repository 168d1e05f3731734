#include <gtest/gtest.h>
#include <ostrel_host/follow_controller.h>

#include <cmath>

namespace {

using namespace ostrel_host;

constexpr double kFrame_s = 0.04;
const cv::Size kPicture_px(400, 200);
const ViewReading kView{0.0, -10.0, 40.0, 20.0};

std::optional<Detection> box_at(int centre_x, int centre_y, double score = 0.9) {
  return Detection{{centre_x - 10, centre_y - 5, 20, 10}, score};
}

TEST(FollowController, MeasuresAnglesRightAndUpFromTheMiddle) {
  const AngleError error = angle_error({290, 45, 20, 10}, kView, kPicture_px);
  EXPECT_NEAR(error.pan_deg, 10.0, 1e-9);
  EXPECT_NEAR(error.tilt_deg, 5.0, 1e-9);
}

TEST(FollowController, TurnsTowardsTheTarget) {
  const TurnRate right_up = FollowController().steer(box_at(300, 50), kView, kPicture_px, kFrame_s);
  EXPECT_GT(right_up.pan_deg_s, 0.0);
  EXPECT_GT(right_up.tilt_deg_s, 0.0);
  const TurnRate left_down = FollowController().steer(box_at(100, 150), kView, kPicture_px, kFrame_s);
  EXPECT_LT(left_down.pan_deg_s, 0.0);
  EXPECT_LT(left_down.tilt_deg_s, 0.0);
  const TurnRate middle = FollowController().steer(box_at(200, 100), kView, kPicture_px, kFrame_s);
  EXPECT_EQ(middle.pan_deg_s, 0.0);
  EXPECT_EQ(middle.tilt_deg_s, 0.0);
}

TEST(FollowController, DoesNotMoveBeforeItHasSeenATarget) {
  FollowController controller;
  EXPECT_EQ(controller.steer(std::nullopt, kView, kPicture_px, kFrame_s).pan_deg_s, 0.0);
}

// A box with score 0 says where the target was: following it would chase a memory.
TEST(FollowController, CoastsToAStopWithoutATargetOrWithAHeldBox) {
  for (const auto& nothing : {std::optional<Detection>(), box_at(390, 10, 0.0)}) {
    FollowController controller;
    for (int i = 0; i < 50; ++i) controller.steer(box_at(300, 100), kView, kPicture_px, kFrame_s);
    double last = controller.steer(nothing, kView, kPicture_px, kFrame_s).pan_deg_s;
    EXPECT_GT(last, 0.0);
    for (int i = 0; i < 25; ++i) {
      const double rate = controller.steer(nothing, kView, kPicture_px, kFrame_s).pan_deg_s;
      EXPECT_LT(rate, last);
      last = rate;
    }
    for (int i = 0; i < 250; ++i) last = controller.steer(nothing, kView, kPicture_px, kFrame_s).pan_deg_s;
    EXPECT_LT(last, 0.01);
  }
}

TEST(FollowController, LearnsNoMoreThanItsLimit) {
  FollowGains gains;
  FollowController controller(gains);
  for (int i = 0; i < 5000; ++i) controller.steer(box_at(390, 100), kView, kPicture_px, kFrame_s);
  const TurnRate coasting = controller.steer(std::nullopt, kView, kPicture_px, kFrame_s);
  EXPECT_LE(coasting.pan_deg_s, gains.largest_learned_deg_s);
  EXPECT_GT(coasting.pan_deg_s, 0.9 * gains.largest_learned_deg_s);
}

// The loop closed over the gimbal: a target that crosses evenly ends up in the middle of the view.
TEST(FollowController, KeepsACrossingTargetInTheMiddle) {
  GimbalLimits limits;
  limits.encoder_noise_deg = 0.0;
  VirtualGimbal gimbal({0.0, -10.0}, 40.0, kPicture_px, limits, 1);
  FollowController controller;
  double largest_late_error = 0.0;
  for (int i = 0; i < 250; ++i) {
    const double target_pan = 5.0 + 3.0 * i * kFrame_s, target_tilt = -12.0;
    const ViewReading view = gimbal.read();
    const double across = 0.5 + (target_pan - view.pan_deg) / view.hfov_deg;
    const double down = 0.5 - (target_tilt - view.tilt_deg) / view.vfov_deg;
    const auto box = box_at(static_cast<int>(std::lround(across * kPicture_px.width)),
                            static_cast<int>(std::lround(down * kPicture_px.height)));
    gimbal.turn(controller.steer(box, view, kPicture_px, kFrame_s));
    gimbal.advance(kFrame_s);
    if (i > 150) largest_late_error = std::max(largest_late_error, std::abs(target_pan - view.pan_deg));
    EXPECT_LT(std::abs(target_pan - view.pan_deg), 8.0);
  }
  EXPECT_LT(largest_late_error, 0.3);
}

}  // namespace
