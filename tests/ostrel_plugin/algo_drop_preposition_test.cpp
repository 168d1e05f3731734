#include "ostrel_plugin/algo_fixture.h"
#include "ostrel_plugin/scripted_clock.h"

/// A document that switches the gimbal pre-positioning off, in every phase of a run.

namespace ostrel_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class AlgoDropPreposition : public AlgoTest {
 protected:
  AlgoDropPreposition() { configure("preposition/enabled", "true"); }

  static PicturePtr view(double pan, double tilt, double hfov = 40) {
    Metadata metadata = makeView(pan, tilt, hfov, 30);
    metadata["lumenar.follow_me_enabled_command"] = std::int32_t{1};
    return makePicture(100, 80, metadata);
  }
  static constexpr ::BBox kRoi{65, 10, 20, 20};  // its target lies at pan 20, tilt 12.5
  void switchOff() { configure("preposition/enabled", "false"); }
  void expectNoTarget() {
    EXPECT_FALSE(Access::haveTarget(*algo));
    EXPECT_EQ(Access::target(*algo), std::make_pair(0.0, 0.0));
  }
  void waitForAlignment(const PicturePtr& start = view(10, 5)) {
    warmUp(start, kRoi);
    update(view(10, 5));
    ASSERT_EQ(phase(), "waiting_alignment");
    ASSERT_EQ(property().at("initialized"), true);
  }

  ScriptedClock clock;
};

TEST_F(AlgoDropPreposition, ArmsATrackerThatWaitsForTheView) {
  waitForAlignment();
  clock.advance(60 * kSecond_ns);
  switchOff();
  EXPECT_EQ(phase(), "ready");
  EXPECT_TRUE(Access::armed(*algo));
  EXPECT_EQ(status(), "preposition_disabled_tracking_armed");
  EXPECT_EQ(detail(), "");
  expectNoTarget();
  EXPECT_EQ(Access::zoomReference(*algo), std::make_pair(40.0, 30.0));
  EXPECT_EQ(Access::lastTrackOkNs(*algo), clock.now());
  EXPECT_EQ(update(view(10, 5)).size(), 1U);
  EXPECT_EQ(asked().calls.back(), "track_view");
  EXPECT_EQ(status(), "track_ok");
}

TEST_F(AlgoDropPreposition, ReadsTheClockAgainWhereItGaveZero) {
  waitForAlignment();
  clock.readNext({0, 5});
  switchOff();
  EXPECT_EQ(Access::lastTrackOkNs(*algo), 5U);
}

TEST_F(AlgoDropPreposition, ComparesTheFirstFrameWithTheViewOfTheStart) {
  waitForAlignment();
  switchOff();
  update(view(10, 5, 20));
  EXPECT_FLOAT_EQ(asked().scale_factor, 1.4142135F);
}

TEST_F(AlgoDropPreposition, HasNoZoomReferenceWhereTheStartHadNoUsableView) {
  waitForAlignment(view(10, 5, -40));
  switchOff();
  EXPECT_EQ(status(), "preposition_disabled_tracking_armed");
  EXPECT_FALSE(Access::haveZoomReference(*algo));
}

TEST_F(AlgoDropPreposition, LogsTheWordThenTheHandOver) {
  waitForAlignment();
  const RecordedLog log;
  algo->setConfig(R"({"preposition":{"enabled":false},"debug":{"enabled":true}})");
  EXPECT_THAT(log.console(), ElementsAre("runtime_status=preposition_disabled_tracking_armed",
                                         "setConfig hot_apply=1 detail=config_updated"));
  EXPECT_THAT(log.infos(), ElementsAre("[TRACK_FLOW][OT] runtime_status steady_ns=1000000000000 "
                                       "status=preposition_disabled_tracking_armed detail=-"));
}

TEST_F(AlgoDropPreposition, SendsADeferredStartBackToItsFirstUpdate) {
  init(view(10, 5), kRoi);
  ASSERT_EQ(phase(), "waiting_alignment");
  switchOff();
  EXPECT_EQ(phase(), "waiting_first_update");
  EXPECT_EQ(status(), "preposition_disabled_waiting_update");
  EXPECT_EQ(detail(), "");
  expectNoTarget();
  EXPECT_EQ(Access::lastTrackOkNs(*algo), 0U);
  EXPECT_FALSE(Access::haveZoomReference(*algo));
  auto starts = holdStarts();
  update(view(10, 5));
  EXPECT_EQ(phase(), "warming_up");
  starts.release();
  Access::waitForWorkers(*algo);
  EXPECT_EQ(update(view(10, 5)).size(), 1U);
  EXPECT_EQ(phase(), "ready");
}

TEST_F(AlgoDropPreposition, ArmsNothingThatIsNotWhole) {
  for (const bool without_tracker : {true, false}) {
    configure("preposition/enabled", "true");
    waitForAlignment();
    if (without_tracker) Access::tracker(*algo).reset();
    Access::initialized(*algo) = without_tracker;
    switchOff();
    EXPECT_FALSE(Access::armed(*algo));
    EXPECT_EQ(phase(), "waiting_first_update");
    EXPECT_EQ(status(), "preposition_disabled_waiting_update");
    EXPECT_EQ(Access::lastTrackOkNs(*algo), 0U);
  }
}

