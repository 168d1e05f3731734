#include "world_vehicle_layer.h"

#include <algorithm>
#include <opencv2/core/utility.hpp>
#include <opencv2/imgproc.hpp>

#include "world_land.h"
#include "world_raster.h"

namespace ostrel_scene {
namespace {

constexpr int kSamples = 4;  // per side of a pixel
constexpr int kShadowSamples = 2;
constexpr float kBehind_m = 0.6F;  // how much nearer a standing thing must be to hide a vehicle
constexpr float kShadowDepth = 0.60F, kContactDepth = 0.55F;
constexpr float kShadowSide_m = 6.0F;  // about how far a shadow reaches beyond its vehicle

float smear_length(const Smear& smear) {
  return std::sqrt(smear.dot(smear));
}

bool on_deck(const Pose& pose) {
  return pose.position.z > 0.5F;
}

cv::Rect2f around(const std::vector<cv::Point2f>& points) {
  cv::Point2f low = points.front(), high = points.front();
  for (const cv::Point2f& p : points) {
    low = {std::min(low.x, p.x), std::min(low.y, p.y)};
    high = {std::max(high.x, p.x), std::max(high.y, p.y)};
  }
  return {low, high};
}

// Which pixels something standing hides, wholly or in part.
float hidden_share(const cv::Vec4b& standing, float standing_m, float vehicle_m) {
  return standing_m < vehicle_m - kBehind_m ? static_cast<float>(standing[3]) / 255.0F : 0.0F;
}

}  // namespace

cv::Mat smeared(const cv::Mat& image, const Smear& smear) {
  const float total = smear_length(smear);
  if (total < 0.5F) return image;
  const int half = cvCeil(0.5F * total);
  const int side = 2 * half + 1;
  cv::Mat line(side, side, CV_32F, cv::Scalar(0));
  // Points along the line, each shared out among its four neighbours.
  const int points = 4 * side;
  for (int i = 0; i < points; ++i) {
    const float share = (static_cast<float>(i) + 0.5F) / static_cast<float>(points) - 0.5F;
    const cv::Point2f at(static_cast<float>(half) + share * smear.x,
                         static_cast<float>(half) + share * smear.y);
    const int x = cvFloor(at.x), y = cvFloor(at.y);
    const float wx = at.x - static_cast<float>(x), wy = at.y - static_cast<float>(y);
    const float weights[] = {(1 - wx) * (1 - wy), wx * (1 - wy), (1 - wx) * wy, wx * wy};
    for (int k = 0; k < 4; ++k) {
      const int cx = std::min(x + k % 2, side - 1), cy = std::min(y + k / 2, side - 1);
      line.at<float>(cy, cx) += weights[k] / static_cast<float>(points);
    }
  }
  cv::Mat result;
  cv::filter2D(image, result, -1, line, cv::Point(-1, -1), 0, cv::BORDER_REPLICATE);
  return result;
}

VehicleLayer::VehicleLayer(const Pinhole& camera, const Panorama& panorama, const SunMap& sun_map,
                           cv::Size picture)
    : camera_(camera), panorama_(panorama), sun_map_(sun_map), picture_(cv::Point(), picture) {}

bool VehicleLayer::box_of(const PlacedVehicle& vehicle, const Pinhole& camera, cv::Rect2f& box) {
  std::vector<cv::Point2f> points;
  ScreenPoint screen;
  for (const Facet& facet : vehicle.model->facets) {
    for (const Vec3& corner : facet.corners) {
      if (!camera.project(vehicle.pose.to_world(corner), screen)) return false;
      points.emplace_back(screen.x_px, screen.y_px);
    }
  }
  box = around(points);
  return true;
}

cv::Rect VehicleLayer::picture_area(const cv::Rect2f& box, float margin) const {
  const auto limit = [](float value) { return cvFloor(std::clamp(value, -4000.0F, 20000.0F)); };
  const cv::Point low(limit(box.x - margin), limit(box.y - margin));
  const cv::Point high(limit(box.x + box.width + margin) + 1, limit(box.y + box.height + margin) + 1);
  return {low, high};
}

SampleBuffer VehicleLayer::rasterised(const VehicleView& view, const cv::Rect& area, bool with_light) const {
  SampleBuffer buffer(area, kSamples);
  const Pose& pose = view.vehicle.pose;
  const bool raised = on_deck(pose);
  for (const Facet& facet : view.vehicle.model->facets) {
    const Vec3 normal = pose.turned(facet.normal);
    std::array<Corner, 3> corners;
    const Vec3 middle = pose.to_world(facet.corners[0]);
    if (normal.dot(camera_position() - middle) <= 0.0F) continue;
    for (std::size_t i = 0; i < 3; ++i) {
      const Vec3 place = pose.to_world(facet.corners[i]);
      camera_.project(place, corners[i].place);
      if (!with_light) continue;
      const float sun = raised ? 1.0F : sun_map_.share_above(place);
      // Little light comes to the lower parts of a body, from the road's shade below it.
      const float low = mix(0.62F, 1.0F, smooth_step(0.0F, 0.8F, facet.corners[i].z));
      const Colour light = shaded(facet.surface, normal, place, sun) * low;
      corners[i].colour = to_display_float(hazed(light, view.distance_m));
    }
    buffer.draw(corners[0], corners[1], corners[2]);
  }
  return buffer;
}

// The shadow that the sun throws, and the deeper one right below the body.
void VehicleLayer::draw_shadow(const VehicleView& view, const Smear& standing_smear, cv::Mat& image) const {
  const Pose& pose = view.vehicle.pose;
  const float pixels_per_m = camera_.pixels_per_radian() / view.distance_m;
  const cv::Rect area = picture_area(view.box_px, kShadowSide_m * pixels_per_m) & picture_;
  if (area.empty()) return;
  SampleBuffer thrown(area, kShadowSamples), contact(area, kShadowSamples);
  const auto on_ground = [&](const Vec3& place) {
    Corner corner;
    camera_.project(place, corner.place);
    return corner;
  };
  for (const Facet& facet : view.vehicle.model->facets) {
    std::array<Corner, 3> c;
    for (std::size_t i = 0; i < 3; ++i)
      c[i] = on_ground(shadow_of(pose.to_world(facet.corners[i]), pose.position.z));
    thrown.draw(c[0], c[1], c[2]);
  }
  const float half_length = 0.47F * view.vehicle.model->length_m,
              half_width = 0.46F * view.vehicle.model->width_m;
  const Corner a = on_ground(pose.to_world({-half_length, -half_width, 0})),
               b = on_ground(pose.to_world({half_length, -half_width, 0}));
  const Corner c = on_ground(pose.to_world({half_length, half_width, 0})),
               d = on_ground(pose.to_world({-half_length, half_width, 0}));
  contact.draw(a, b, c);
  contact.draw(a, c, d);
  cv::Mat sun_lost = thrown.coverage(), sky_lost = contact.coverage();
  const double softness = std::max(0.4, 0.09 * static_cast<double>(pixels_per_m));
  cv::GaussianBlur(sun_lost, sun_lost, cv::Size(), softness);
  cv::GaussianBlur(sky_lost, sky_lost, cv::Size(), 2.0 * softness);
  sun_lost = smeared(sun_lost, view.smear_px);
  sky_lost = smeared(sky_lost, view.smear_px);
  const Panorama::Standing standing = panorama_.standing(camera_, area);
  const cv::Mat before = smeared(standing.colour, standing_smear);
  const bool raised = on_deck(pose);
  const float sun_here = raised ? 1.0F : sun_map_.share_above(pose.position);
  for (int y = 0; y < area.height; ++y) {
    auto* out = image.ptr<cv::Vec3b>(area.y + y) + area.x;
    for (int x = 0; x < area.width; ++x) {
      const float light = (1.0F - kShadowDepth * sun_here * sun_lost.at<float>(y, x)) *
                          (1.0F - kContactDepth * sky_lost.at<float>(y, x));
      if (light > 0.997F) continue;
      const auto& over = before.at<cv::Vec4b>(y, x);
      const bool falls_on_it = raised && standing.distance_m.at<float>(y, x) > view.distance_m - 12.0F;
      for (int k = 0; k < 3; ++k) {
        const float kept = falls_on_it ? 0.0F : static_cast<float>(over[k]);
        const float ground = static_cast<float>(out[x][k]) - kept;
        out[x][k] = cv::saturate_cast<uchar>(kept + light * ground);
      }
    }
  }
}

void VehicleLayer::draw_body(const VehicleView& view, const Smear& standing_smear, cv::Mat& image) const {
  const cv::Rect area = picture_area(view.box_px, 2.0F + 0.5F * smear_length(view.smear_px)) & picture_;
  if (area.empty()) return;
  const SampleBuffer samples = rasterised(view, area, true);
  const cv::Mat body = smeared(samples.colour_and_coverage(), view.smear_px);
  const Panorama::Standing standing = panorama_.standing(camera_, area);
  const cv::Mat before = smeared(standing.colour, standing_smear);
  const cv::Mat nearness = samples.nearness();
  for (int y = 0; y < area.height; ++y) {
    auto* out = image.ptr<cv::Vec3b>(area.y + y) + area.x;
    for (int x = 0; x < area.width; ++x) {
      const auto& own = body.at<cv::Vec4f>(y, x);
      if (own[3] < 0.004F) continue;
      const float near = nearness.at<float>(y, x);
      const float own_m = near > 0.0F ? 1.0F / near : view.distance_m;
      const auto& over = before.at<cv::Vec4b>(y, x);
      const float hidden = hidden_share(over, standing.distance_m.at<float>(y, x), own_m);
      for (int k = 0; k < 3; ++k) {
        // What stands before keeps its part; the rest of the pixel is the vehicle over what was there.
        const float kept = hidden > 0.0F ? static_cast<float>(over[k]) : 0.0F;
        const float behind = static_cast<float>(out[x][k]) - kept;
        out[x][k] = cv::saturate_cast<uchar>(kept + (1.0F - hidden) * own[k] + (1.0F - own[3]) * behind);
      }
    }
  }
}

void VehicleLayer::draw(const std::vector<VehicleView>& vehicles, const Smear& standing_smear,
                        cv::Mat& image) const {
  for (const VehicleView& view : vehicles) draw_shadow(view, standing_smear, image);
  for (const VehicleView& view : vehicles) draw_body(view, standing_smear, image);
}

float VehicleLayer::visible_share(const VehicleView& view, const std::vector<VehicleView>& others) const {
  const cv::Rect area = picture_area(view.box_px, 1.0F);
  if ((area & picture_).empty()) return 0.0F;
  const SampleBuffer samples = rasterised(view, area, false);
  const cv::Mat coverage = samples.coverage(), nearness = samples.nearness();
  const Panorama::Standing standing = panorama_.standing(camera_, area);
  cv::Mat open(area.size(), CV_32F, cv::Scalar(1));
  for (const VehicleView& other : others) {
    const cv::Rect common = picture_area(other.box_px, 1.0F) & area;
    if (common.empty() || other.distance_m >= view.distance_m) continue;
    cv::Mat part = open(common - area.tl());
    cv::multiply(part, 1.0 - rasterised(other, common, false).coverage(), part);
  }
  double whole = 0.0, visible = 0.0;
  for (int y = 0; y < area.height; ++y) {
    for (int x = 0; x < area.width; ++x) {
      const float cover = coverage.at<float>(y, x);
      if (cover == 0.0F) continue;
      whole += static_cast<double>(cover);
      if (!picture_.contains(area.tl() + cv::Point(x, y))) continue;
      const float hidden = hidden_share(standing.colour.at<cv::Vec4b>(y, x),
                                        standing.distance_m.at<float>(y, x), 1.0F / nearness.at<float>(y, x));
      visible += static_cast<double>(cover * open.at<float>(y, x) * (1.0F - hidden));
    }
  }
  return whole > 0.0 ? static_cast<float>(visible / whole) : 0.0F;
}

}  // namespace ostrel_scene
