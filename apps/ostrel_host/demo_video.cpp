#include "demo_video.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <opencv2/imgproc.hpp>

#include "bad_input.h"
#include "word_colours.h"

namespace ostrel_host {
namespace {

const cv::Scalar kTruth(255, 255, 255);
const cv::Scalar kRawBox(230, 200, 60);
const cv::Scalar kStrip(28, 24, 22);
const cv::Scalar kCaptionInk(235, 235, 235);
const cv::Scalar kFaintInk(165, 165, 165);
constexpr int kFont = cv::FONT_HERSHEY_DUPLEX;
constexpr int kNominalWidth_px = 960;  // for which the sizes below are made

double strip_scale(int width_px) {
  return std::min(static_cast<double>(width_px) / kNominalWidth_px, 2.0);
}

cv::Scalar ink_of(const Colour& colour) {
  return cv::Scalar(colour.blue, colour.green, colour.red);
}

template <typename... Values>
std::string text_of(const char* format, Values... values) {
  char text[120];
  std::snprintf(text, sizeof text, format, values...);
  return text;
}

void draw_corners(const cv::Rect2d& box, cv::Mat* picture) {
  const double reach_x = std::max(4.0, 0.2 * box.width), reach_y = std::max(4.0, 0.2 * box.height);
  for (const double x : {box.x, box.x + box.width}) {
    for (const double y : {box.y, box.y + box.height}) {
      const double inward_x = x == box.x ? reach_x : -reach_x, inward_y = y == box.y ? reach_y : -reach_y;
      const cv::Point corner(cvRound(x), cvRound(y));
      cv::line(*picture, corner, cv::Point(cvRound(x + inward_x), corner.y), kTruth, 1, cv::LINE_AA);
      cv::line(*picture, corner, cv::Point(corner.x, cvRound(y + inward_y)), kTruth, 1, cv::LINE_AA);
    }
  }
}

void draw_dashes(cv::Point from, cv::Point to, const cv::Scalar& colour, cv::Mat* picture) {
  constexpr double kDash_px = 6.0;
  const double length = cv::norm(to - from);
  const auto point = [&](double along) {
    return from + cv::Point(cv::Point2d(to - from) * (std::min(along, length) / length));
  };
  const int dashes = static_cast<int>(std::ceil(length / (2.0 * kDash_px)));
  for (int i = 0; i < dashes; ++i) {
    const double start = 2.0 * kDash_px * i;
    cv::line(*picture, point(start), point(start + kDash_px), colour, 2);
  }
}

void draw_dashed_box(const cv::Rect& box, const cv::Scalar& colour, cv::Mat* picture) {
  const cv::Point a = box.tl(), b(box.x + box.width, box.y), c = box.br(), d(box.x, box.y + box.height);
  draw_dashes(a, b, colour, picture);
  draw_dashes(b, c, colour, picture);
  draw_dashes(d, c, colour, picture);
  draw_dashes(a, d, colour, picture);
}

void draw_published(const StepResult& answer, cv::Mat* picture) {
  const BBox& box = answer.published->box;
  const cv::Rect rectangle(box.x, box.y, box.w, box.h);
  const cv::Scalar colour = ink_of(colour_of_word(answer.state.status));
  if (answer.published->score > 0.0) {
    cv::rectangle(*picture, rectangle, colour, 2);
  } else {
    draw_dashed_box(rectangle, colour, picture);
  }
}

// The strip's grid: two rows, three columns.
class Strip {
 public:
  explicit Strip(cv::Mat* strip) : strip_(*strip), scale_(strip_scale(strip->cols)) { strip_.setTo(kStrip); }

  int across(double share) const { return cvRound(share * strip_.cols); }
  int baseline(int row) const { return cvRound((row == 0 ? 24 : 50) * scale_); }

  void text(const std::string& words, double x_share, int row, const cv::Scalar& ink) {
    cv::putText(strip_, words, cv::Point(across(x_share), baseline(row)), kFont, 0.5 * scale_, ink, 1,
                cv::LINE_AA);
  }

  // A text on a ground of its colour; what is too long for its column ends in dots.
  void badge(const std::string& text_in_full, double x_share, double end_share, int row,
             const Colour& ground) {
    const std::string words = fitted(text_in_full, across(end_share - x_share));
    int below = 0;
    const cv::Size size = cv::getTextSize(words, kFont, 0.5 * scale_, 1, &below);
    const int pad = cvRound(5 * scale_);
    const cv::Rect box(across(x_share) - pad, baseline(row) - size.height - pad, size.width + 2 * pad,
                       size.height + 2 * pad);
    cv::rectangle(strip_, box, ink_of(ground), cv::FILLED);
    text(words, x_share, row, cv::Scalar::all(255));
  }

