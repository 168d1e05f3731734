// The parts of the renderer: geometry, samples, noise, land, shadows, sensor, vehicles, story.
#include <gtest/gtest.h>
#include <ostrel_scene/world_ground.h>
#include <ostrel_scene/world_land.h>
#include <ostrel_scene/world_raster.h>
#include <ostrel_scene/world_sensor.h>
#include <ostrel_scene/world_story.h>
#include <ostrel_scene/world_vehicle_layer.h>

#include <algorithm>
#include <opencv2/imgproc.hpp>

#include "apps/ostrel_scene/world_views.h"

namespace ostrel_scene {
namespace {

const cv::Size kWholePicture(240, 136);
const Colour kRed(0.0F, 0.0F, 200.0F), kBlue(200.0F, 0.0F, 0.0F);

Corner corner(float x, float y, float nearness, const Colour& colour) {
  return {{x, y, nearness}, colour};
}

void draw_square(SampleBuffer& buffer, float left, float right, float nearness, const Colour& colour) {
  const Corner a = corner(left, 2, nearness, colour), b = corner(right, 2, nearness, colour);
  const Corner c = corner(right, 6, nearness, colour), d = corner(left, 6, nearness, colour);
  buffer.draw(a, b, c);
  buffer.draw(a, c, d);
}

TEST(Pinhole, ProjectsWhatItsRaysHit) {
  const Pinhole camera(view_towards({30.0F, 140.0F, 0.0F}, 30.0), kWholePicture);
  for (const cv::Point2f place :
       {cv::Point2f(3.0F, 5.0F), cv::Point2f(120.0F, 68.0F), cv::Point2f(230.0F, 130.0F)}) {
    const Vec3 ray = unit(camera.ray(place.x, place.y));
    ScreenPoint screen;
    ASSERT_TRUE(camera.project(camera_position() + ray * 170.0F, screen));
    EXPECT_NEAR(screen.x_px, place.x, 0.01F);
    EXPECT_NEAR(screen.y_px, place.y, 0.01F);
    EXPECT_NEAR(1.0F / screen.nearness, 170.0F, 0.05F);
    EXPECT_FALSE(camera.project(camera_position() - ray * 170.0F, screen));
  }
}

TEST(SampleBuffer, CoversTheAreaOfWhatIsDrawn) {
  SampleBuffer buffer({0, 0, 16, 8}, 4);
  draw_square(buffer, 3.0F, 7.5F, 0.1F, kRed);
  EXPECT_NEAR(cv::sum(buffer.coverage())[0], 4.5 * 4.0, 0.01);
  const cv::Mat colour = buffer.colour_and_coverage();
  EXPECT_EQ(colour.at<cv::Vec4f>(3, 4), cv::Vec4f(0, 0, 200, 1));
  EXPECT_NEAR(colour.at<cv::Vec4f>(3, 7)[3], 0.5F, 0.01F);
  EXPECT_NEAR(colour.at<cv::Vec4f>(3, 7)[2], 100.0F, 1.0F);
  EXPECT_EQ(colour.at<cv::Vec4f>(3, 9), cv::Vec4f(0, 0, 0, 0));
  SampleBuffer round({-20, -20, 40, 40}, 4);
  round.draw(Disc{{0.3F, -0.2F, 0.1F}, 9.0F, kRed});
  EXPECT_NEAR(cv::sum(round.coverage())[0], 3.14159 * 81.0, 3.0);
}

TEST(SampleBuffer, ShowsTheNearestWhateverTheOrder) {
  for (const bool near_first : {true, false}) {
    SampleBuffer buffer({0, 0, 16, 8}, 2);
    if (near_first) draw_square(buffer, 3.0F, 7.0F, 0.2F, kRed);
    draw_square(buffer, 1.0F, 12.0F, 0.1F, kBlue);
    if (!near_first) draw_square(buffer, 3.0F, 7.0F, 0.2F, kRed);
    EXPECT_EQ(buffer.colour_and_coverage().at<cv::Vec4f>(4, 5)[2], 200.0F);
    EXPECT_EQ(buffer.colour_and_coverage().at<cv::Vec4f>(4, 9)[0], 200.0F);
    EXPECT_FLOAT_EQ(buffer.nearness().at<float>(4, 5), 0.2F);
    EXPECT_FLOAT_EQ(buffer.nearness().at<float>(4, 9), 0.1F);
    EXPECT_EQ(buffer.nearness().at<float>(4, 14), 0.0F);
  }
}

TEST(NoisePlane, RepeatsWithoutASeamAndFadesWithTheFootprint) {
  const NoisePlane noise(5);
  double sum = 0.0, squares = 0.0;
  constexpr int kPoints = 4000;
  for (int i = 0; i < kPoints; ++i) {
    const float x = 0.37F * static_cast<float>(i % 173), y = 0.53F * static_cast<float>(i / 23);
    const auto value = static_cast<double>(noise.at(x, y));
    EXPECT_NEAR(noise.at(x + 64.0F, y - 64.0F), value, 1e-3);
    sum += value;
    squares += value * value;
  }
  EXPECT_NEAR(sum / kPoints, 0.0, 0.05);
  EXPECT_NEAR(std::sqrt(squares / kPoints), 0.48, 0.1);
  EXPECT_NE(noise.band(3.0F, 4.0F, 2.0F, 0.1F), 0.0F);
  EXPECT_EQ(noise.band(3.0F, 4.0F, 2.0F, 2.0F), 0.0F);
}

TEST(Ground, CoversAStripeByItsShareOfTheFootprint) {
  EXPECT_NEAR(stripe_cover(5.0F, 5.0F, 0.5F, 0.2F), 1.0F, 1e-4F);
  EXPECT_NEAR(stripe_cover(5.0F, 5.0F, 0.5F, 4.0F), 0.25F, 1e-4F);
  EXPECT_NEAR(stripe_cover(5.5F, 5.0F, 0.5F, 0.2F), 0.5F, 1e-4F);
  EXPECT_NEAR(stripe_cover(6.0F, 5.0F, 0.5F, 0.2F), 0.0F, 1e-4F);
}

TEST(Land, MeasuresTheOffsetFromTheMainRoad) {
  for (const float x : {-130.0F, -20.0F, 60.0F, 120.0F}) {
    for (const float offset : {-10.0F, -5.25F, 1.75F, 30.0F}) {
      const Vec3 point = main_road_point(x, offset);
      EXPECT_NEAR(main_road_offset(point.x, point.y), offset, 0.1F);
    }
    const Vec3 road = main_road_point(x, kNearOuterLane_m), before = before_road(x, kNearOuterLane_m, 12.0F);
    EXPECT_NEAR(length(road - before), 12.0F, 1e-3F);
    EXPECT_NEAR(direction_to(road).pan_deg, direction_to(before).pan_deg, 1e-3);
  }
  const Vec3 point = overpass_point(-14.0F, 3.0F);
  EXPECT_FLOAT_EQ(point.z, kDeckHeight_m);
  const cv::Point2f place = overpass_place(point.x, point.y);
  EXPECT_NEAR(place.x, -14.0F, 1e-3F);
  EXPECT_NEAR(place.y, 3.0F, 1e-3F);
  EXPECT_EQ(overpass_height(kDeckHalfLength_m + kRampLength_m), 0.0F);
}

TEST(SunMap, ThrowsShadowsAwayFromTheSun) {
  SunMap map;
  const Vec3 high(10.0F, 120.0F, 8.0F);
  for (int i = 0; i < 12; ++i) map.add_leaf(high, 1.5F);
  map.add_triangle({60, 100, 0}, {70, 100, 0}, {65, 112, 0});
  map.finish();
  const Vec3 shade = shadow_of(high, 0.0F);
  EXPECT_LT(map.share_at(shade.x, shade.y), 0.05F);
  EXPECT_GT(map.share_at(high.x, high.y), 0.95F);
  EXPECT_LT(map.share_above(high - to_sun() * 2.0F), 0.05F);
  EXPECT_LT(map.share_at(65.0F, 104.0F), 0.05F);
  EXPECT_EQ(map.share_at(5000.0F, 0.0F), 1.0F);
}

TEST(Smear, SpreadsAPointAlongItsLineAndKeepsItsLight) {
  cv::Mat image(21, 41, CV_32FC1, cv::Scalar(0));
  image.at<float>(10, 20) = 100.0F;
  const cv::Mat line = smeared(image, {8.0F, 0.0F});
  EXPECT_NEAR(cv::sum(line)[0], 100.0, 0.01);
  EXPECT_NEAR(line.at<float>(10, 17), 12.5F, 0.5F);
  EXPECT_EQ(line.at<float>(8, 20), 0.0F);
  EXPECT_EQ(line.at<float>(10, 26), 0.0F);
  EXPECT_EQ(cv::norm(smeared(image, {0.2F, 0.1F}), image, cv::NORM_INF), 0.0);
}

TEST(Sensor, AddsNoiseThatGrowsWithTheLightAndDarkensTheCorners) {
  const cv::Size size(320, 180);
  const Sensor sensor(size, 4);
  const auto noise_of = [&](int level) {
    cv::Mat image(size, CV_8UC3, cv::Scalar::all(level));
    sensor.expose(0.0, image);
    cv::Scalar mean, deviation;
    cv::meanStdDev(image(cv::Rect(130, 70, 60, 40)), mean, deviation);
    EXPECT_NEAR(mean[1], level, 3.0);
    return deviation[1];
  };
  const double dark = noise_of(30), bright = noise_of(200);
  EXPECT_GT(dark, 0.5);
  EXPECT_GT(bright, 1.5 * dark);
  EXPECT_LT(bright, 8.0);
  cv::Mat image(size, CV_8UC3, cv::Scalar::all(200));
  sensor.expose(0.0, image);
  EXPECT_LT(cv::mean(image(cv::Rect(0, 0, 20, 20)))[1], 185.0);
}

TEST(Vehicles, FillTheSizeThatTheyName) {
  for (int kind = 0; kind < kVehicleKinds; ++kind) {
    const VehicleModel model = make_vehicle(static_cast<VehicleKind>(kind), Colour::all(0.5F));
    EXPECT_GT(model.facets.size(), 100U);
    Vec3 low(99, 99, 99), high(-99, -99, -99);
    for (const Facet& facet : model.facets) {
      EXPECT_NEAR(length(facet.normal), 1.0F, 1e-4F);
      for (const Vec3& c : facet.corners) {
        low = {std::min(low.x, c.x), std::min(low.y, c.y), std::min(low.z, c.z)};
        high = {std::max(high.x, c.x), std::max(high.y, c.y), std::max(high.z, c.z)};
      }
    }
    EXPECT_NEAR(high.x - low.x, model.length_m, 0.15F);
    EXPECT_NEAR(high.y - low.y, model.width_m, 0.45F);  // mirrors stand out
    EXPECT_NEAR(high.z, model.height_m, 0.12F);
    EXPECT_NEAR(low.z, 0.0F, 0.05F);
  }
}

TEST(Story, AddsUpTheWayOfAChangingSpeed) {
  const std::vector<SpeedMark> marks = {{5.0F, 0.0F}, {10.0F, 8.0F}, {20.0F, 8.0F}, {24.0F, 4.0F}};
  EXPECT_EQ(driven_m(marks, 4.0F), 0.0F);
  EXPECT_FLOAT_EQ(driven_m(marks, 10.0F), 20.0F);
  EXPECT_FLOAT_EQ(driven_m(marks, 15.0F), 60.0F);
  EXPECT_FLOAT_EQ(driven_m(marks, 22.0F), 100.0F + 14.0F);
  EXPECT_FLOAT_EQ(driven_m(marks, 26.0F), 100.0F + 24.0F + 8.0F);
  EXPECT_FLOAT_EQ(speed_m_s(marks, 22.0F), 6.0F);
  EXPECT_FLOAT_EQ(speed_m_s(marks, 99.0F), 4.0F);
}

TEST(Story, LetsTheLookAlikePassWithinOneLengthOfTheTarget) {
  const Story story(7);
  float closest = 1e9F;
  for (float t = 10.0F; t < 14.0F; t += 0.1F) {
    const auto all = story.vehicles(t);
    EXPECT_EQ(all[0].model, all[1].model);
    closest = std::min(closest, length(all[0].pose.position - all[1].pose.position));
  }
  EXPECT_LT(closest, story.target(0.0F).model->length_m);
  EXPECT_GT(closest, 2.0F);
}

// No two vehicles overlap: the circles that each would need to turn on the spot are cut to its width.
TEST(Story, KeepsVehiclesApart) {
  for (const std::uint32_t seed : {1U, 2U, 3U, 4U}) {
    const Story story(seed);
    for (float t = 0.0F; t < 41.0F; t += 0.25F) {
      const auto all = story.vehicles(t);
      for (std::size_t i = 0; i < all.size(); ++i) {
        for (std::size_t k = i + 1; k < all.size(); ++k) {
          const Vec3 gap = all[k].pose.position - all[i].pose.position;
          if (std::abs(gap.z) > 3.0F) continue;
          const Vec3 ahead = all[i].pose.turned({1.0F, 0.0F, 0.0F}),
                     aside = all[i].pose.turned({0.0F, 1.0F, 0.0F});
          const float room_x = 0.5F * (all[i].model->length_m + all[k].model->length_m);
          const float room_y = 0.45F * (all[i].model->width_m + all[k].model->width_m);
          EXPECT_TRUE(std::abs(gap.dot(ahead)) > room_x || std::abs(gap.dot(aside)) > room_y)
              << "seed " << seed << " at " << t << " s: " << i << " and " << k;
        }
      }
    }
  }
}

TEST(Story, HeadsWhereItDrives) {
  const Story story(1);
  for (const float t : {7.0F, 12.0F, 24.0F, 38.0F}) {
    const auto now = story.vehicles(t), soon = story.vehicles(t + 0.05F);
    for (std::size_t i = 0; i < now.size(); ++i) {
      const Vec3 way = soon[i].pose.position - now[i].pose.position;
      if (length(way) < 0.05F || length(way) > 5.0F) continue;
      EXPECT_GT(unit(way).dot(now[i].pose.turned({1.0F, 0.0F, 0.0F})), 0.99F) << i;
    }
  }
}

}  // namespace
}  // namespace ostrel_scene
