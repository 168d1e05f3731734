// What is drawn where, and what hides what: the panorama of what stands, and the vehicles in it.
#include <gtest/gtest.h>
#include <ostrel_scene/world_vehicle_layer.h>

#include <memory>
#include <opencv2/imgproc.hpp>

#include "apps/ostrel_scene/world_views.h"

namespace ostrel_scene {
namespace {

const cv::Size kPicture(240, 136);

// A world with nothing but ground and what a test puts there.
struct Scenery {
  Ground ground{3};
  StaticScene scene;
  std::unique_ptr<Panorama> panorama;

  void finish() {
    scene.sun_map.finish();
    panorama = std::make_unique<Panorama>(panorama_density(kPicture.width), ground, scene);
  }
};

constexpr float kWallAt_m = 100.0F;

// An upright wall across the view, from the left up to the line of sight to x = 0.
void add_wall(StaticScene& scene) {
  const auto magenta = [](const Vec3&) { return Colour(1.0F, 0.0F, 1.0F); };
  add_quad(
      scene,
      {{Vec3(-40, kWallAt_m, 0), Vec3(0, kWallAt_m, 0), Vec3(0, kWallAt_m, 14), Vec3(-40, kWallAt_m, 14)}},
      2.0F, magenta);
}

TEST(Panorama, ShowsWhatStandsInItsPlaceAndAtItsDistance) {
  Scenery scenery;
  add_wall(scenery.scene);
  scenery.finish();
  for (const double hfov_deg : {18.0, 36.0, 70.0}) {
    const Vec3 on_wall(-4.0F, kWallAt_m, 6.0F), beside(4.0F, kWallAt_m, 6.0F);
    const Pinhole camera(view_towards({0.0F, kWallAt_m, 6.0F}, hfov_deg), kPicture);
    const cv::Rect all(cv::Point(), kPicture);
    const cv::Mat picture = scenery.panorama->picture(camera, all);
    const Panorama::Standing standing = scenery.panorama->standing(camera, all);
    ScreenPoint inside, outside;
    ASSERT_TRUE(camera.project(on_wall, inside) && camera.project(beside, outside));
    const cv::Point in(cvFloor(inside.x_px), cvFloor(inside.y_px)),
        out(cvFloor(outside.x_px), cvFloor(outside.y_px));
    EXPECT_GT(picture.at<cv::Vec3b>(in)[2] - picture.at<cv::Vec3b>(in)[1], 40);
    EXPECT_LT(std::abs(picture.at<cv::Vec3b>(out)[0] - picture.at<cv::Vec3b>(out)[1]), 90);
    EXPECT_EQ(standing.colour.at<cv::Vec4b>(in)[3], 255);
    EXPECT_EQ(standing.colour.at<cv::Vec4b>(out)[3], 0);
    EXPECT_NEAR(standing.distance_m.at<float>(in), distance_to_camera(on_wall), 1.5F);
    EXPECT_GT(standing.distance_m.at<float>(out), 3000.0F);
    // The wall ends exactly where its edge is projected to.
    ScreenPoint edge;
    ASSERT_TRUE(camera.project({0.0F, kWallAt_m, 6.0F}, edge));
    const int row = cvFloor(edge.y_px);
    double covered_px = 0.0;
    for (int x = cvFloor(inside.x_px); x < kPicture.width; ++x)
      covered_px += standing.colour.at<cv::Vec4b>(row, x)[3] / 255.0;
    EXPECT_NEAR(cvFloor(inside.x_px) + covered_px, edge.x_px, 0.6);
  }
}

TEST(Panorama, CutsAPartAsItCutsTheWhole) {
  Scenery scenery;
  add_wall(scenery.scene);
  scenery.finish();
  const Pinhole camera(view_towards({0.0F, kWallAt_m, 6.0F}, 25.0), kPicture);
  const cv::Mat whole = scenery.panorama->picture(camera, {cv::Point(), kPicture});
  const cv::Rect part(83, 41, 60, 50);
  cv::Mat difference;
  cv::absdiff(whole(part), scenery.panorama->picture(camera, part), difference);
  EXPECT_LE(cv::norm(difference, cv::NORM_INF), 6.0);
  EXPECT_LT(cv::mean(difference)[1], 0.2);
}

struct Placed {
  VehicleModel model = make_vehicle(VehicleKind::kPickUp, screen_colour(142, 62, 42));