  void bar(double x_share, double width_share, int row, double value, const cv::Scalar& ink) {
    const int height = cvRound(10 * scale_);
    const cv::Rect frame(across(x_share), baseline(row) - height, across(width_share), height);
    cv::rectangle(strip_, frame, cv::Scalar(70, 66, 64), cv::FILLED);
    cv::Rect filled = frame;
    filled.width = cvRound(frame.width * std::clamp(value, 0.0, 1.0));
    cv::rectangle(strip_, filled, ink, cv::FILLED);
  }

 private:
  std::string fitted(std::string words, int width_px) const {
    int below = 0;
    const auto width = [&](const std::string& text) {
      return cv::getTextSize(text, kFont, 0.5 * scale_, 1, &below).width;
    };
    if (width(words) <= width_px) return words;
    while (!words.empty() && width(words + "..") > width_px) words.pop_back();
    return words + "..";
  }

  cv::Mat& strip_;
  double scale_;
};

}  // namespace

DemoCaption demo_caption(const DemoFrame& frame, const std::string& event) {
  const StepResult& answer = frame.answer;
  const std::string& detail = answer.state.detail;
  DemoCaption caption;
  caption.phase = answer.state.phase;
  caption.status = answer.state.status;
  if (!detail.empty() && detail != "ok") caption.status += " (" + detail + ")";
  caption.score = !answer.published                ? "no box"
                  : answer.published->score <= 0.0 ? "held"
                                                   : text_of("score %.2f", answer.published->score);
  caption.time = text_of("%6.2f s", frame.time_s);
  caption.camera = text_of("pan %.1f  tilt %.1f  fov %.1f x %.1f", frame.view.pan_deg, frame.view.tilt_deg,
                           frame.view.hfov_deg, frame.view.vfov_deg);
  caption.event = event;
  return caption;
}

void draw_boxes(const DemoFrame& frame, cv::Mat* picture) {
  if (frame.truth.box_px.area() > 0.0) draw_corners(frame.truth.box_px, picture);
  const PluginState& state = frame.answer.state;
  if (state.tracker_box.area() > 0.0) {
    cv::rectangle(*picture, cv::Rect(state.tracker_box), kRawBox, 1, cv::LINE_AA);
  }
  if (frame.answer.published) draw_published(frame.answer, picture);
}

int strip_height_px(int picture_width_px) {
  const int height = cvRound(64 * strip_scale(picture_width_px));
  return height + height % 2;
}

void draw_strip(const DemoCaption& caption, const DemoFrame& frame, cv::Mat* strip) {
  Strip grid(strip);
  const double score = frame.answer.published ? frame.answer.published->score : 0.0;
  grid.text(caption.time, 0.012, 0, kFaintInk);
  grid.badge(caption.phase, 0.115, 0.305, 0, colour_of_phase(caption.phase));
  grid.badge(caption.status, 0.33, 0.76, 0, colour_of_word(frame.answer.state.status));
  grid.text(caption.score, 0.775, 0, kCaptionInk);
  grid.bar(0.885, 0.1, 0, score, cv::Scalar(110, 200, 90));
  grid.text(caption.event, 0.012, 1, cv::Scalar(120, 210, 245));
  grid.text(caption.camera, 0.59, 1, kFaintInk);
}

DemoVideo::DemoVideo(const std::string& file, cv::Size picture_px) : picture_px_(picture_px) {
  const int width = picture_px.width + picture_px.width % 2;
  const int height = picture_px.height + picture_px.height % 2 + strip_height_px(picture_px.width);
  canvas_ = cv::Mat(height, width, CV_8UC3, cv::Scalar::all(0));
  const int code = cv::VideoWriter::fourcc('m', 'p', '4', 'v');
  if (!writer_.open(file, code, kDemoFrameRate, canvas_.size())) {
    throw BadInput("'" + file + "' cannot be written");
  }
}

void DemoVideo::write(const cv::Mat& picture, const DemoFrame& frame, const std::string& event) {
  cv::Mat seen = canvas_(cv::Rect(cv::Point(), picture_px_));
  picture.copyTo(seen);
  draw_boxes(frame, &seen);
  const int height = strip_height_px(picture_px_.width);
  cv::Mat strip = canvas_(cv::Rect(0, canvas_.rows - height, canvas_.cols, height));
  draw_strip(demo_caption(frame, event), frame, &strip);
  writer_.write(canvas_);
}

}  // namespace ostrel_host
