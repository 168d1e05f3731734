// Draws vehicles and their shadows into a picture of what stands, behind and before it as they are.
#pragma once

#include <vector>

#include "world_panorama.h"
#include "world_raster.h"
#include "world_story.h"

namespace ostrel_scene {

// The way that a thing moves in the picture while the shutter is open, in pixels.
using Smear = cv::Point2f;

// The picture with everything in it smeared along a line.
cv::Mat smeared(const cv::Mat& image, const Smear& smear_px);

struct VehicleView {
  PlacedVehicle vehicle;
  cv::Rect2f box_px;  // of the whole vehicle, also outside the picture
  float distance_m = 0.0F;
  Smear smear_px;
};

// False for a vehicle that is not wholly before the camera. The smear is left as it is.
bool look_at(const PlacedVehicle& vehicle, const Pinhole& camera, VehicleView& view);

// For one picture; refers to what it is made of.
class VehicleLayer {
 public:
  VehicleLayer(const Pinhole& camera, const Panorama& panorama, const SunMap& sun_map, cv::Size picture);

  // In any order; nearer vehicles hide farther ones. `standing_smear_px`: how far the standing world, already in
  // `image` (CV_8UC3), is smeared.
  void draw(std::vector<VehicleView> vehicles, const Smear& standing_smear_px, cv::Mat& image) const;

  // The share of a vehicle's pixels that lie inside the picture and that neither something standing nor a nearer one
  // of the `others` hides; the vehicle itself may be among those.
  float visible_share(const VehicleView& view, const std::vector<VehicleView>& others) const;

 private:
  // How much of the sun's and of the sky's light each pixel's ground loses (CV_32FC1 each).
  struct LightLost {
    cv::Mat sun, sky;
  };
  Corner on_ground(const Vec3& place) const;
  LightLost light_lost(const VehicleView& view, const cv::Rect& area) const;
  void draw_shadow(const VehicleView& view, const Smear& standing_smear_px, cv::Mat& image) const;
  void draw_body(const VehicleView& view, const Smear& standing_smear_px, cv::Mat& image) const;
  SampleBuffer rasterised(const VehicleView& view, const cv::Rect& area, bool with_light) const;
  Colour light_of(const Facet& facet, std::size_t corner, const Pose& pose, float distance_m) const;

  const Pinhole& camera_;
  const Panorama& panorama_;
  const SunMap& sun_map_;
  cv::Rect picture_;
};

}  // namespace ostrel_scene
