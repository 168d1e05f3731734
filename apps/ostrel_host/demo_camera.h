// Films the world through the gimbal: where it first looks, and frames with the metadata that the plug-in reads.
#pragma once

#include <ostrel_scene/world.h>

#include "demo_frame.h"
#include "frame_source.h"
#include "region.h"
#include "virtual_gimbal.h"
#include "zoom_plan.h"

namespace ostrel_host {

constexpr double kWideHfov_deg = 26.0;
constexpr double kTeleHfov_deg = 16.0;

class DemoCamera {
 public:
  // Looks past the target, so that it stands off the picture's middle.
  DemoCamera(const ostrel_scene::World& world, std::uint64_t seed);

  struct Shot {
    Frame frame;
    ViewReading view;  // the same numbers as the frame's metadata
    ostrel_scene::TargetTruth truth;
  };
  Shot film(std::size_t index);

  // Between two frames: zooms by plan, and moves on as commanded.
  void advance(double now_s);

  VirtualGimbal& gimbal() { return gimbal_; }

 private:
  const ostrel_scene::World& world_;
  VirtualGimbal gimbal_;
  std::optional<ZoomStep> zoom_;
};

// A true box as the region that starts the tracker: whole pixels, cut at the picture's edge. Throws BadInput where
// nothing is left of it.
BBox start_region(const ostrel_scene::TargetTruth& truth, cv::Size picture_px);

}  // namespace ostrel_host
