// annotated.mp4 of the demo: what the camera sees with the boxes on it, and a strip of captions below.
#pragma once

#include <opencv2/core.hpp>
#include <opencv2/videoio.hpp>
#include <string>

#include "demo_frame.h"

namespace ostrel_host {

// The two lines of the strip: how it stands, and where the camera looks.
struct DemoCaption {
  std::string phase;
  std::string status;  // the word, with its detail where that says more than "ok"
  std::string score;   // "score 0.83", "held", "no box"
  std::string time;    // " 12.40 s"
  std::string camera;  // "pan  12.3  tilt -14.1  fov 40.0 x 23.2"
  std::string event;
};
DemoCaption demo_caption(const DemoFrame& frame, const std::string& event);

// Into `picture`: the truth as thin corners, the tracker's own box as a thin frame, the published box in the
// colour of its status word; a box with score 0 is dashed.
void draw_boxes(const DemoFrame& frame, cv::Mat* picture);

// Height of the strip under a picture of this width.
int strip_height_px(int picture_width_px);

// Into `strip`, all of it.
void draw_strip(const DemoCaption& caption, const DemoFrame& frame, cv::Mat* strip);

class DemoVideo {
 public:
  // Throws BadInput where the file cannot be made. Sides are rounded up to even.
  DemoVideo(const std::string& file, cv::Size picture_px);

  void write(const cv::Mat& picture, const DemoFrame& frame, const std::string& event);

 private:
  cv::Size picture_px_;
  cv::Mat canvas_;
  cv::VideoWriter writer_;
};

}  // namespace ostrel_host
