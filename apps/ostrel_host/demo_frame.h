// What is known about one frame of the demo when it is through.
#pragma once

#include <ostrel_scene/world.h>

#include "plugin_session.h"
#include "virtual_gimbal.h"

namespace ostrel_host {

constexpr double kDemoFrameRate = 25.0;

struct DemoFrame {
  double time_s = 0.0;  // on the simulated clock
  StepResult answer;
  ViewReading view;  // as the frame's metadata said
  ostrel_scene::TargetTruth truth;
  double in_view_share = 0.0;  // of the true box
};

// The share of a box that lies inside a picture, 0 for a box without size.
inline double share_in_view(const cv::Rect2d& box, cv::Size picture_px) {
  const cv::Rect2d inside = box & cv::Rect2d(0.0, 0.0, picture_px.width, picture_px.height);
  return box.area() > 0.0 ? inside.area() / box.area() : 0.0;
}

}  // namespace ostrel_host
