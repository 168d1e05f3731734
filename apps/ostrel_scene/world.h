// A rendered countryside with roads and vehicles, seen from a mast by a camera on a gimbal: what the demo films.
//
// A world is a pure function of its options, the time and the view: the same arguments give the same pixels on
// every machine with the same OpenCV, and frames may be rendered in any order.
#pragma once

#include <cstdint>
#include <memory>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

namespace ostrel_scene {

// Where the camera looks: pan grows to the right, tilt grows upwards and is negative for a view down on the
// ground. The fields of view are whole angles between opposite edges, 1 to 120 degrees; pictures are fully sharp
// down to 24 degrees and softer below. What there is to see lies within pan -80 to 80 and tilt -37 to 6.
struct CameraView {
  double pan_deg = 0.0;
  double tilt_deg = 0.0;
  double hfov_deg = 40.0;
  double vfov_deg = 23.0;
  double pan_rate_deg_s = 0.0;  // smears the picture over the exposure
  double tilt_rate_deg_s = 0.0;
};

struct WorldOptions {
  int width_px = 960;
  int height_px = 540;
  std::uint32_t seed = 1;
};

// The target as a perfect observer sees it.
struct TargetTruth {
  // Of the whole vehicle, also where it lies outside the picture or is hidden; empty when it is behind the camera.
  // In pixels from the upper left corner of the first pixel.
  cv::Rect2d box_px;
  double visible_share = 0.0;  // of its pixels: 1 in the open, 0 behind something or outside the picture
};

// What happens to the target, for captions and statistics.
struct WorldEvent {
  double start_s = 0.0;
  double end_s = 0.0;
  std::string what;  // "parked", "look-alike crosses", "under the bridge", "behind the wood", ...
};

struct Direction {
  double pan_deg = 0.0;
  double tilt_deg = 0.0;
};

// All calls but the constructor are `const` in fact: several threads may use one world.
class World {
 public:
  // The options must satisfy why_invalid(). Everything that stands is drawn here: some four seconds of one core and
  // 430 MB at the largest for 960 x 540, less in proportion for fewer pixels.
  explicit World(const WorldOptions& options);
  ~World();

  const WorldOptions& options() const;
  double duration_s() const;
  const std::vector<WorldEvent>& events() const;

  // 8 bits; blue, green, red. Any time will do; the story holds for 0 to duration_s().
  cv::Mat render(double time_s, const CameraView& view) const;
  TargetTruth target(double time_s, const CameraView& view) const;
  // From the camera to the middle of the target, exactly.
  Direction direction_to_target(double time_s) const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// Empty for usable options, else what is wrong with them.
std::string why_invalid(const WorldOptions& options);

}  // namespace ostrel_scene