/// Looks whether tracking is armed when it goes.
struct ArmingWitness : ITrackingOverlay {
  ArmingWitness(OstrelAlgo* algo, bool* armed) : algo_(algo), armed_(armed) {}
  ~ArmingWitness() override { *armed_ = Access::armed(*algo_); }
  void process(TrackingContext&) override {}
  void reset() override {}
  OstrelAlgo* algo_;
  bool* armed_;
};

TEST_F(AlgoDropPreposition, ArmsBeforeItReplacesTheOverlays) {
  waitForAlignment();
  bool armed = false;
  Access::overlays(*algo).push_back(std::make_unique<ArmingWitness>(algo.get(), &armed));
  switchOff();
  EXPECT_TRUE(armed);
}

TEST_F(AlgoDropPreposition, LetsAWarmUpEndInTracking) {
  warmUp(view(10, 5), kRoi);
  switchOff();
  EXPECT_EQ(phase(), "warming_up");
  EXPECT_EQ(status(), "init_warmup_started");
  expectNoTarget();
  EXPECT_EQ(update(view(10, 5)).size(), 1U);
  EXPECT_EQ(phase(), "ready");
  EXPECT_EQ(Access::zoomReference(*algo), std::make_pair(40.0, 30.0));
}

TEST_F(AlgoDropPreposition, LeavesAWaitForTheFirstUpdateAsItIs) {
  init(view(10, 5), kRoi);
  update(nullptr);  // a run with a target falls back here without a frame
  ASSERT_EQ(phase(), "waiting_first_update");
  const std::string before = status();
  switchOff();
  EXPECT_EQ(phase(), "waiting_first_update");
  EXPECT_EQ(status(), before);
  expectNoTarget();
}

TEST_F(AlgoDropPreposition, LeavesATrackerAloneThatHasArrived) {
  warmUp(view(10, 5), kRoi);
  update(view(20, 12.5));
  ASSERT_EQ(phase(), "ready");
  ASSERT_TRUE(Access::haveTarget(*algo));  // kept until it is dropped
  clock.advance(kSecond_ns);
  const auto reference = Access::zoomReference(*algo);
  switchOff();
  expectNoTarget();
  EXPECT_EQ(phase(), "ready");
  EXPECT_EQ(status(), "track_ok");
  EXPECT_EQ(Access::lastTrackOkNs(*algo), clock.now() - kSecond_ns);
  EXPECT_EQ(Access::zoomReference(*algo), reference);
  EXPECT_EQ(update(view(20, 12.5)).size(), 1U);
}

TEST_F(AlgoDropPreposition, LeavesAFailedStartFailed) {
  script([](FakeBackendScript& backend) { backend.initialize.ok = false; });
  warmUp(view(10, 5), kRoi);
  update(view(10, 5));
  ASSERT_EQ(phase(), "failed");
  switchOff();
  EXPECT_EQ(phase(), "failed");
  EXPECT_EQ(status(), "update_skip_not_initialized");
  expectNoTarget();
}

TEST_F(AlgoDropPreposition, SaysNothingWhereThereIsNoTarget) {
  for (const bool started : {false, true}) {
    configure("preposition/enabled", "true");
    if (started) init(makePicture(), kRoi);  // no view, and so no target
    const std::string before = status();
    switchOff();
    EXPECT_EQ(status(), before);
    EXPECT_EQ(phase(), started ? "waiting_first_update" : "idle");
  }
}

TEST_F(AlgoDropPreposition, KeepsTheTargetThroughOtherChanges) {
  waitForAlignment();
  configure("target/class_id", "3");
  EXPECT_EQ(asked().calls.back(), "updateConfig");  // a tracker that waits takes settings too
  EXPECT_TRUE(Access::haveTarget(*algo));
  EXPECT_EQ(phase(), "waiting_alignment");
  EXPECT_EQ(status(), "wait_alignment");
}

TEST_F(AlgoDropPreposition, TurnedOnAgainReachesTheNextStartAlone) {
  waitForAlignment();
  switchOff();
  configure("preposition/enabled", "true");
  expectNoTarget();
  EXPECT_EQ(phase(), "ready");
  EXPECT_EQ(update(view(10, 5)).size(), 1U);
  EXPECT_TRUE(init(view(10, 5), kRoi));
  EXPECT_EQ(outputs_of_init.size(), 1U);
  EXPECT_EQ(phase(), "waiting_alignment");
}

TEST_F(AlgoDropPreposition, TurnedOnDuringAStartChangesNothingOfIt) {
  switchOff();
  EXPECT_TRUE(init(view(10, 5), kRoi));
  EXPECT_THAT(outputs_of_init, IsEmpty());
  configure("preposition/enabled", "true");
  EXPECT_EQ(phase(), "waiting_first_update");
  auto starts = holdStarts();
  update(view(10, 5));
  starts.release();
  Access::waitForWorkers(*algo);
  EXPECT_EQ(update(view(10, 5)).size(), 1U);
  EXPECT_EQ(phase(), "ready");
}

}  // namespace
}  // namespace ostrel_test
