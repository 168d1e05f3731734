#include <gtest/gtest.h>
#include <ostrel_scene/world.h>

#include <algorithm>
#include <cmath>
#include <opencv2/core/utility.hpp>
#include <opencv2/imgproc.hpp>

namespace ostrel_scene {
namespace {

constexpr int kWidth_px = 256, kHeight_px = 144;
constexpr double kDegreesPerRadian = 180.0 / 3.14159265358979323846;
constexpr double kParked_s = 2.0, kOpen_s = 19.0, kUnderBridge_s = 22.7, kBehindWood_s = 31.0;

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

double square_pixels_vfov_deg(double hfov_deg) {
  return 2.0 * kDegreesPerRadian *
         std::atan(std::tan(0.5 * hfov_deg / kDegreesPerRadian) * kHeight_px / kWidth_px);
}

CameraView at_target(double time_s, double hfov_deg = 20.0) {
  const Direction direction = world().direction_to_target(time_s);
  CameraView view;
  view.pan_deg = direction.pan_deg;
  view.tilt_deg = direction.tilt_deg;
  view.hfov_deg = hfov_deg;
  view.vfov_deg = square_pixels_vfov_deg(hfov_deg);
  return view;
}

double share_at(double time_s) {
  return world().target(time_s, at_target(time_s)).visible_share;
}

cv::Point2d middle_of(const cv::Rect2d& box) {
  return {box.x + 0.5 * box.width, box.y + 0.5 * box.height};
}

double difference(const cv::Mat& a, const cv::Mat& b) {
  return cv::norm(a, b, cv::NORM_INF);
}

TEST(World, RendersTheSameForTheSameSeedInAnyOrder) {
  const World other(small_world(1));
  const cv::Mat late = world().render(kOpen_s, at_target(kOpen_s));
  const cv::Mat early = world().render(kParked_s, at_target(kParked_s));
  EXPECT_EQ(difference(early, other.render(kParked_s, at_target(kParked_s))), 0.0);
  EXPECT_EQ(difference(late, other.render(kOpen_s, at_target(kOpen_s))), 0.0);
  EXPECT_EQ(late.size(), cv::Size(kWidth_px, kHeight_px));
  EXPECT_EQ(late.type(), CV_8UC3);
}

TEST(World, RendersTheSameWithAnyNumberOfThreads) {
  CameraView view = at_target(kOpen_s);
  view.pan_rate_deg_s = 12.0;
  const cv::Mat side_by_side = world().render(kOpen_s, view);
  const int threads = cv::getNumThreads();
  cv::setNumThreads(1);
  const World alone(small_world(1));
  const cv::Mat one_by_one = alone.render(kOpen_s, view);
  cv::setNumThreads(threads);
  EXPECT_EQ(difference(one_by_one, side_by_side), 0.0);
}

TEST(World, DiffersBetweenSeedsButNotInItsStory) {
  const World other(small_world(2));
  const CameraView view = at_target(kOpen_s);
  const cv::Mat a = world().render(kOpen_s, view), b = other.render(kOpen_s, view);
  EXPECT_GT(cv::norm(a, b, cv::NORM_L1) / static_cast<double>(a.total() * 3), 5.0);
  EXPECT_EQ(world().target(kOpen_s, view).box_px, other.target(kOpen_s, view).box_px);
  EXPECT_EQ(other.target(kUnderBridge_s, at_target(kUnderBridge_s)).visible_share, 0.0);
}

TEST(World, NoiseChangesWithTimeThoughNothingMoves) {
  CameraView fields = at_target(kParked_s, 4.0);
  fields.tilt_deg = -30.0;
  const cv::Mat a = world().render(1.0, fields), b = world().render(1.04, fields);
  const double mean_change = cv::norm(a, b, cv::NORM_L1) / static_cast<double>(a.total() * 3);
  EXPECT_GT(mean_change, 0.8);
  EXPECT_LT(mean_change, 6.0);
}

TEST(World, NamesItsEventsInOrderInsideItsDuration) {
  double last_s = 0.0;
  for (const WorldEvent& event : world().events()) {
    EXPECT_FALSE(event.what.empty());
    EXPECT_GE(event.start_s, last_s);
    EXPECT_GT(event.end_s, event.start_s);
    last_s = event.end_s;
  }
  EXPECT_EQ(last_s, world().duration_s());
  EXPECT_EQ(world().events().front().what, "parked");
}

// Each event says the truth about the visible share, for several seeds.
TEST(World, ShowsAndHidesTheTargetAsItsEventsSay) {
  for (const std::uint32_t seed : {1U, 2U}) {
    const World made(small_world(seed));
    for (const WorldEvent& event : made.events()) {
      double least = 1.0;
      for (double t = event.start_s; t < event.end_s; t += 0.2)
        least = std::min(least, made.target(t, at_target(t)).visible_share);
      SCOPED_TRACE(event.what);
      const bool hides = event.what == "under the bridge" || event.what == "behind the wood";
      const bool covers = event.what == "behind trees in part";
      if (hides) {
        EXPECT_EQ(least, 0.0);
      } else if (covers) {
        EXPECT_GT(least, 0.2);
        EXPECT_LT(least, 0.8);
      } else {
        EXPECT_GT(least, 0.55);
      }
    }
  }
}

TEST(World, HidesTheTargetBrieflyUnderTheBridgeAndForLongBehindTheWood) {
  int under_bridge = 0, behind_wood = 0;
  constexpr double kStep_s = 0.1;
  for (double t = 20.0; t < 36.0; t += kStep_s) {
    if (share_at(t) < 0.05) ++(t < 26.0 ? under_bridge : behind_wood);
  }
  EXPECT_GE(under_bridge * kStep_s, 0.9);
  EXPECT_LE(under_bridge * kStep_s, 1.8);
  EXPECT_GE(behind_wood * kStep_s, 2.8);
  EXPECT_LE(behind_wood * kStep_s, 4.4);
  EXPECT_EQ(share_at(kUnderBridge_s), 0.0);
  EXPECT_EQ(share_at(kBehindWood_s), 0.0);
  EXPECT_EQ(share_at(kParked_s), 1.0);
  EXPECT_EQ(share_at(kOpen_s), 1.0);
  EXPECT_GT(share_at(36.0), 0.95);
}

TEST(World, BringsTheTargetOutNearWhereItVanished) {
  const auto last = at_target(29.0), first = at_target(33.3);
  EXPECT_LT(std::abs(first.pan_deg - last.pan_deg), 6.0);
}

TEST(World, CountsWhatLiesOutsideThePictureAsNotVisible) {
  CameraView view = at_target(kOpen_s, 16.0);
  // Off the horizon a turn of the camera moves the picture by less.
  const double width_deg = 16.0 / std::cos(view.tilt_deg / kDegreesPerRadian);
  view.pan_deg += 0.5 * width_deg;  // the target's middle on the left edge
  const TargetTruth half = world().target(kOpen_s, view);
  EXPECT_NEAR(half.visible_share, 0.5, 0.15);
  EXPECT_LT(half.box_px.x, 0.0);
  view.pan_deg += width_deg;
  const TargetTruth none = world().target(kOpen_s, view);
  EXPECT_EQ(none.visible_share, 0.0);
  EXPECT_LT(none.box_px.x + none.box_px.width, 0.0);
  view.pan_deg += 150.0;  // behind the camera
  EXPECT_EQ(world().target(kOpen_s, view).visible_share, 0.0);
}

TEST(World, PutsTheTargetWhereTheDirectionPoints) {
  for (const double t : {0.0, 8.0, kOpen_s, 33.0, 41.0}) {
    const cv::Rect2d box = world().target(t, at_target(t)).box_px;
    EXPECT_NEAR(middle_of(box).x, 0.5 * kWidth_px, 0.08 * box.width);
    EXPECT_NEAR(middle_of(box).y, 0.5 * kHeight_px, 0.12 * box.height);
  }
}

TEST(World, MovesTheTargetAgainstTheCamera) {
  CameraView view = at_target(kOpen_s);
  const cv::Point2d before = middle_of(world().target(kOpen_s, view).box_px);
  view.pan_deg += 2.0;
  const cv::Point2d panned = middle_of(world().target(kOpen_s, view).box_px);
  EXPECT_NEAR(panned.x - before.x, -2.0 / 20.0 * kWidth_px * std::cos(view.tilt_deg / kDegreesPerRadian),
              2.0);
  view.tilt_deg += 2.0;
  const cv::Point2d tilted = middle_of(world().target(kOpen_s, view).box_px);
  EXPECT_NEAR(tilted.y - panned.y, 2.0 / 20.0 * kWidth_px, 2.0);
}

TEST(World, DoublesTheTargetAtHalfTheFieldOfView) {
  const cv::Rect2d wide = world().target(kOpen_s, at_target(kOpen_s, 24.0)).box_px;
  const cv::Rect2d narrow = world().target(kOpen_s, at_target(kOpen_s, 12.0)).box_px;
  EXPECT_NEAR(narrow.width / wide.width, 2.0, 0.05);
  EXPECT_NEAR(narrow.height / wide.height, 2.0, 0.05);
}

// The target's paint is the only thing so red on the open road.
TEST(World, ShowsTheTargetInsideItsBox) {
  for (const double t : {kParked_s, 25.5, 37.5}) {
    const CameraView view = at_target(t, 8.0);
    const cv::Rect2d box = world().target(t, view).box_px;
    const cv::Mat picture = world().render(t, view);
    const auto red_share = [&](const cv::Rect2d& area) {
      const cv::Rect whole = cv::Rect(area) & cv::Rect(0, 0, kWidth_px, kHeight_px);
      std::vector<cv::Mat> planes;
      cv::split(picture(whole), planes);
      cv::Mat redness;
      cv::subtract(planes[2], planes[1], redness);
      return cv::countNonZero(redness > 30) / static_cast<double>(whole.area());
    };
    EXPECT_GT(red_share(box), 0.07) << t;
    for (const double side : {-1.2, 1.2})
      EXPECT_LT(red_share(box + cv::Point2d(side * box.width, 0.0)), 0.02) << t;
  }
}

TEST(World, SmearsThePictureWithTheRatesOfTheView) {
  const auto sharpness = [](const cv::Mat& picture, int dx, int dy) {
    cv::Mat quiet, gradient;
    cv::GaussianBlur(picture, quiet, cv::Size(), 1.5);  // noise has no part in this
    cv::Sobel(quiet, gradient, CV_32F, dx, dy);
    return cv::norm(gradient, cv::NORM_L1);
  };
  CameraView still = at_target(kParked_s, 10.0);
  CameraView panning = still, tilting = still;
  panning.pan_rate_deg_s = 20.0;
  tilting.tilt_rate_deg_s = 20.0;
  const cv::Mat sharp = world().render(kParked_s, still), across = world().render(kParked_s, panning),
                upwards = world().render(kParked_s, tilting);
  EXPECT_LT(sharpness(across, 1, 0), 0.92 * sharpness(sharp, 1, 0));
  EXPECT_LT(sharpness(upwards, 0, 1), 0.92 * sharpness(sharp, 0, 1));
  const auto upright_edges = [&](const cv::Mat& picture) {
    return sharpness(picture, 1, 0) / sharpness(picture, 0, 1);
  };
  EXPECT_LT(upright_edges(across), 0.95 * upright_edges(sharp));
  EXPECT_GT(upright_edges(upwards), 1.05 * upright_edges(sharp));
}

// A smear over the whole lane would take a thousand times as long to draw.
TEST(World, DoesNotSmearAVehicleFromOneEndOfItsLaneToTheOther) {
  CameraView view;
  view.pan_deg = 0.595;
  view.tilt_deg = -20.35;
  view.hfov_deg = 26.0;
  view.vfov_deg = square_pixels_vfov_deg(26.0);
  double shortest_s = 1e9, longest_s = 0.0;
  for (int frame = 550; frame < 562; ++frame) {
    const std::int64_t start = cv::getTickCount();
    world().render(frame / 25.0, view);
    const double took_s = static_cast<double>(cv::getTickCount() - start) / cv::getTickFrequency();
    shortest_s = std::min(shortest_s, took_s);
    longest_s = std::max(longest_s, took_s);
  }
  EXPECT_LT(longest_s, 100.0 * shortest_s + 0.5);
}

TEST(World, DrivesGently) {
  constexpr double kStep_s = 0.1;
  const auto place = [](double t) {
    const Direction d = world().direction_to_target(t);
    // Down to the road from the mast's height above it; both constants only scale the result.
    const double away_m = 41.1 / std::tan(-d.tilt_deg / kDegreesPerRadian);
    return cv::Point2d(std::sin(d.pan_deg / kDegreesPerRadian), std::cos(d.pan_deg / kDegreesPerRadian)) *
           away_m;
  };
  double fastest = 0.0, hardest = 0.0, last_speed = 0.0;
  for (double t = kStep_s; t < 41.0; t += kStep_s) {
    const double speed = cv::norm(place(t) - place(t - kStep_s)) / kStep_s;
    fastest = std::max(fastest, speed);
    hardest = std::max(hardest, std::abs(speed - last_speed) / kStep_s);
    last_speed = speed;
  }
  EXPECT_GT(fastest, 8.0);
  EXPECT_LT(fastest, 12.0);
  EXPECT_LT(hardest, 2.6);
}

TEST(World, NamesWhatIsWrongWithItsOptions) {
  EXPECT_EQ(why_invalid(WorldOptions{}), "");
  EXPECT_EQ(why_invalid(WorldOptions{64, 1920, 1}), "");
  EXPECT_EQ(why_invalid(WorldOptions{63, 64, 1}), "a world's sides are 64 to 1920 pixels");
  EXPECT_EQ(why_invalid(WorldOptions{64, 1921, 1}), "a world's sides are 64 to 1920 pixels");
}

}  // namespace
}  // namespace ostrel_scene
