// Draws the panorama tile by tile.
#pragma once

#include <vector>

#include "world_ground.h"
#include "world_raster.h"
#include "world_static.h"

namespace ostrel_scene {

constexpr double kDistanceStep_m = 0.05;

// The place in a panorama, in pixels from its upper left corner, that a direction looks at.
cv::Point2f panorama_place(const Vec3& ray, float pixels_per_radian);

class PanoramaTiles {
 public:
  PanoramaTiles(float pixels_per_radian, const Ground& ground, const StaticScene& scene);

  // The whole panorama: its picture (CV_8UC3), what stands (CV_8UC4, colours times coverage), and the distance of
  // what stands (CV_16UC1).
  void draw(cv::Mat& picture, cv::Mat& standing, cv::Mat& distance) const;

 private:
  struct Triangle {
    Corner a, b, c;
  };
  struct Tile {
    std::vector<std::uint32_t> triangles, discs;
  };

  void project(const StaticScene& scene);
  void assign(float left, float top, float right, float bottom, std::uint32_t index,
              std::vector<std::uint32_t> Tile::*list);
  Corner corner(const Vec3& place, const Colour& colour) const;
  void draw_ground(const cv::Rect& area, cv::Mat& picture) const;
  Colour ground_colour(float x_px, float y_px) const;
  void draw_standing(const Tile& tile, const cv::Rect& area, cv::Mat& picture, cv::Mat& standing,
                     cv::Mat& distance) const;

  float pixels_per_radian_;
  cv::Size size_px_;
  cv::Size tiles_;
  const Ground& ground_;
  const SunMap& sun_map_;
  std::vector<Triangle> triangles_;
  std::vector<Disc> discs_;
  std::vector<Tile> contents_;
};

}  // namespace ostrel_scene
