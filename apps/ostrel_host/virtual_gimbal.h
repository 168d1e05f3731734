// A camera on a gimbal with a zoom lens, as a program sees one: it takes commands, needs its time to follow them,
// and tells through its encoders where it looks.
//
// Pan grows to the right and lies in [-180, 180); tilt grows upwards.
#pragma once

#include <ostrel_scene/world.h>

#include <cstdint>
#include <opencv2/core.hpp>
#include <optional>

namespace ostrel_host {

struct GimbalLimits {
  double rate_deg_s = 40.0;
  double acceleration_deg_s2 = 80.0;
  double lowest_tilt_deg = -85.0;
  double highest_tilt_deg = 30.0;
  double narrowest_hfov_deg = 4.0;
  double widest_hfov_deg = 60.0;
  // By which the field of view changes at most within a second: 5.7 % from one frame to the next at 25 frames per
  // second, so that a step is over within half a second.
  double zoom_factor_per_s = 4.0;
  double encoder_noise_deg = 0.01;  // standard deviation
};

struct TurnRate {
  double pan_deg_s = 0.0;
  double tilt_deg_s = 0.0;
};

// The view that comes with a frame. The zoom lens is read without noise.
struct ViewReading {
  double pan_deg = 0.0;
  double tilt_deg = 0.0;
  double hfov_deg = 0.0;
  double vfov_deg = 0.0;
};

// The vertical field of view of a lens without distortion whose picture has this size.
double vertical_field_of_view_deg(double hfov_deg, cv::Size picture_px);

// Into [-180, 180).
double wrapped_deg(double angle_deg);

class VirtualGimbal {
 public:
  VirtualGimbal(const ostrel_scene::Direction& start, double hfov_deg, cv::Size picture_px,
                const GimbalLimits& limits, std::uint64_t seed);

  // Goes to a direction, pan by the shorter way, and stops there. Takes the place of an earlier command.
  void point_at(const ostrel_scene::Direction& direction);
  // Keeps turning. Takes the place of an earlier command.
  void turn(const TurnRate& rate);
  // Within what the lens can do.
  void zoom_to(double hfov_deg);

  void advance(double seconds);

  // Whether the direction, or the field of view, of the last command has yet to be reached.
  bool pointing() const { return goal_.has_value(); }
  bool zooming() const { return hfov_deg_ != wanted_hfov_deg_; }

  // Where the camera looks, exactly.
  ostrel_scene::CameraView view() const;
  // The same as the encoders tell it; each call draws its own noise.
  ViewReading read();

 private:
  struct Axis {
    double position_deg = 0.0;
    double rate_deg_s = 0.0;
  };

  void advance_axes(double seconds);
  void drive(Axis* axis, double wanted_rate_deg_s, double seconds) const;
  double approach_rate(double distance_deg, double seconds) const;
  bool arrived(const Axis& axis, double distance_deg, double seconds) const;
  void keep_tilt_in_range();
  void advance_zoom(double seconds);

  cv::Size picture_px_;
  GimbalLimits limits_;
  Axis pan_;
  Axis tilt_;
  std::optional<ostrel_scene::Direction> goal_;
  TurnRate wanted_rate_;
  double hfov_deg_;
  double wanted_hfov_deg_;
  cv::RNG noise_;
};

}  // namespace ostrel_host
