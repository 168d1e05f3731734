#include "world_vehicle_layer.h"

#include <algorithm>
#include <opencv2/core/utility.hpp>
#include <opencv2/imgproc.hpp>

namespace ostrel_scene {
namespace {

constexpr int kSamples = 4;  // per side of a pixel
constexpr int kShadowSamples = 2;
constexpr float kBehind_m = 0.6F;  // how much nearer a standing thing must be to hide a vehicle
constexpr float kSunLost = 0.64F, kSkyLost = 0.55F;
constexpr float kShadowReach_m = 6.0F;  // about how far a shadow reaches beyond its vehicle
constexpr double kPenumbra_m = 0.09;

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

cv::Rect whole_pixels(const cv::Rect2f& box, float margin) {
  const auto limit = [](float value) { return cvFloor(std::clamp(value, -4000.0F, 20000.0F)); };
  const cv::Point low(limit(box.x - margin), limit(box.y - margin));
  const cv::Point high(limit(box.x + box.width + margin) + 1, limit(box.y + box.height + margin) + 1);
  return {low, high};
}

// How much of a pixel of a vehicle something standing hides.
float hidden_share(const cv::Vec4b& standing, float standing_m, float vehicle_m) {
  return standing_m < vehicle_m - kBehind_m ? static_cast<float>(standing[3]) / 255.0F : 0.0F;
}

// The kernel of a smear: points along the line, each shared out among its four neighbours.
cv::Mat line_kernel(const Smear& smear) {
  const int half = cvCeil(0.5F * smear_length(smear));
  const int side = 2 * half + 1;
  cv::Mat line(side, side, CV_32F, cv::Scalar(0));
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
  return line;
}

}  // namespace

cv::Mat smeared(const cv::Mat& image, const Smear& smear) {
  if (smear_length(smear) < 0.5F) return image;
  cv::Mat result;
  cv::filter2D(image, result, -1, line_kernel(smear), cv::Point(-1, -1), 0, cv::BORDER_REPLICATE);
  return result;
}

bool look_at(const PlacedVehicle& vehicle, const Pinhole& camera, VehicleView& view) {
  std::vector<cv::Point2f> points;
  ScreenPoint screen;
  for (const Facet& facet : vehicle.model->facets) {
    for (const Vec3& corner : facet.corners) {
      if (!camera.project(vehicle.pose.to_world(corner), screen)) return false;
      points.emplace_back(screen.x_px, screen.y_px);
    }
  }
  view.vehicle = vehicle;
  view.box_px = around(points);
  view.distance_m = distance_to_camera(vehicle.pose.position);
  return true;
}

VehicleLayer::VehicleLayer(const Pinhole& camera, const Panorama& panorama, const SunMap& sun_map,
                           cv::Size picture)
    : camera_(camera), panorama_(panorama), sun_map_(sun_map), picture_(cv::Point(), picture) {}

Colour VehicleLayer::light_of(const Facet& facet, std::size_t corner, const Pose& pose,
                              float distance_m) const {
  const Vec3 place = pose.to_world(facet.corners[corner]);
  const float sun = on_deck(pose) ? 1.0F : sun_map_.share_above(place);
  // Little light comes to the lower parts of a body: the road below it lies in its shade.
  const float low = mix(0.62F, 1.0F, smooth_step(0.0F, 0.8F, facet.corners[corner].z));
  return to_display_float(
      hazed(shaded(facet.surface, pose.turned(facet.normal), place, sun) * low, distance_m));
}

SampleBuffer VehicleLayer::rasterised(const VehicleView& view, const cv::Rect& area, bool with_light) const {
  SampleBuffer buffer(area, kSamples);
  const Pose& pose = view.vehicle.pose;
  for (const Facet& facet : view.vehicle.model->facets) {
    const Vec3 place = pose.to_world(facet.corners[0]);
    if (pose.turned(facet.normal).dot(camera_position() - place) <= 0.0F) continue;
    std::array<Corner, 3> corners;
    for (std::size_t i = 0; i < 3; ++i) {
      camera_.project(pose.to_world(facet.corners[i]), corners[i].place);
      if (with_light) corners[i].colour = light_of(facet, i, pose, view.distance_m);
    }
    buffer.draw(corners[0], corners[1], corners[2]);
  }
  return buffer;
}

Corner VehicleLayer::on_ground(const Vec3& place) const {
  Corner corner;
  camera_.project(place, corner.place);
  return corner;
}

// The shadow that the sun throws, and the deeper one right below the body.
VehicleLayer::LightLost VehicleLayer::light_lost(const VehicleView& view, const cv::Rect& area) const {
  const Pose& pose = view.vehicle.pose;
  SampleBuffer thrown(area, kShadowSamples), below(area, kShadowSamples);
  for (const Facet& facet : view.vehicle.model->facets) {
    std::array<Corner, 3> c;
    for (std::size_t i = 0; i < 3; ++i)
      c[i] = on_ground(shadow_of(pose.to_world(facet.corners[i]), pose.position.z));
    thrown.draw(c[0], c[1], c[2]);
  }
  const float x = 0.47F * view.vehicle.model->length_m, y = 0.46F * view.vehicle.model->width_m;
  const Corner a = on_ground(pose.to_world({-x, -y, 0})), b = on_ground(pose.to_world({x, -y, 0}));
  const Corner c = on_ground(pose.to_world({x, y, 0})), d = on_ground(pose.to_world({-x, y, 0}));
  below.draw(a, b, c);
  below.draw(a, c, d);
  LightLost lost{thrown.coverage(), below.coverage()};
  const auto pixels_per_m = static_cast<double>(camera_.pixels_per_radian() / view.distance_m);
  const double softness_px = std::max(0.4, kPenumbra_m * pixels_per_m);
  cv::GaussianBlur(lost.sun, lost.sun, cv::Size(), softness_px);
  cv::GaussianBlur(lost.sky, lost.sky, cv::Size(), 2.0 * softness_px);
  const float sun_here = on_deck(pose) ? 1.0F : sun_map_.share_above(pose.position);
  return {smeared(lost.sun, view.smear_px) * (kSunLost * sun_here),
          smeared(lost.sky, view.smear_px) * kSkyLost};
}

void VehicleLayer::draw_shadow(const VehicleView& view, const Smear& standing_smear, cv::Mat& image) const {
  const float reach_px = kShadowReach_m * camera_.pixels_per_radian() / view.distance_m;
  const cv::Rect area = whole_pixels(view.box_px, reach_px) & picture_;
  if (area.empty()) return;
  const LightLost lost = light_lost(view, area);
  const Panorama::Standing standing = panorama_.standing(camera_, area);
  const cv::Mat before = smeared(standing.colour, standing_smear);
  for (int y = 0; y < area.height; ++y) {
    auto* out = image.ptr<cv::Vec3b>(area.y + y) + area.x;
    for (int x = 0; x < area.width; ++x) {
      const float light = (1.0F - lost.sun.at<float>(y, x)) * (1.0F - lost.sky.at<float>(y, x));
      if (light > 0.997F) continue;
      // On the deck the shadow falls on what stands; elsewhere that stands before the ground.
      const bool falls_on_it = on_deck(view.vehicle.pose) &&
                               standing.distance_m.at<float>(y, x) > view.distance_m - kShadowReach_m;
      for (int k = 0; k < 3; ++k) {
        const float kept = falls_on_it ? 0.0F : static_cast<float>(before.at<cv::Vec4b>(y, x)[k]);
        out[x][k] = cv::saturate_cast<uchar>(kept + light * (static_cast<float>(out[x][k]) - kept));
      }
    }
  }
}

void VehicleLayer::draw_body(const VehicleView& view, const Smear& standing_smear, cv::Mat& image) const {
  const cv::Rect area = whole_pixels(view.box_px, 2.0F + 0.5F * smear_length(view.smear_px)) & picture_;
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

void VehicleLayer::draw(std::vector<VehicleView> vehicles, const Smear& standing_smear,
                        cv::Mat& image) const {
  std::stable_sort(vehicles.begin(), vehicles.end(),
                   [](const VehicleView& a, const VehicleView& b) { return a.distance_m > b.distance_m; });
  for (const VehicleView& view : vehicles) draw_shadow(view, standing_smear, image);
  for (const VehicleView& view : vehicles) draw_body(view, standing_smear, image);
}

float VehicleLayer::visible_share(const VehicleView& view, const std::vector<VehicleView>& others) const {
  const cv::Rect area = whole_pixels(view.box_px, 1.0F);
  if ((area & picture_).empty()) return 0.0F;
  const SampleBuffer samples = rasterised(view, area, false);
  const cv::Mat coverage = samples.coverage(), nearness = samples.nearness();
  cv::Mat open(area.size(), CV_32F, cv::Scalar(0));
  open(((area & picture_) - area.tl())).setTo(1);
  for (const VehicleView& other : others) {
    const cv::Rect common = whole_pixels(other.box_px, 1.0F) & area;
    if (common.empty() || other.distance_m >= view.distance_m) continue;
    cv::Mat part = open(common - area.tl());
    cv::multiply(part, 1.0 - rasterised(other, common, false).coverage(), part);
  }
  const Panorama::Standing standing = panorama_.standing(camera_, area);
  for (int y = 0; y < area.height; ++y) {
    for (int x = 0; x < area.width; ++x) {
      const float near = nearness.at<float>(y, x);
      if (near == 0.0F) continue;
      open.at<float>(y, x) *= 1.0F - hidden_share(standing.colour.at<cv::Vec4b>(y, x),
                                                  standing.distance_m.at<float>(y, x), 1.0F / near);
    }
  }
  const double whole = cv::sum(coverage)[0];
  return whole > 0.0 ? static_cast<float>(coverage.dot(open) / whole) : 0.0F;
}

}  // namespace ostrel_scene
