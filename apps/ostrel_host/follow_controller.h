// Keeps the camera on the target by what the plug-in publishes, and by nothing else.
#pragma once

#include <opencv2/core.hpp>
#include <optional>

#include "plugin_state.h"
#include "virtual_gimbal.h"

namespace ostrel_host {

struct FollowGains {
  double proportional_per_s = 2.5;  // rate for an error of one degree
  double integral_per_s2 = 1.5;     // learns the rate at which the target crosses
  double largest_learned_deg_s = 20.0;
  double coast_s = 1.0;  // without a target the learned rate dies away with this time constant
};

// Angles from the view's middle to the middle of a box: right and up count as more. A linear map of the field of view,
// as the plug-in's own pre-positioning takes it.
struct AngleError {
  double pan_deg = 0.0;
  double tilt_deg = 0.0;
};
AngleError angle_error(const BBox& box, const ViewReading& view, cv::Size frame_px);

// A box to follow: one with a score. A box with score 0 is the plug-in's memory of where the target was.
bool is_seen(const std::optional<Detection>& published);

// A proportional and integral controller of the turning rate.
class FollowController {
 public:
  explicit FollowController(const FollowGains& gains = {}) : gains_(gains) {}

  // One call per frame; `view` is the reading that came with the frame. Without a target the camera coasts to a stop,
  // and looks on where it then points.
  TurnRate steer(const std::optional<Detection>& published, const ViewReading& view, cv::Size frame_px,
                 double seconds);

 private:
  FollowGains gains_;
  TurnRate learned_;
};

}  // namespace ostrel_host
