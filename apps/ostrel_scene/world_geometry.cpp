#include "world_geometry.h"

namespace ostrel_scene {
namespace {

constexpr double kRadiansPerDegree = 3.14159265358979323846 / 180.0;
constexpr float kNearest_m = 2.0F;

}  // namespace

Vec3 Pose::turned(const Vec3& local) const {
  const float c = std::cos(heading_rad), s = std::sin(heading_rad);
  return {c * local.x - s * local.y, s * local.x + c * local.y, local.z};
}

Vec3 Pose::to_world(const Vec3& local) const {
  return position + turned(local);
}

Pinhole::Pinhole(const CameraView& view, cv::Size picture)
    : focal_x_px_(
          static_cast<float>(0.5 * picture.width / std::tan(0.5 * view.hfov_deg * kRadiansPerDegree))),
      focal_y_px_(
          static_cast<float>(0.5 * picture.height / std::tan(0.5 * view.vfov_deg * kRadiansPerDegree))),
      centre_px_(0.5F * static_cast<float>(picture.width), 0.5F * static_cast<float>(picture.height)) {
  const double pan = view.pan_deg * kRadiansPerDegree, tilt = view.tilt_deg * kRadiansPerDegree;
  const double sp = std::sin(pan), cp = std::cos(pan), st = std::sin(tilt), ct = std::cos(tilt);
  forward_ = cv::Point3d(sp * ct, cp * ct, st);
  right_ = cv::Point3d(cp, -sp, 0.0);
  up_ = cv::Point3d(-sp * st, -cp * st, ct);
}

bool Pinhole::project(const Vec3& point, ScreenPoint& screen) const {
  const Vec3 offset = point - camera_position();
  const float depth = offset.dot(forward_);
  if (depth < kNearest_m) return false;
  screen.x_px = centre_px_.x + focal_x_px_ * offset.dot(right_) / depth;
  screen.y_px = centre_px_.y - focal_y_px_ * offset.dot(up_) / depth;
  screen.nearness = 1.0F / length(offset);
  return true;
}

Vec3 Pinhole::ray(float x_px, float y_px) const {
  return forward_ + right_ * ((x_px - centre_px_.x) / focal_x_px_) +
         up_ * ((centre_px_.y - y_px) / focal_y_px_);
}

Direction direction_to(const Vec3& point) {
  const cv::Point3d offset = point - camera_position();
  return {std::atan2(offset.x, offset.y) / kRadiansPerDegree,
          std::atan2(offset.z, std::hypot(offset.x, offset.y)) / kRadiansPerDegree};
}

}  // namespace ostrel_scene
