#include <gtest/gtest.h>
#include <ostrel_host/virtual_gimbal.h>

#include <cmath>

namespace {

using namespace ostrel_host;

constexpr double kFrame_s = 0.04;
const cv::Size kPicture_px(960, 540);

GimbalLimits quiet_limits() {
  GimbalLimits limits;
  limits.encoder_noise_deg = 0.0;
  return limits;
}

VirtualGimbal gimbal_at(double pan_deg, double tilt_deg, const GimbalLimits& limits = quiet_limits()) {
  return VirtualGimbal({pan_deg, tilt_deg}, 40.0, kPicture_px, limits, 1);
}

TEST(VirtualGimbal, ArrivesWhereItIsPointedAndStops) {
  VirtualGimbal gimbal = gimbal_at(10.0, -5.0);
  gimbal.point_at({22.0, -14.0});
  EXPECT_TRUE(gimbal.pointing());
  for (int frame = 0; frame < 100; ++frame) gimbal.advance(kFrame_s);
  EXPECT_FALSE(gimbal.pointing());
  EXPECT_NEAR(gimbal.view().pan_deg, 22.0, 0.01);
  EXPECT_NEAR(gimbal.view().tilt_deg, -14.0, 0.01);
  EXPECT_EQ(gimbal.view().pan_rate_deg_s, 0.0);
  EXPECT_EQ(gimbal.view().tilt_rate_deg_s, 0.0);
}

TEST(VirtualGimbal, NeverTurnsOrSpeedsUpFasterThanItsLimits) {
  const GimbalLimits limits = quiet_limits();
  VirtualGimbal gimbal = gimbal_at(-80.0, 0.0);
  gimbal.point_at({80.0, -40.0});
  double last_rate = 0.0, last_pan = -80.0, fastest = 0.0;
  for (int frame = 0; frame < 200; ++frame) {
    gimbal.advance(kFrame_s);
    const double rate = gimbal.view().pan_rate_deg_s;
    EXPECT_LE(std::abs(gimbal.view().pan_deg - last_pan), limits.rate_deg_s * kFrame_s + 1e-9);
    EXPECT_LE(std::abs(rate - last_rate), limits.acceleration_deg_s2 * kFrame_s + 1e-9);
    fastest = std::max(fastest, std::abs(rate));
    last_rate = rate;
    last_pan = gimbal.view().pan_deg;
  }
  EXPECT_NEAR(fastest, limits.rate_deg_s, 1e-6);
  EXPECT_FALSE(gimbal.pointing());
}

TEST(VirtualGimbal, DoesNotOvershootItsGoal) {
  VirtualGimbal gimbal = gimbal_at(0.0, 0.0);
  gimbal.point_at({15.0, 0.0});
  for (int frame = 0; frame < 100; ++frame) {
    gimbal.advance(kFrame_s);
    EXPECT_LE(gimbal.view().pan_deg, 15.05);
  }
}

TEST(VirtualGimbal, TakesTheShorterWayAcrossTheSeamOfPan) {
  VirtualGimbal gimbal = gimbal_at(179.0, 0.0);
  gimbal.point_at({-179.0, 0.0});
  for (int frame = 0; frame < 50; ++frame) {
    gimbal.advance(kFrame_s);
    EXPECT_GT(std::abs(gimbal.view().pan_deg), 178.0);
    EXPECT_LT(gimbal.view().pan_deg, 180.0);
  }
  EXPECT_NEAR(gimbal.view().pan_deg, -179.0, 0.01);
}

TEST(VirtualGimbal, TurnsOnUntilToldOtherwise) {
  VirtualGimbal gimbal = gimbal_at(0.0, 0.0);
  gimbal.point_at({-30.0, 0.0});
  gimbal.turn({5.0, 0.0});
  EXPECT_FALSE(gimbal.pointing());
  for (int frame = 0; frame < 50; ++frame) gimbal.advance(kFrame_s);
  EXPECT_NEAR(gimbal.view().pan_deg, 10.0, 0.3);
  gimbal.turn({});
  gimbal.advance(0.5);
  const double rest = gimbal.view().pan_deg;
  gimbal.advance(0.5);
  EXPECT_EQ(gimbal.view().pan_deg, rest);
}

TEST(VirtualGimbal, StopsAtTheEndsOfItsTilt) {
  VirtualGimbal gimbal = gimbal_at(0.0, 25.0);
  gimbal.turn({0.0, 20.0});
  gimbal.advance(2.0);
  EXPECT_EQ(gimbal.view().tilt_deg, quiet_limits().highest_tilt_deg);
  EXPECT_EQ(gimbal.view().tilt_rate_deg_s, 0.0);
  gimbal.point_at({0.0, -200.0});
  gimbal.advance(10.0);
  EXPECT_FALSE(gimbal.pointing());
  EXPECT_NEAR(gimbal.view().tilt_deg, quiet_limits().lowest_tilt_deg, 0.01);
}

TEST(VirtualGimbal, ZoomsInStepsThatAWatcherOfTwoPercentSees) {
  VirtualGimbal gimbal = gimbal_at(0.0, 0.0);
  gimbal.zoom_to(25.0);
  EXPECT_TRUE(gimbal.zooming());
  int frames = 0;
  for (double before = 40.0; gimbal.zooming(); ++frames) {
    gimbal.advance(kFrame_s);
    const double ratio = before / gimbal.view().hfov_deg;
    EXPECT_LT(ratio, 1.06);
    EXPECT_TRUE(ratio > 1.02 || !gimbal.zooming()) << ratio;
    before = gimbal.view().hfov_deg;
  }
  EXPECT_EQ(gimbal.view().hfov_deg, 25.0);
  EXPECT_GT(frames, 4);
  EXPECT_LT(frames, 13);
}

TEST(VirtualGimbal, KeepsTheZoomWithinTheLens) {
  VirtualGimbal gimbal = gimbal_at(0.0, 0.0);
  gimbal.zoom_to(500.0);
  gimbal.advance(5.0);
  EXPECT_EQ(gimbal.view().hfov_deg, quiet_limits().widest_hfov_deg);
  gimbal.zoom_to(0.0);
  gimbal.advance(5.0);
  EXPECT_EQ(gimbal.view().hfov_deg, quiet_limits().narrowest_hfov_deg);
}

TEST(VirtualGimbal, HasTheVerticalFieldOfViewOfItsPicture) {
  EXPECT_NEAR(vertical_field_of_view_deg(90.0, {100, 100}), 90.0, 1e-9);
  EXPECT_NEAR(vertical_field_of_view_deg(40.0, kPicture_px), 23.1409, 1e-3);
}

TEST(VirtualGimbal, ReadsItsEncodersWithNoiseAndItsLensWithout) {
  GimbalLimits limits;
  limits.encoder_noise_deg = 0.05;
  VirtualGimbal gimbal = gimbal_at(20.0, -10.0, limits);
  double sum = 0.0, squares = 0.0;
  constexpr int kReadings = 2000;
  for (int i = 0; i < kReadings; ++i) {
    const ViewReading reading = gimbal.read();
    sum += reading.pan_deg - 20.0;
    squares += (reading.pan_deg - 20.0) * (reading.pan_deg - 20.0);
    EXPECT_EQ(reading.hfov_deg, 40.0);
  }
  EXPECT_NEAR(sum / kReadings, 0.0, 0.005);
  EXPECT_NEAR(std::sqrt(squares / kReadings), 0.05, 0.005);
  EXPECT_EQ(gimbal.view().pan_deg, 20.0);
}

TEST(Angles, WrapIntoHalfATurnEitherWay) {
  EXPECT_EQ(wrapped_deg(180.0), -180.0);
  EXPECT_EQ(wrapped_deg(-180.0), -180.0);
  EXPECT_EQ(wrapped_deg(190.0), -170.0);
  EXPECT_EQ(wrapped_deg(-190.0), 170.0);
  EXPECT_EQ(wrapped_deg(725.0), 5.0);
}

}  // namespace
