// annotated.mp4: the frames with the published box, its score and the status word.
#pragma once

#include <opencv2/core.hpp>
#include <opencv2/videoio.hpp>
#include <string>

#include "plugin_session.h"

namespace ostrel_host {

// Draws into `image`: green where the tracker follows, amber where it holds the last box (score 0), nothing
// where no box was published.
void annotate(std::size_t frame, const StepResult& result, cv::Mat* image);

class AnnotatedVideo {
 public:
  // Throws BadInput where the file cannot be made. Sides are rounded up to even; a frame of another size is
  // scaled to the first one's.
  AnnotatedVideo(const std::string& file, cv::Size first_frame_px, double frame_rate);

  // `image` is a frame as it was read; an empty one repeats the last picture.
  void write(std::size_t frame, const StepResult& result, const cv::Mat& image);

 private:
  cv::Size size_px_;
  cv::VideoWriter writer_;
  cv::Mat canvas_;
};

}  // namespace ostrel_host
