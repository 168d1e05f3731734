#include <algorithm>

#include "ostrel_plugin/algo_fixture.h"

namespace ostrel_test {
namespace {

using testing::Contains;
using testing::IsEmpty;
using testing::Not;

constexpr const char* kFollowMe = "lumenar.follow_me_enabled_command";

class AlgoAlignment : public AlgoTest {
 protected:
  AlgoAlignment() { configure("preposition/enabled", "true"); }

  static Metadata followMe(Metadata metadata) {
    metadata[kFollowMe] = std::int32_t{1};
    return metadata;
  }
  static PicturePtr view(double pan, double tilt, double hfov = 40, double vfov = 30) {
    return makePicture(100, 80, followMe(makeView(pan, tilt, hfov, vfov)));
  }
  /// A start whose target lies at pan 20, tilt 12.5; its tracker is ready at the next update.
  void warmUpWithTarget() { warmUp(view(10, 5), {65, 10, 20, 20}); }
};

TEST_F(AlgoAlignment, WaitsForTheViewAndThenMovesTheTracker) {
  warmUpWithTarget();
  EXPECT_EQ(Access::target(*algo), std::make_pair(20.0, 12.5));
  EXPECT_THAT(update(view(10, 5)), IsEmpty());
  EXPECT_EQ(phase(), "waiting_alignment");
  EXPECT_EQ(status(), "wait_alignment");
  EXPECT_EQ(detail(), "dx_norm=0.25 dy_norm=-0.25");
  EXPECT_EQ(property().at("initialized"), true);
  EXPECT_FALSE(Access::armed(*algo));

  script([](FakeBackendScript& backend) { backend.teleport.text = "moved"; });
  algo->enableDebug(true);
  const RecordedLog log;
  const auto boxes = update(view(20, 12.5));
  ASSERT_EQ(boxes.size(), 1U);  // the same frame is tracked
  EXPECT_EQ(phase(), "ready");
  EXPECT_TRUE(Access::armed(*algo));
  EXPECT_THAT(log.console(), Contains("runtime_status=teleport_ok detail=moved"));
  EXPECT_THAT(log.infos(),
              Contains(ReadsLike("[TRACK_FLOW][OT] tracking_armed steady_ns=<n> pic_ptr=<p> pic_ts=77 "
                                 "bbox_full=[40,30,20,20] dx_norm=0.00000 dy_norm=0.00000 "
                                 "hfov=40.000 vfov=30.000")));
  const FakeBackendScript seen = asked();
  EXPECT_FLOAT_EQ(seen.expected.x, 40.0F);
  EXPECT_FLOAT_EQ(seen.expected.y, 30.0F);
  EXPECT_FLOAT_EQ(seen.expected.width, 20.0F);
  EXPECT_FLOAT_EQ(seen.expected.height, 20.0F);
  EXPECT_THAT(seen.calls, testing::ElementsAre("initialize", "teleport", "track_view"));
  EXPECT_EQ(Access::zoomReference(*algo), std::make_pair(40.0, 30.0));
}

TEST_F(AlgoAlignment, ScalesTheExpectedBoxToTheProcessingFrame) {
  configure("processing/frame_scale", "0.5");
  warmUpWithTarget();
  update(view(20, 12.5));
  EXPECT_FLOAT_EQ(asked().expected.x, 20.0F);
  EXPECT_FLOAT_EQ(asked().expected.width, 10.0F);
}

TEST_F(AlgoAlignment, TakesTheExpectedBoxAsTheLastOneAndRefreshesLiveness) {
  warmUpWithTarget();
  script([](FakeBackendScript& backend) { backend.track.ok = false; });
  const auto boxes = update(view(20, 12.5));
  ASSERT_EQ(boxes.size(), 1U);
  EXPECT_TRUE(boxes[0].box == (::BBox{40, 30, 20, 20}));
  EXPECT_NE(Access::lastTrackOkNs(*algo), 0U);
}

TEST_F(AlgoAlignment, FollowsAtOnceForARegionInTheCentre) {
  warmUp(view(10, 5), {40, 30, 20, 20});
  EXPECT_EQ(Access::target(*algo), std::make_pair(10.0, 5.0));
  EXPECT_EQ(update(view(10, 5)).size(), 1U);
  EXPECT_EQ(phase(), "ready");
}

TEST_F(AlgoAlignment, AllowsFivePercentOfTheFieldOfViewOnEitherAxis) {
  warmUp(view(0, 0, 40, 40), {40, 30, 20, 20});
  update(view(2.1, 0, 40, 40));
  EXPECT_EQ(status(), "wait_alignment");
  update(view(0, -2.1, 40, 40));
  EXPECT_EQ(status(), "wait_alignment");
  EXPECT_EQ(update(view(2.0, -2.0, 40, 40)).size(), 1U);  // exactly five percent
  EXPECT_EQ(asked().expected.x, 35.0F);  // the view went past the target, which now lies left of the centre
  EXPECT_EQ(asked().expected.y, 26.0F);  // and above it
}

TEST_F(AlgoAlignment, GoesTheShorterWayRoundInPanAndNotInTilt) {
  warmUp(view(179, 0, 40, 30), {40, 30, 20, 20});
  EXPECT_THAT(update(view(-179, 0, 40, 30)), Not(IsEmpty()));  // two degrees, not 358
  warmUp(view(0, 179, 40, 40), {40, 30, 20, 20});
  EXPECT_THAT(update(view(0, -179, 40, 40)), IsEmpty());
  EXPECT_EQ(detail(), "dx_norm=0 dy_norm=-8.95");
}

TEST_F(AlgoAlignment, WaitsForEverWhenTheStartHadATargetButNoUsableView) {
  warmUp(view(10, 5, 40, 0), {40, 30, 20, 20});
  EXPECT_TRUE(Access::haveTarget(*algo));
  EXPECT_FALSE(Access::haveInitView(*algo));
  update(view(10, 5));
  EXPECT_EQ(status(), "wait_alignment_metadata");
  EXPECT_EQ(phase(), "waiting_alignment");
}

TEST_F(AlgoAlignment, DoublesTheExpectedBoxWhenTheViewNarrowsToAHalf) {
  warmUp(view(0, 0, 40, 30), {40, 30, 20, 20});
  update(view(0, 0, 20, 15));
  EXPECT_FLOAT_EQ(asked().expected.width, 40.0F);
  EXPECT_FLOAT_EQ(asked().expected.x, 30.0F);
  EXPECT_EQ(Access::zoomReference(*algo), std::make_pair(20.0, 15.0));
  EXPECT_THAT(asked().calls, testing::ElementsAre("initialize", "teleport", "track_view"));  // no zoom step
}

TEST_F(AlgoAlignment, RaisesTheExpectedBoxToOnePixelBeforeItIsLimited) {
  algo->enableDebug(true);
  warmUp(view(0, 0, 40, 30), {40, 30, 20, 20});
  const RecordedLog log;
  update(view(0, 0, 1000, 750));
  EXPECT_FLOAT_EQ(asked().expected.width, 8.0F);
  EXPECT_THAT(log.console(), Contains("preposition_expected_bbox_clamped raw=(1.00,1.00) "
                                      "clamped=(8.00,8.00) ref=(20,20) scale_limits=[0.400,2.500]"));
}

TEST_F(AlgoAlignment, RoundsTheExpectedBoxHalfAwayFromZero) {
  warmUp(view(0, 0, 40, 30), {42, 33, 15, 13});
  update(view(Access::target(*algo).first, Access::target(*algo).second, 16, 12));
  EXPECT_FLOAT_EQ(asked().expected.width, 38.0F);   // 37.5
  EXPECT_FLOAT_EQ(asked().expected.height, 33.0F);  // 32.5
  EXPECT_FLOAT_EQ(asked().expected.x, 31.0F);       // 50 - 18.75
  EXPECT_FLOAT_EQ(asked().expected.y, 24.0F);       // 40 - 16.25
}

TEST_F(AlgoAlignment, FitsTheExpectedBoxIntoTheFrame) {
  warmUp(view(0, 0, 40, 40), {0, 0, 80, 40});
  const auto target = Access::target(*algo);
  algo->enableDebug(true);
  const RecordedLog log;
  update(view(target.first - 0.8, target.second, 20, 20));
  EXPECT_THAT(log.infos(),
              Contains(ReadsLike("[TRACK_FLOW][OT] tracking_armed <*> bbox_full=[0,0,100,80] <*>")));
  EXPECT_FLOAT_EQ(asked().expected.x, 0.0F);
  EXPECT_FLOAT_EQ(asked().expected.width, 100.0F);  // 160 pixels do not fit
  EXPECT_FLOAT_EQ(asked().expected.height, 80.0F);
}

TEST_F(AlgoAlignment, WritesTheDistanceInSixDigits) {
  warmUp(view(0, 0, 30, 30), {40, 30, 20, 20});
  update(view(-10, 0, 30, 30));
  EXPECT_EQ(detail(), "dx_norm=0.333333 dy_norm=0");
  update(view(0, 50'000'000, 30, 30));
  EXPECT_EQ(detail(), "dx_norm=0 dy_norm=1.66667e+06");
  update(view(-170.00001, 0, 30, 30));
  EXPECT_EQ(detail(), "dx_norm=5.66667 dy_norm=0");
}

TEST_F(AlgoAlignment, LogsTheMoveBeforeTheWordAndTheDistancesWithTheirSigns) {
  warmUp(view(0, 0, 40, 40), {40, 30, 20, 20});
  algo->enableDebug(true);
  const RecordedLog log;
  update(view(1, 0.5, 40, 40));
  EXPECT_THAT(
      log.infos(),
      testing::ElementsAre(
          ReadsLike("[TRACK_FLOW][OT] init_worker_result <*> tracking_armed=0"),
          ReadsLike("[TRACK_FLOW][OT] runtime_status <*> status=init_ok <*>"),
          ReadsLike("[TRACK_FLOW][OT] tracking_armed steady_ns=<n> pic_ptr=<p> pic_ts=77 "
                    "bbox_full=[38,31,20,20] dx_norm=-0.02500 dy_norm=0.01250 hfov=40.000 vfov=40.000"),
          ReadsLike("[TRACK_FLOW][OT] runtime_status <*> status=teleport_ok detail=-")));
}

TEST_F(AlgoAlignment, SaysNothingWithoutDebugging) {
  const RecordedLog log;
  warmUp(view(0, 0, 40, 30), {40, 30, 20, 20});
  script([](FakeBackendScript& backend) { backend.teleport.ok = false; });
  update(view(0, 0, 10, 15));
  EXPECT_EQ(status(), "teleport_failed");
  script([](FakeBackendScript& backend) { backend.teleport.ok = true; });
  update(view(0, 0, 10, 15));
  EXPECT_EQ(phase(), "ready");
  EXPECT_THAT(log.infos(), IsEmpty());
  EXPECT_EQ(log.consoleText(), "");
}

TEST_F(AlgoAlignment, LimitsTheExpectedBoxByTheScaleSettings) {
  algo->enableDebug(true);
  warmUp(view(0, 0, 40, 30), {40, 30, 20, 20});
  const RecordedLog log;
  update(view(0, 0, 10, 15));
  EXPECT_FLOAT_EQ(asked().expected.width, 50.0F);  // 2.5 times the start, not 4 times
  EXPECT_THAT(log.console(), Contains("preposition_expected_bbox_clamped raw=(80.00,40.00) "
                                      "clamped=(50.00,40.00) ref=(20,20) scale_limits=[0.400,2.500]"));
}

TEST_F(AlgoAlignment, LimitsEachSideByItsOwnStart) {
  algo->enableDebug(true);
  warmUp(view(0, 0, 40, 30), {40, 35, 20, 10});
  const RecordedLog log;
  update(view(0, 0, 40, 5));
  EXPECT_FLOAT_EQ(asked().expected.width, 20.0F);
  EXPECT_FLOAT_EQ(asked().expected.height, 25.0F);
  EXPECT_THAT(log.console(), Contains("preposition_expected_bbox_clamped raw=(20.00,60.00) "
                                      "clamped=(20.00,25.00) ref=(20,10) scale_limits=[0.400,2.500]"));
}

TEST_F(AlgoAlignment, TellsALimitFromRounding) {
  algo->enableDebug(true);
  for (const double change_px : {4e-6, 5e-7}) {
    warmUp(view(0, 0, 40, 30), {40, 30, 20, 20});
    const RecordedLog log;
    update(view(0, 0, 40 / (2.5 + change_px / 20), 30));
    EXPECT_EQ(asked().expected.width, 50.0F);
    const auto is_told = [](const std::string& line) {
      return line.rfind("preposition_expected_bbox_clamped raw=(50.00,20.00) clamped=(50.00,20.00) ", 0) == 0;
    };
    const auto lines = log.console();
    EXPECT_EQ(std::any_of(lines.begin(), lines.end(), is_told), change_px > 1e-6) << change_px;
  }
}

TEST_F(AlgoAlignment, SaysNothingWhenNoLimitActs) {
  algo->enableDebug(true);
  warmUp(view(0, 0, 40, 30), {40, 30, 20, 20});
  const RecordedLog log;
  update(view(0, 0, 20, 15));
  EXPECT_THAT(log.console(), Not(Contains(ReadsLike("preposition_expected_bbox_clamped<*>"))));
}

TEST_F(AlgoAlignment, WaitsOutFramesThatCannotBeJudged) {
  warmUpWithTarget();
  update(nullptr);
  EXPECT_EQ(status(), "wait_alignment_no_frame");
  update(makePicture(98, 80, makeView(20, 12.5, 40, 30)));
  EXPECT_EQ(status(), "wait_alignment_source_size_changed");
  update(makePicture(100, 90, makeView(20, 12.5, 40, 30)));
  EXPECT_EQ(status(), "wait_alignment_source_size_changed");
  update(makePicture(100, 80));
  EXPECT_EQ(status(), "wait_alignment_metadata");
  Metadata whole_degrees = makeView(20, 12.5, 40, 30);
  whole_degrees["pan_deg"] = std::int32_t{20};
  update(makePicture(100, 80, whole_degrees));
  EXPECT_EQ(status(), "wait_alignment_metadata");
  EXPECT_EQ(phase(), "waiting_alignment");
  EXPECT_EQ(update(view(20, 12.5)).size(), 1U);
}

TEST_F(AlgoAlignment, TriesAgainAfterARefusedMove) {
  warmUpWithTarget();
  script([](FakeBackendScript& backend) { backend.teleport = {false, "no state", {}, 0.0F}; });
  algo->enableDebug(true);
  const RecordedLog log;
  EXPECT_THAT(update(view(20, 12.5)), IsEmpty());
  EXPECT_EQ(status(), "teleport_failed");
  EXPECT_EQ(detail(), "no state");
  EXPECT_EQ(phase(), "waiting_alignment");
  EXPECT_EQ(property().at("bbox"), nlohmann::json({65, 10, 20, 20}));
  EXPECT_FALSE(Access::armed(*algo));
  EXPECT_FALSE(Access::haveZoomReference(*algo));
  EXPECT_THAT(log.infos(),
              Contains(ReadsLike("[TRACK_FLOW][OT] teleport_failed steady_ns=<n> pic_ptr=<p> pic_ts=77 "
                                 "bbox_full=[40,30,20,20] bbox_proc=[40,30,20,20] status=no state")));
  script([](FakeBackendScript& backend) { backend.teleport.ok = true; });
  EXPECT_EQ(update(view(20, 12.5)).size(), 1U);
}

TEST_F(AlgoAlignment, NeverRunsIntoTheDeadTimeoutWhileItWaits) {
  configure("runtime/dead_timeout_s", "0.001");
  warmUpWithTarget();
  update(view(10, 5));
  Access::lastTrackOkNs(*algo) = 1;
  update(view(10, 5));
  EXPECT_TRUE(algo->isAlive());
  EXPECT_EQ(status(), "wait_alignment");
}

TEST_F(AlgoAlignment, TracksWithoutATargetWhenItIsSwitchedOff) {
  warmUpWithTarget();
  configure("preposition/enabled", "false");
  EXPECT_EQ(update(view(10, 5)).size(), 1U);
  EXPECT_EQ(phase(), "ready");
  EXPECT_FALSE(Access::haveTarget(*algo));
  EXPECT_EQ(Access::target(*algo), std::make_pair(0.0, 0.0));
  EXPECT_EQ(Access::zoomReference(*algo), std::make_pair(40.0, 30.0));
}

TEST_F(AlgoAlignment, ArmsAtTheNextFrameWhenItFindsTheSwitchOff) {
  warmUpWithTarget();
  update(view(10, 5));
  ASSERT_EQ(phase(), "waiting_alignment");
  Access::config(*algo).preposition_enabled = false;  // behind the back of what drops the target with it
  update(nullptr);
  EXPECT_EQ(status(), "update_skip_no_frame");
  EXPECT_EQ(phase(), "ready");
  EXPECT_FALSE(Access::haveTarget(*algo));
  EXPECT_EQ(Access::zoomReference(*algo), std::make_pair(40.0, 30.0));
}

TEST_F(AlgoAlignment, ArmsAtTheNextFrameWhenItFindsNoTarget) {
  startTracking(view(10, 5), {8, 8, 20, 16});
  update(view(20, 12.5));
  configure("preposition/enabled", "false");  // drops the target of the run
  configure("preposition/enabled", "true");
  Access::armed(*algo) = false;
  EXPECT_EQ(update(view(10, 5)).size(), 1U);
  EXPECT_EQ(status(), "track_ok");
  EXPECT_TRUE(Access::armed(*algo));
}

TEST_F(AlgoAlignment, ComparesNoSizeThatItDoesNotKnow) {
  warmUpWithTarget();
  update(view(10, 5));
  Access::sourceWidth(*algo) = 0;
  Access::sourceHeight(*algo) = 0;
  update(view(10, 5));
  EXPECT_EQ(status(), "wait_alignment");
  Access::sourceHeight(*algo) = 79;
  update(view(10, 5));
  EXPECT_EQ(status(), "wait_alignment_source_size_changed");
}

TEST_F(AlgoAlignment, IsAskedOfAnArmedOrAMissingTrackerInSilence) {
  EXPECT_FALSE(Access::arm(*algo, view(20, 12.5)));
  EXPECT_EQ(status(), "idle");
  warmUpWithTarget();
  EXPECT_FALSE(Access::arm(*algo, view(20, 12.5)));  // not installed yet
  update(view(10, 5));
  Access::initialized(*algo) = false;
  EXPECT_FALSE(Access::arm(*algo, view(20, 12.5)));
  EXPECT_EQ(status(), "wait_alignment");
  Access::initialized(*algo) = true;
  Access::armed(*algo) = true;
  EXPECT_TRUE(Access::arm(*algo, nullptr));
  EXPECT_EQ(status(), "wait_alignment");
  EXPECT_EQ(phase(), "waiting_alignment");
}

TEST_F(AlgoAlignment, SkipsByItsPhaseWhenTheTrackerIsGone) {
  warmUpWithTarget();
  update(view(10, 5));
  Access::tracker(*algo).reset();
  EXPECT_THAT(update(view(20, 12.5)), IsEmpty());
  EXPECT_EQ(status(), "update_skip_waiting_alignment");
}

}  // namespace
}  // namespace ostrel_test
