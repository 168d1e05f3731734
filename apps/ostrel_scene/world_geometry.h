// Where things are: metres, x to the right of the camera's zero pan, y away from it, z up. The camera stands on
// its mast above the origin and never moves, only turns.
//
// Picture coordinates are continuous: the centre of the first pixel is at (0.5, 0.5).
#pragma once

#include <ostrel_scene/world.h>

#include <algorithm>
#include <cmath>
#include <opencv2/core.hpp>

namespace ostrel_scene {

using Vec3 = cv::Point3f;

constexpr float kMastHeight_m = 42.0F;
constexpr float kPi_f = 3.14159265F;

inline float length(const Vec3& v) {
  return std::sqrt(v.dot(v));
}
inline Vec3 unit(const Vec3& v) {
  return v * (1.0F / length(v));
}
inline Vec3 camera_position() {
  return {0.0F, 0.0F, kMastHeight_m};
}
inline float distance_to_camera(const Vec3& point) {
  return length(point - camera_position());
}

// 0 below `low`, 1 above `high`, smooth between.
inline float smooth_step(float low, float high, float value) {
  const float share = std::min(1.0F, std::max(0.0F, (value - low) / (high - low)));
  return share * share * (3.0F - 2.0F * share);
}

inline float mix(float a, float b, float share) {
  return a + (b - a) * share;
}

// A thing on the ground or on a deck: its own x axis points along its heading, anticlockwise from the world's x.
struct Pose {
  Vec3 position;
  float heading_rad = 0.0F;

  Vec3 to_world(const Vec3& local) const;
  Vec3 turned(const Vec3& local_direction) const;
};

// A point in a picture or a panorama; nearness is 1 / distance to the camera in metres.
struct ScreenPoint {
  float x_px = 0.0F;
  float y_px = 0.0F;
  float nearness = 0.0F;
};

// The camera at one view.
class Pinhole {
 public:
  Pinhole(const CameraView& view, cv::Size picture);

  // False for a point that is not before the camera.
  bool project(const Vec3& point, ScreenPoint& screen) const;
  // The direction, not of unit length, that a place in the picture looks at.
  Vec3 ray(float x_px, float y_px) const;
  float pixels_per_radian() const { return focal_x_px_; }

 private:
  Vec3 right_, up_, forward_;
  float focal_x_px_, focal_y_px_;
  cv::Point2f centre_px_;
};

Direction direction_to(const Vec3& point);

}  // namespace ostrel_scene
