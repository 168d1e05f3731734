#include <gtest/gtest.h>
#include <ostrel_host/demo_story.h>
#include <ostrel_host/zoom_plan.h>

#include "apps/ostrel_host/demo_frames.h"

namespace {

using namespace ostrel_host;
using ostrel_test::demo_frame;
using Lines = std::vector<std::string>;

StartResult deferred() {
  StartResult answer;
  answer.gimbal_target = GimbalTarget{12.5, -14.25};
  answer.state.status = "init_deferred_waiting_alignment";
  answer.state.phase = "waiting_alignment";
  return answer;
}

DemoFrame waiting(std::size_t index, const std::string& detail) {
  DemoFrame frame = demo_frame(index, "wait_alignment");
  frame.answer.state.phase = "waiting_alignment";
  frame.answer.state.detail = detail;
  return frame;
}

TEST(DemoStory, BeginsWithTheAnswerToInit) {
  DemoStory story({{0.0, 5.0, "parked"}});
  EXPECT_EQ(story.started(deferred()),
            (Lines{"   0.00 s  event   parked", "   0.00 s  status  init_deferred_waiting_alignment",
                   "   0.00 s  phase   waiting_alignment",
                   "   0.00 s  camera  asked to look at pan 12.50, tilt -14.25 degrees"}));
}

TEST(DemoStory, TellsTheWordsOfACallInTheirOrderAndThePhaseBehindThem) {
  DemoStory story({});
  story.started(deferred());
  DemoFrame frame = demo_frame(30);
  frame.answer.told.words = {{"init_ok", "x"}, {"teleport_ok", ""}};
  frame.answer.state.detail = "ok";
  EXPECT_EQ(story.frame(frame), (Lines{"   1.20 s  status  init_ok (x)", "   1.20 s  status  teleport_ok",
                                       "   1.20 s  status  track_ok (ok)", "   1.20 s  phase   ready"}));
  EXPECT_EQ(story.frame(demo_frame(31)), Lines{});
}

TEST(DemoStory, DoesNotRepeatAWordForItsDetail) {
  DemoStory story({});
  story.started(deferred());
  EXPECT_EQ(story.frame(waiting(1, "dx_norm=0.3")).size(), 1u);
  EXPECT_EQ(story.frame(waiting(2, "dx_norm=0.2")), Lines{});
}

TEST(DemoStory, TellsAnEventOnceWhenItBegins) {
  DemoStory story({{0.05, 5.0, "drives off"}});
  story.started(deferred());
  const DemoFrame first = waiting(1, ""), second = waiting(2, ""), third = waiting(3, "");
  EXPECT_EQ(story.frame(first), (Lines{"   0.04 s  status  wait_alignment"}));
  EXPECT_EQ(story.frame(second), (Lines{"   0.08 s  event   drives off"}));
  EXPECT_EQ(story.frame(third), Lines{});
}

TEST(DemoStory, TellsAZoomStepAtItsBeginningAndEnd) {
  DemoStory story({});
  story.frame(demo_frame(0));
  DemoFrame zooming = demo_frame(1);
  zooming.answer.told.zoom_factors = {1.057};
  EXPECT_EQ(story.frame(zooming),
            (Lines{"   0.04 s  camera  the lens zooms, and the tracker is told frame by frame"}));
  zooming.time_s = 0.08;
  EXPECT_EQ(story.frame(zooming), Lines{});
  EXPECT_EQ(story.frame(demo_frame(3)), (Lines{"   0.12 s  camera  the zoom stands: 40.0 x 23.0 degrees"}));
}

TEST(ZoomPlan, LiesInsideTheFirstOpenStretchThatIsLongEnough) {
  const auto step = plan_zoom({{0.0, 5.0, "parked"}, {6.0, 8.9, "in the open"}, {10.0, 18.0, "in the open"}});
  ASSERT_TRUE(step);
  EXPECT_EQ(step->in_s, 10.5);
  EXPECT_EQ(step->out_s, 17.5);
}

TEST(ZoomPlan, IsEmptyWithoutSuchAStretch) {
  EXPECT_FALSE(plan_zoom({}));
  EXPECT_FALSE(plan_zoom({{0.0, 50.0, "parked"}, {0.0, 2.9, "in the open"}}));
}

}  // namespace
