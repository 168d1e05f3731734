// The standing world, drawn once all around the camera. The camera only turns, so each picture of what stands is
// cut out of this panorama: a cylinder, columns by pan angle and rows by height over distance.
#pragma once

#include <vector>

#include "world_ground.h"
#include "world_static.h"

namespace ostrel_scene {

// Pixels of the panorama per radian for pictures of a width: full sharpness down to a field of view of 24 degrees.
float panorama_density(int picture_width_px);

class Panorama {
 public:
  Panorama(float pixels_per_radian, const Ground& ground, const StaticScene& scene);

  // 8 bits, blue, green, red.
  cv::Mat picture(const Pinhole& camera, const cv::Rect& area_px) const;

  // What stands, without the ground, for what moves behind it.
  struct Standing {
    cv::Mat colour;      // CV_8UC4: blue, green, red times coverage, and coverage
    cv::Mat distance_m;  // CV_32FC1; very large where there is nothing
  };
  Standing standing(const Pinhole& camera, const cv::Rect& area_px) const;

 private:
  struct Level {
    cv::Mat picture;   // CV_8UC3
    cv::Mat standing;  // CV_8UC4
    cv::Mat distance;  // CV_16UC1, in steps of kDistanceStep_m
  };
  void add_levels();
  std::size_t level_for(const Pinhole& camera) const;
  cv::Mat places(const Pinhole& camera, const cv::Rect& area_px, std::size_t level) const;

  float pixels_per_radian_;
  std::vector<Level> levels_;  // each half the size of the one before
};

}  // namespace ostrel_scene
