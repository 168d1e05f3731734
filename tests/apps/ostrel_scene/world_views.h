#pragma once

#include <ostrel_scene/world_geometry.h>

namespace ostrel_scene {

// A view with `point` in the middle of a picture of 16 to 9.
inline CameraView view_towards(const Vec3& point, double hfov_deg) {
  const Direction direction = direction_to(point);
  CameraView view;
  view.pan_deg = direction.pan_deg;
  view.tilt_deg = direction.tilt_deg;
  view.hfov_deg = hfov_deg;
  view.vfov_deg = 0.5666 * hfov_deg;
  return view;
}

}  // namespace ostrel_scene
