// Draws vehicles and their shadows into a picture of what stands, behind and before it as they are.
#pragma once

#include <vector>

#include "world_panorama.h"
#include "world_story.h"

namespace ostrel_scene {

// The way that a thing moves in the picture while the shutter is open.
using Smear = cv::Point2f;

// The picture with everything in it smeared along a line.
cv::Mat smeared(const cv::Mat& image, const Smear& smear_px);

struct VehicleView {
  PlacedVehicle vehicle;
  cv::Rect2f box_px;  // of the whole vehicle
  float distance_m = 0.0F;
  Smear smear_px;
};

class VehicleLayer {
 public:
  VehicleLayer(const Pinhole& camera, const Panorama& panorama, const SunMap& sun_map, cv::Size picture);

  // Vehicles in view only, the farthest first.
  static bool box_of(const PlacedVehicle& vehicle, const Pinhole& camera, cv::Rect2f& box_px);

  // `standing_smear_px`: how far the standing world, already in `image`, is smeared.
  void draw(const std::vector<VehicleView>& vehicles, const Smear& standing_smear_px, cv::Mat& image) const;

  // The share of the first vehicle's pixels that neither something standing nor one of the `others` hides, and that
  // lie inside the picture.
  float visible_share(const VehicleView& vehicle, const std::vector<VehicleView>& others) const;

 private:
  struct Cover;
  void draw_shadow(const VehicleView& view, const Smear& standing_smear_px, cv::Mat& image) const;
  void draw_body(const VehicleView& view, const Smear& standing_smear_px, cv::Mat& image) const;
  class SampleBuffer rasterised(const VehicleView& view, const cv::Rect& area, bool shaded) const;
  cv::Rect picture_area(const cv::Rect2f& box, float margin_px) const;

  const Pinhole& camera_;
  const Panorama& panorama_;
  const SunMap& sun_map_;
  cv::Rect picture_;
};

}  // namespace ostrel_scene
