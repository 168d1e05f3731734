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
};

}  // namespace ostrel_host
