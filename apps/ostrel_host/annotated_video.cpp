#include "annotated_video.h"

#include <cstdio>
#include <opencv2/imgproc.hpp>

#include "bad_input.h"

namespace ostrel_host {
namespace {

const cv::Scalar kFollowing(80, 220, 60);
const cv::Scalar kHolding(0, 170, 255);
const cv::Scalar kInk(255, 255, 255);

void draw_caption(const std::string& text, cv::Mat* image) {
  constexpr int kMargin_px = 6;
  constexpr double kFontScale = 0.45;
  int baseline = 0;
  const cv::Size size = cv::getTextSize(text, cv::FONT_HERSHEY_SIMPLEX, kFontScale, 1, &baseline);
  const cv::Rect band(0, 0, size.width + 2 * kMargin_px, size.height + 2 * kMargin_px);
  cv::rectangle(*image, band, cv::Scalar::all(0), cv::FILLED);
  cv::putText(*image, text, cv::Point(kMargin_px, size.height + kMargin_px), cv::FONT_HERSHEY_SIMPLEX,
              kFontScale, kInk, 1, cv::LINE_AA);
}

}  // namespace

void annotate(std::size_t frame, const StepResult& result, cv::Mat* image) {
  char caption[160];
  if (result.published) {
    const BBox& box = result.published->box;
    const bool holding = result.published->score <= 0.0;
    cv::rectangle(*image, cv::Rect(box.x, box.y, box.w, box.h), holding ? kHolding : kFollowing, 2);
    std::snprintf(caption, sizeof caption, "%zu  %s  %.2f", frame, result.state.status.c_str(),
                  result.published->score);
  } else {
    std::snprintf(caption, sizeof caption, "%zu  %s", frame, result.state.status.c_str());
  }
  draw_caption(caption, image);
}

AnnotatedVideo::AnnotatedVideo(const std::string& file, cv::Size first_frame_px, double frame_rate)
    : size_px_(first_frame_px.width + first_frame_px.width % 2,
               first_frame_px.height + first_frame_px.height % 2),
      canvas_(size_px_, CV_8UC3, cv::Scalar::all(0)) {
  const int code = cv::VideoWriter::fourcc('m', 'p', '4', 'v');
  if (!writer_.open(file, code, frame_rate, size_px_)) throw BadInput("'" + file + "' cannot be written");
}

void AnnotatedVideo::write(std::size_t frame, const StepResult& result, const cv::Mat& image) {
  if (!image.empty()) {
    cv::Mat drawn = image.clone();
    annotate(frame, result, &drawn);
    cv::resize(drawn, canvas_, size_px_);
  }
  writer_.write(canvas_);
}

}  // namespace ostrel_host
