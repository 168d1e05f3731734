#include <gtest/gtest.h>
#include <ostrel_host/bad_input.h>
#include <ostrel_host/demo_video.h>
#include <ostrel_host/word_colours.h>

#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include "apps/ostrel_host/demo_frames.h"
#include "support/temporary_folder.h"

namespace {

using namespace ostrel_host;
using ostrel_test::demo_frame;
using ostrel_test::followed;
using ostrel_test::with_box;

cv::Mat black_picture() {
  return cv::Mat(180, 320, CV_8UC3, cv::Scalar::all(0));
}

int touched_pixels(const cv::Mat& picture) {
  return static_cast<int>(cv::countNonZero(picture.reshape(1) != 0));
}

bool is_green(const cv::Vec3b& pixel) {
  const Colour colour = colour_of_word("track_ok");
  return pixel == cv::Vec3b(static_cast<uchar>(colour.blue), static_cast<uchar>(colour.green),
                            static_cast<uchar>(colour.red));
}

TEST(DemoCaption, SaysHowItStands) {
  DemoFrame frame = with_box(demo_frame(310), {100, 50, 40, 20}, 0.834);
  frame.answer.state.detail = "ok";
  const DemoCaption caption = demo_caption(frame, "in the open");
  EXPECT_EQ(caption.phase, "ready");
  EXPECT_EQ(caption.status, "track_ok");
  EXPECT_EQ(caption.score, "score 0.83");
  EXPECT_EQ(caption.time, " 12.40 s");
  EXPECT_EQ(caption.camera, "pan 1.0  tilt -14.0  fov 40.0 x 23.0");
  EXPECT_EQ(caption.event, "in the open");
}

TEST(DemoCaption, TellsAHeldBoxFromNone) {
  DemoFrame frame = with_box(demo_frame(0, "track_fail_hold"), {100, 50, 40, 20}, 0.0);
  frame.answer.state.detail = "hold_low_score";
  EXPECT_EQ(demo_caption(frame, "").score, "held");
  EXPECT_EQ(demo_caption(frame, "").status, "track_fail_hold (hold_low_score)");
  EXPECT_EQ(demo_caption(demo_frame(0, "overlay_rejected"), "").score, "no box");
}

TEST(DemoVideo, DrawsThePublishedBoxInTheColourOfItsWord) {
  cv::Mat picture = black_picture();
  draw_boxes(followed(0), &picture);
  EXPECT_TRUE(is_green(picture.at<cv::Vec3b>(50, 120)));
  EXPECT_TRUE(is_green(picture.at<cv::Vec3b>(70, 120)));
}

TEST(DemoVideo, DashesAHeldBox) {
  cv::Mat whole = black_picture(), dashed = black_picture();
  DemoFrame frame = followed(0);
  frame.truth = {};
  draw_boxes(frame, &whole);
  draw_boxes(with_box(frame, {100, 50, 40, 20}, 0.0), &dashed);
  EXPECT_GT(touched_pixels(dashed), 0);
  EXPECT_LT(touched_pixels(dashed), touched_pixels(whole) * 3 / 4);
}

TEST(DemoVideo, ShowsTheTruthAsCornersAndTheTrackersOwnBoxAsAFrame) {
  cv::Mat picture = black_picture();
  DemoFrame frame = demo_frame(0, "overlay_rejected");
  frame.answer.state.tracker_box = {200, 100, 50, 30};
  draw_boxes(frame, &picture);
  EXPECT_NE(picture.at<cv::Vec3b>(50, 103), cv::Vec3b());   // a corner of the truth
  EXPECT_EQ(picture.at<cv::Vec3b>(50, 120), cv::Vec3b());   // and nothing between its corners
  EXPECT_NE(picture.at<cv::Vec3b>(100, 225), cv::Vec3b());  // all along the tracker's own box
}

TEST(DemoVideo, KeepsBoxesThatLeaveThePictureFromHarm) {
  cv::Mat picture = black_picture();
  DemoFrame frame = with_box(demo_frame(0), {-50, -50, 2000, 2000}, 0.0);
  frame.truth.box_px = {-1e4, -1e4, 3e4, 3e4};
  frame.answer.state.tracker_box = {-300, 20, 9000, 40};
  draw_boxes(frame, &picture);
}

TEST(DemoVideo, KeepsTheColumnsOfTheStripApart) {
  for (const int width : {320, 640, 960, 1920}) {
    DemoFrame frame = with_box(demo_frame(12345), {100, 50, 40, 20}, 0.85);
    frame.view = {-179.9, -84.9, 40.0, 23.1};
    const DemoCaption caption = demo_caption(frame, "look-alike crosses, in the open");
    cv::Mat strip(strip_height_px(width), width, CV_8UC3);
    draw_strip(caption, frame, &strip);
    EXPECT_GT(touched_pixels(strip), 0);
    // Right edge of the camera's text against the edge of the strip.
    const cv::Mat last_columns = strip.colRange(width - 3, width);
    EXPECT_EQ(cv::countNonZero(last_columns.reshape(1) > 60), 0) << width;
  }
}

// The ground of a status badge is of its word's colour, up to the column of the score and no further.
TEST(DemoVideo, CutsAWordThatIsTooLongForItsColumn) {
  DemoFrame frame = demo_frame(5, "tracking_dead_timeout");
  frame.answer.state.detail =
      "elapsed_s=60.3324 timeout_s=60 last_status=overlay_rejected and more than that";
  cv::Mat strip(strip_height_px(960), 960, CV_8UC3);
  draw_strip(demo_caption(frame, ""), frame, &strip);
  const Colour ground = colour_of_word("tracking_dead_timeout");
  const cv::Scalar ink(ground.blue, ground.green, ground.red);
  cv::Mat touched;
  cv::inRange(strip, ink, ink, touched);
  const cv::Rect badge = cv::boundingRect(touched);
  EXPECT_LT(badge.br().x, 960 * 0.775);
  EXPECT_GT(badge.br().x, 960 * 0.70);
}

TEST(DemoVideo, HoldsEveryFrameWithTheStripBelow) {
  const ostrel_test::TemporaryFolder folder;
  {
    DemoVideo video(folder.path("a.mp4"), {321, 181});
    for (std::size_t i = 0; i < 5; ++i)
      video.write(cv::Mat(181, 321, CV_8UC3, cv::Scalar::all(90)), followed(i), "");
  }
  cv::VideoCapture capture(folder.path("a.mp4"));
  cv::Mat frame;
  int frames = 0;
  for (; capture.read(frame); ++frames) {
    EXPECT_EQ(frame.size(), cv::Size(322, 182 + strip_height_px(321)));
  }
  EXPECT_EQ(frames, 5);
  EXPECT_THROW(DemoVideo(folder.path("no/such/folder/a.mp4"), {64, 64}), BadInput);
}

TEST(WordColours, TellFollowingHoldingRefusingFailingAndStartingApart) {
  EXPECT_EQ(to_hex(colour_of_word("track_ok")), to_hex(colour_of_word("teleport_ok")));
  EXPECT_EQ(to_hex(colour_of_word("track_fail_hold")), to_hex(colour_of_word("overlay_bbox_hold")));
  EXPECT_EQ(to_hex(colour_of_word("track_fail")), to_hex(colour_of_word("tracking_dead_timeout")));
  EXPECT_EQ(to_hex(colour_of_word("init_async_fail")), to_hex(colour_of_word("overlay_dead")));
  const char* apart[] = {"track_ok",       "track_fail_hold",     "track_fail", "overlay_rejected",
                         "wait_alignment", "init_warmup_started", "idle"};
  for (std::size_t a = 0; a < std::size(apart); ++a) {
    for (std::size_t b = 0; b < a; ++b) {
      EXPECT_NE(to_hex(colour_of_word(apart[a])), to_hex(colour_of_word(apart[b]))) << apart[a] << apart[b];
    }
  }
  EXPECT_EQ(to_hex({1, 16, 255}), "#0110ff");
}

}  // namespace
