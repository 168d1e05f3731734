#include <gtest/gtest.h>
#include <ostrel_scene/world.h>

#include <algorithm>
#include <cmath>
#include <opencv2/core/utility.hpp>

namespace ostrel_scene {
namespace {

constexpr int kWidth_px = 320, kHeight_px = 180;
constexpr double kDegreesPerRadian = 180.0 / 3.14159265358979323846;

WorldOptions small_world(std::uint32_t seed) {
  WorldOptions options;
  options.width_px = kWidth_px;
  options.height_px = kHeight_px;
  options.seed = seed;
  return options;
}

// Worlds take a while to make, and nothing changes them.
const World& world() {
  static const World made(small_world(1));
  return made;
}

// The target in the middle of the picture, square pixels.
CameraView at_target(double time_s, double hfov_deg = 20.0) {
  const Direction direction = world().direction_to_target(time_s);
  CameraView view;
  view.pan_deg = direction.pan_deg;
  view.tilt_deg = direction.tilt_deg;
  view.hfov_deg = hfov_deg;
  view.vfov_deg = 2.0 * kDegreesPerRadian *
                  std::atan(std::tan(0.5 * hfov_deg / kDegreesPerRadian) * kHeight_px / kWidth_px);
  return view;
}

bool same(const cv::Mat& a, const cv::Mat& b) {
  return cv::norm(a, b, cv::NORM_INF) == 0.0;
}

TEST(World, RendersTheSameForTheSameSeedInAnyOrder) {
  const World other(small_world(1));
  const cv::Mat late = world().render(20.0, at_target(20.0));
  const cv::Mat early = world().render(2.0, at_target(2.0));
  EXPECT_TRUE(same(early, other.render(2.0, at_target(2.0))));
  EXPECT_TRUE(same(late, other.render(20.0, at_target(20.0))));
  EXPECT_EQ(late.size(), cv::Size(kWidth_px, kHeight_px));
  EXPECT_EQ(late.type(), CV_8UC3);
}

TEST(World, NamesItsEventsInOrderInsideItsDuration) {
  const auto& events = world().events();
  ASSERT_FALSE(events.empty());
  double last_s = 0.0;
  for (const WorldEvent& event : events) {
    EXPECT_FALSE(event.what.empty());
    EXPECT_GE(event.start_s, last_s);
    EXPECT_GT(event.end_s, event.start_s);
    last_s = event.end_s;
  }
  EXPECT_LE(last_s, world().duration_s());
}

TEST(World, NamesWhatIsWrongWithItsOptions) {
  EXPECT_EQ(why_invalid(WorldOptions{}), "");
  EXPECT_EQ(why_invalid({63, 64, 1}), "a world's sides are 64 to 1920 pixels");
  EXPECT_EQ(why_invalid({64, 1921, 1}), "a world's sides are 64 to 1920 pixels");
}

}  // namespace
}  // namespace ostrel_scene
