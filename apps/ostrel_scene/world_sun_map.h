// How much of the sun reaches each place of the ground: what stands throws its shadow here.
#pragma once

#include "world_geometry.h"

namespace ostrel_scene {

class SunMap {
 public:
  SunMap();

  void add_leaf(const Vec3& centre, float radius_m);
  void add_triangle(const Vec3& a, const Vec3& b, const Vec3& c);
  // Softens the edges; the map is complete.
  void finish();

  // 1 in the sun, 0 in full shadow.
  float share_at(float x, float y) const;
  // The same for a point above the ground, as if what shades it stood far away.
  float share_above(const Vec3& point) const;

 private:
  cv::Point2f cell_of(const Vec3& point) const;

  cv::Mat share_;  // CV_32FC1
};

}  // namespace ostrel_scene
