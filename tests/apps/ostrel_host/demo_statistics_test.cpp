#include <gtest/gtest.h>
#include <ostrel_host/demo_statistics.h>

#include "apps/ostrel_host/demo_frames.h"

namespace {

using namespace ostrel_host;
using ostrel_scene::WorldEvent;
using ostrel_test::demo_frame;
using ostrel_test::followed;
using ostrel_test::hidden;
using ostrel_test::with_box;

using Frames = std::vector<DemoFrame>;

constexpr BBox kBeside{300, 50, 40, 20};
constexpr BBox kOnTarget{100, 50, 40, 20};

// `count` frames made by `make` from their index, behind those that are there.
template <typename Make>
void add(std::size_t count, Make make, Frames* frames) {
  for (std::size_t i = 0; i < count; ++i) frames->push_back(make(frames->size()));
}

DemoFrame starting(std::size_t index) {
  DemoFrame frame = demo_frame(index, "wait_alignment");
  frame.answer.state.phase = "waiting_alignment";
  return frame;
}

DemoFrame covered(std::size_t index) {
  return hidden(demo_frame(index, "overlay_rejected"));
}

TEST(DemoReport, TellsWhenTrackingWasArmed) {
  Frames frames;
  add(10, starting, &frames);
  add(10, followed, &frames);
  EXPECT_DOUBLE_EQ(*judge(frames, {}).armed_s, 0.4);
}

TEST(DemoReport, SaysSoWhereTrackingWasNeverArmed) {
  Frames frames;
  add(10, starting, &frames);
  const DemoReport report = judge(frames, {});
  EXPECT_FALSE(report.armed_s);
  EXPECT_EQ(report.accuracy.frames, 0u);
  EXPECT_EQ(to_lines(report), (std::vector<std::string>{"tracking was not armed before the demo ended"}));
  EXPECT_TRUE(to_json_report(report)["armed_s"].is_null());
  EXPECT_FALSE(judge({}, {}).armed_s);
}

TEST(DemoReport, ScoresPublishedBoxesFromArmingOnWhereTheTargetIsVisible) {
  Frames frames;
  add(10, starting, &frames);
  add(6, followed, &frames);
  add(
      2, [](std::size_t i) { return demo_frame(i, "overlay_rejected"); }, &frames);
  add(8, covered, &frames);
  const DemoReport report = judge(frames, {});
  EXPECT_EQ(report.accuracy.frames, 8u);
  EXPECT_DOUBLE_EQ(report.accuracy.above_half, 0.75);
  EXPECT_DOUBLE_EQ(report.accuracy.precision_20px, 0.75);
  EXPECT_DOUBLE_EQ(report.mean_overlap, 0.75);
}

TEST(DemoReport, CountsHalfATargetAsHidden) {
  DemoFrame frame = followed(0);
  frame.truth.visible_share = 0.5;
  EXPECT_FALSE(is_visible(frame));
  frame.truth.visible_share = 0.51;
  EXPECT_TRUE(is_visible(frame));
}

TEST(DemoReport, TellsATargetOutOfTheViewFromAHiddenOne) {
  const auto elsewhere = [](std::size_t i) {
    DemoFrame frame = hidden(followed(i));
    frame.in_view_share = 0.5;
    return frame;
  };
  Frames frames;
  add(30, followed, &frames);
  add(10, elsewhere, &frames);
  add(10, covered, &frames);
  add(5, followed, &frames);
  const DemoReport report = judge(frames, {});
  EXPECT_EQ(report.out_of_view, 10u);
  EXPECT_EQ(report.hidden_frames, 10u);
  EXPECT_EQ(report.seen_while_hidden, 0u);
  EXPECT_EQ(report.accuracy.frames, 35u);
  EXPECT_NEAR(report.auc_with_out_of_view, report.accuracy.success_auc * 35.0 / 45.0, 1e-12);
  EXPECT_TRUE(report.returns.empty()) << "the camera had lost it: nothing had hidden it";
}

TEST(DemoReport, MeasuresTheShareOfABoxInsideThePicture) {
  EXPECT_EQ(share_in_view({10, 10, 20, 10}, {100, 50}), 1.0);
  EXPECT_EQ(share_in_view({-10, 10, 20, 10}, {100, 50}), 0.5);
  EXPECT_EQ(share_in_view({200, 10, 20, 10}, {100, 50}), 0.0);
  EXPECT_EQ(share_in_view({}, {100, 50}), 0.0);
}

TEST(DemoReport, TellsHeldBoxesFromSeenOnesInTheOpenAndInHiding) {
  Frames frames;
  add(5, followed, &frames);
  add(
      3, [](std::size_t i) { return with_box(demo_frame(i, "track_fail_hold"), kOnTarget, 0.0); }, &frames);
  add(
      2, [](std::size_t i) { return with_box(demo_frame(i), kBeside, 0.8); }, &frames);
  add(
      6, [](std::size_t i) { return hidden(with_box(demo_frame(i), kOnTarget, 0.0)); }, &frames);
  add(
      7, [](std::size_t i) { return hidden(with_box(demo_frame(i), kBeside, 0.4)); }, &frames);
  add(8, covered, &frames);
  const DemoReport report = judge(frames, {});
  EXPECT_EQ(report.frames, 31u);
  EXPECT_EQ(report.published, 23u);
  EXPECT_EQ(report.held, 9u);
  EXPECT_EQ(report.beside, 2u);
  EXPECT_EQ(report.hidden_frames, 21u);
  EXPECT_EQ(report.held_while_hidden, 6u);
  EXPECT_EQ(report.seen_while_hidden, 7u);
}

TEST(DemoReport, TimesTheReturnFromVisibleToABoxThatFitsAndHasAScore) {
  Frames frames;
  add(25, followed, &frames);
  add(25, covered, &frames);
  add(
      5, [](std::size_t i) { return demo_frame(i, "overlay_rejected"); }, &frames);
  add(
      5, [](std::size_t i) { return with_box(demo_frame(i), kOnTarget, 0.0); }, &frames);
  add(
      5, [](std::size_t i) { return with_box(demo_frame(i), kBeside, 0.9); }, &frames);
  add(10, followed, &frames);
  const DemoReport report = judge(frames, {{0.9, 2.5, "under the bridge"}});
  ASSERT_EQ(report.returns.size(), 1u);
  EXPECT_EQ(report.returns[0].where, "under the bridge");
  EXPECT_DOUBLE_EQ(report.returns[0].hidden_s, 1.0);
  EXPECT_DOUBLE_EQ(report.returns[0].visible_s, 2.0);
  ASSERT_TRUE(report.returns[0].found_after_s);
  EXPECT_NEAR(*report.returns[0].found_after_s, 0.6, 1e-9);
}

TEST(DemoReport, SaysWhichReturnWasNeverFound) {
  const auto missed = [](std::size_t i) { return with_box(demo_frame(i), kBeside, 0.9); };
  Frames frames;
  add(25, followed, &frames);
  add(25, covered, &frames);
  add(25, missed, &frames);
  add(25, covered, &frames);
  add(25, followed, &frames);
  const DemoReport report = judge(frames, {});
  ASSERT_EQ(report.returns.size(), 2u);
  EXPECT_FALSE(report.returns[0].found_after_s);
  EXPECT_EQ(report.returns[1].found_after_s, 0.0);
  const auto lines = to_lines(report);
  EXPECT_EQ(lines[6], "hidden from 1.0 s to 2.0 s: not found again");
  EXPECT_EQ(lines[7], "hidden from 3.0 s to 4.0 s: found again after 0.00 s");
}

TEST(DemoReport, CountsNoReturnWithoutAReturn) {
  Frames frames;
  add(25, followed, &frames);
  add(25, covered, &frames);
  EXPECT_TRUE(judge(frames, {}).returns.empty());
}

TEST(DemoReport, TakesLeavesThatFlickerForNeitherHidingNorReturn) {
  Frames frames;
  add(20, followed, &frames);
  add(4, covered, &frames);  // too short to hide
  add(20, followed, &frames);
  add(10, covered, &frames);
  add(4, followed, &frames);  // too short to bring back
  add(10, covered, &frames);
  add(20, followed, &frames);
  const auto stretches = unseen_stretches(frames);
  ASSERT_EQ(stretches.size(), 1u);
  EXPECT_EQ(stretches[0].first, 44u);
  EXPECT_EQ(stretches[0].last, 67u);
}

TEST(DemoReport, WatchesTheBoxWhileALookAlikePassesAndTwoSecondsLonger) {
  Frames frames;
  add(50, followed, &frames);
  add(
      3, [](std::size_t i) { return with_box(demo_frame(i), kBeside, 0.9); }, &frames);
  add(
      2, [](std::size_t i) { return with_box(demo_frame(i), kBeside, 0.0); }, &frames);
  add(60, followed, &frames);
  const DemoReport inside = judge(frames, {{0.0, 0.1, "look-alike crosses"}});
  ASSERT_EQ(inside.look_alikes.size(), 1u);
  EXPECT_EQ(inside.look_alikes[0].frames_beside, 3u);
  EXPECT_EQ(inside.look_alikes[0].smallest_overlap, 0.0);
  const DemoReport after = judge(frames, {{2.5, 2.6, "look-alike crosses"}, {1.0, 2.0, "parked"}});
  ASSERT_EQ(after.look_alikes.size(), 1u);
  EXPECT_EQ(after.look_alikes[0].frames_beside, 0u);
  EXPECT_EQ(after.look_alikes[0].smallest_overlap, 1.0);
  EXPECT_TRUE(judge(frames, {{99.0, 100.0, "look-alike crosses"}}).look_alikes.empty());
}

TEST(DemoReport, CountsTheZoomStepsThatTheTrackerWasTold) {
  Frames frames{followed(0), followed(1), followed(2)};
  frames[1].answer.told.zoom_factors = {1.05};
  frames[2].answer.told.zoom_factors = {1.05};
  EXPECT_EQ(judge(frames, {}).zoom_notices, 2u);
}

TEST(DemoReport, WritesEveryFigureAsJson) {
  Frames frames;
  add(25, followed, &frames);
  add(25, covered, &frames);
  add(25, followed, &frames);
  const auto report = to_json_report(judge(frames, {{0.0, 0.5, "look-alike crosses"}}));
  for (const char* key :
       {"frames", "armed_s", "scored_where_visible_share_above", "accuracy", "mean_overlap", "out_of_view",
        "auc_with_out_of_view", "published", "held", "beside_target", "hidden_frames", "held_while_hidden",
        "seen_while_hidden", "zoom_notices", "returns", "look_alikes"}) {
    EXPECT_TRUE(report.contains(key)) << key;
  }
  EXPECT_EQ(report["returns"][0]["found_after_s"], 0.0);
  EXPECT_EQ(report["look_alikes"][0]["frames_beside_target"], 0);
}

TEST(DemoReport, NamesTheEventsOfATime) {
  const std::vector<WorldEvent> events{{0.0, 5.0, "parked"}, {4.0, 6.0, "look-alike crosses"}};
  EXPECT_EQ(events_at(events, 0.0), "parked");
  EXPECT_EQ(events_at(events, 4.5), "parked, look-alike crosses");
  EXPECT_EQ(events_at(events, 5.0), "look-alike crosses");
  EXPECT_EQ(events_at(events, 6.0), "");
}

}  // namespace