  VehicleView at(const Vec3& place, const Pinhole& camera) const {
    VehicleView view;
    EXPECT_TRUE(look_at({&model, {place, 0.0F}}, camera, view));
    return view;
  }
};

// What a vehicle's body changes in a picture; its shadow darkens all colours alike and does not count.
cv::Rect coloured_area(const cv::Mat& with, const cv::Mat& without) {
  cv::Mat changed(with.size(), CV_8UC1, cv::Scalar(0));
  for (int y = 0; y < with.rows; ++y) {
    for (int x = 0; x < with.cols; ++x) {
      const cv::Vec3b a = with.at<cv::Vec3b>(y, x), b = without.at<cv::Vec3b>(y, x);
      if (std::abs((a[2] - a[1]) - (b[2] - b[1])) > 14) changed.at<uchar>(y, x) = 255;
    }
  }
  return cv::boundingRect(changed);
}

TEST(VehicleLayer, DrawsAVehicleExactlyInItsBox) {
  Scenery scenery;
  scenery.finish();
  const Placed pick_up;
  const Vec3 place(3.0F, 118.0F, 0.0F);
  const Pinhole camera(view_towards(place, 8.0), kPicture);
  const VehicleView view = pick_up.at(place, camera);
  const VehicleLayer layer(camera, *scenery.panorama, scenery.scene.sun_map, kPicture);
  const cv::Mat empty = scenery.panorama->picture(camera, {cv::Point(), kPicture});
  cv::Mat picture = empty.clone();
  layer.draw({view}, {}, picture);
  const cv::Rect seen = coloured_area(picture, empty);
  EXPECT_NEAR(seen.x, view.box_px.x, 2.5F);
  EXPECT_NEAR(seen.br().x, view.box_px.br().x, 2.5F);
  EXPECT_NEAR(seen.y, view.box_px.y, 2.5F);
  // The tyres at the bottom are grey as the shadow is.
  EXPECT_NEAR(seen.br().y, view.box_px.br().y, 0.3F * view.box_px.height);
  EXPECT_FLOAT_EQ(layer.visible_share(view, {}), 1.0F);
}

TEST(VehicleLayer, DrawsBehindAndBeforeWhatStands) {
  Scenery scenery;
  add_wall(scenery.scene);
  scenery.finish();
  const Placed pick_up;
  // On the line of sight through the wall's left part: behind it, and before it.
  const Vec3 behind(-9.0F, 108.0F, 0.0F), before(-9.0F, 92.0F, 0.0F), half_behind(-1.0F, 108.0F, 0.0F);
  for (const Vec3& place : {behind, before, half_behind}) {
    const Pinhole camera(view_towards(place, 10.0), kPicture);
    const VehicleView view = pick_up.at(place, camera);
    const VehicleLayer layer(camera, *scenery.panorama, scenery.scene.sun_map, kPicture);
    const cv::Mat empty = scenery.panorama->picture(camera, {cv::Point(), kPicture});
    cv::Mat picture = empty.clone();
    layer.draw({view}, {}, picture);
    const double changed = cv::norm(picture(view.box_px), empty(view.box_px), cv::NORM_INF);
    const float share = layer.visible_share(view, {});
    if (place.x == half_behind.x) {
      EXPECT_GT(share, 0.15F);
      EXPECT_LT(share, 0.7F);
    } else if (place.y > kWallAt_m) {
      EXPECT_LE(changed, 1.0);
      EXPECT_EQ(share, 0.0F);
    } else {
      EXPECT_GT(changed, 60.0);
      EXPECT_FLOAT_EQ(share, 1.0F);
    }
  }
}

TEST(VehicleLayer, KeepsVehiclesBehindWhatStandsInASmearedPicture) {
  Scenery scenery;
  add_wall(scenery.scene);
  scenery.finish();
  const Placed pick_up;
  const Vec3 behind(-9.0F, 108.0F, 0.0F);
  const Pinhole camera(view_towards(behind, 10.0), kPicture);
  VehicleView view = pick_up.at(behind, camera);
  const Smear smear(5.0F, 1.0F);
  view.smear_px = smear;
  const VehicleLayer layer(camera, *scenery.panorama, scenery.scene.sun_map, kPicture);
  const cv::Mat empty = smeared(scenery.panorama->picture(camera, {cv::Point(), kPicture}), smear);
  cv::Mat picture = empty.clone();
  layer.draw({view}, smear, picture);
  EXPECT_LE(cv::norm(picture(view.box_px), empty(view.box_px), cv::NORM_INF), 2.0);
}

TEST(VehicleLayer, DrawsNearerVehiclesOverFartherOnesInAnyOrder) {
  Scenery scenery;
  scenery.finish();
  const Placed red;
  Placed white;
  white.model = make_vehicle(VehicleKind::kVan, screen_colour(230, 230, 230));
  const Vec3 place(0.0F, 118.0F, 0.0F);
  const Pinhole camera(view_towards(place, 10.0), kPicture);
  const VehicleLayer layer(camera, *scenery.panorama, scenery.scene.sun_map, kPicture);
  const VehicleView far = white.at(place, camera), near = red.at(place - Vec3(0.0F, 2.2F, 0.0F), camera);
  cv::Mat one = scenery.panorama->picture(camera, {cv::Point(), kPicture}), other = one.clone(),
          alone = one.clone();
  layer.draw({far, near}, {}, one);
  layer.draw({near, far}, {}, other);
  layer.draw({near}, {}, alone);
  EXPECT_EQ(cv::norm(one, other, cv::NORM_INF), 0.0);
  const auto red_pixels = [](const cv::Mat& picture) {
    std::vector<cv::Mat> planes;
    cv::split(picture, planes);
    cv::Mat redness;
    cv::subtract(planes[2], planes[1], redness);
    return cv::countNonZero(redness > 25);
  };
  EXPECT_GT(red_pixels(alone), 100);
  EXPECT_GT(red_pixels(one), 0.95 * red_pixels(alone));
}

TEST(VehicleLayer, CountsWhatANearerVehicleHides) {
  Scenery scenery;
  scenery.finish();
  const Placed pick_up;
  const Vec3 place(0.0F, 118.0F, 0.0F);
  const Pinhole camera(view_towards(place, 10.0), kPicture);
  const VehicleLayer layer(camera, *scenery.panorama, scenery.scene.sun_map, kPicture);
  const VehicleView far = pick_up.at(place, camera),
                    near = pick_up.at(place - Vec3(2.0F, 3.5F, 0.0F), camera);
  EXPECT_FLOAT_EQ(layer.visible_share(near, {far, near}), 1.0F);
  const float share = layer.visible_share(far, {far, near});
  EXPECT_LT(share, 0.95F);
  EXPECT_GT(share, 0.3F);
}

TEST(VehicleLayer, DarkensTheGroundOnTheSideAwayFromTheSun) {
  Scenery scenery;
  scenery.finish();
  const Placed pick_up;
  const Vec3 place(0.0F, 118.0F, 0.0F);
  const Pinhole camera(view_towards(place, 10.0), kPicture);
  const VehicleLayer layer(camera, *scenery.panorama, scenery.scene.sun_map, kPicture);
  const cv::Mat empty = scenery.panorama->picture(camera, {cv::Point(), kPicture});
  cv::Mat picture = empty.clone();
  layer.draw({pick_up.at(place, camera)}, {}, picture);
  const auto change_at = [&](const Vec3& ground) {
    ScreenPoint screen;
    EXPECT_TRUE(camera.project(ground, screen));
    const cv::Point pixel(cvFloor(screen.x_px), cvFloor(screen.y_px));
    return static_cast<double>(picture.at<cv::Vec3b>(pixel)[1]) / empty.at<cv::Vec3b>(pixel)[1];
  };
  EXPECT_LT(change_at(place + Vec3(3.3F, 0.3F, 0.0F)), 0.85);
  EXPECT_GT(change_at(place - Vec3(3.6F, 0.3F, 0.0F)), 0.97);
}

}  // namespace
}  // namespace ostrel_scene
