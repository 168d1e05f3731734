// Scripted records of the demo, frame by frame at its rate.
#pragma once

#include <ostrel_host/demo_frame.h>

#include <string>
#include <vector>

namespace ostrel_test {

// A target that stands at 100,50 with 40 x 20 pixels; what a test changes, it changes.
inline ostrel_host::DemoFrame demo_frame(std::size_t index, const std::string& status = "track_ok") {
  ostrel_host::DemoFrame frame;
  frame.time_s = static_cast<double>(index) / ostrel_host::kDemoFrameRate;
  frame.truth.box_px = {100, 50, 40, 20};
  frame.truth.visible_share = 1.0;
  frame.in_view_share = 1.0;
  frame.view = {1.0, -14.0, 40.0, 23.0};
  frame.answer.state.status = status;
  frame.answer.state.phase = "ready";
  return frame;
}

inline ostrel_host::DemoFrame with_box(ostrel_host::DemoFrame frame, const BBox& box, double score) {
  frame.answer.published = ostrel_host::Detection{box, score};
  return frame;
}

inline ostrel_host::DemoFrame followed(std::size_t index) {
  return with_box(demo_frame(index), {100, 50, 40, 20}, 0.9);
}

inline ostrel_host::DemoFrame hidden(ostrel_host::DemoFrame frame) {
  frame.truth.visible_share = 0.0;
  return frame;
}

}  // namespace ostrel_test
