// Triangles and discs with a depth buffer, several samples per pixel.
#pragma once

#include "world_light.h"

namespace ostrel_scene {

struct Corner {
  ScreenPoint place;
  Colour colour;
};

struct Disc {
  ScreenPoint centre;
  float radius_px = 0.0F;
  Colour colour;
};

class SampleBuffer {
 public:
  // Covers `area_px` of a picture; what is drawn is in that picture's coordinates.
  SampleBuffer(const cv::Rect& area_px, int samples_per_side);

  void draw(const Corner& a, const Corner& b, const Corner& c);
  void draw(const Disc& disc);

  // Per pixel: mean colour times coverage, and the coverage (CV_32FC4).
  cv::Mat colour_and_coverage() const;
  // Per pixel: the share of its samples that are drawn (CV_32FC1).
  cv::Mat coverage() const;
  // Per pixel: the greatest nearness, 0 where nothing is drawn (CV_32FC1).
  cv::Mat nearness() const;

 private:
  cv::Point2f to_samples(const ScreenPoint& place) const;
  cv::Rect touched(float left, float top, float right, float bottom) const;

  cv::Rect area_px_;
  int samples_per_side_;
  cv::Mat nearness_;  // CV_32FC1, 0 where nothing is drawn
  cv::Mat colour_;    // CV_32FC3, 0 where nothing is drawn
};

}  // namespace ostrel_scene
