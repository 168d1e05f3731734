#include <limits>

#include "ostrel_plugin/algo_fixture.h"
#include "ostrel_plugin/src/steady_clock.h"

namespace ostrel_test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

class AlgoZoom : public AlgoTest {
 protected:
  PicturePtr view(double hfov, double vfov) { return makePicture(64, 48, makeView(0, 0, hfov, vfov)); }
  long notices() {
    const auto calls = asked().calls;
    return std::count(calls.begin(), calls.end(), "zoomChanged");
  }
};

TEST_F(AlgoZoom, NotifiesAJumpOnceBeforeTheTrackerSeesTheFrame) {
  startTracking(view(40, 30));
  update(view(20, 15));
  EXPECT_THAT(asked().calls, ElementsAre("initialize", "track_view", "zoomChanged", "track_view"));
  EXPECT_FLOAT_EQ(asked().scale_factor, 2.0F);
  update(view(20, 15));
  EXPECT_EQ(notices(), 1);
}

TEST_F(AlgoZoom, NeverNotifiesASlowZoom) {
  startTracking(view(40, 30));
  for (double fov = 40; fov > 20; fov *= 0.99) update(view(fov, fov * 0.75));
  EXPECT_EQ(notices(), 0);
}

TEST_F(AlgoZoom, NotifiesAStepOfMoreThanTwoPercent) {
  startTracking(view(40, 30));
  update(view(40 / 1.019, 30 / 1.019));
  EXPECT_EQ(notices(), 0);
  update(view(40 / (1.019 * 1.021), 30 / (1.019 * 1.021)));
  EXPECT_EQ(notices(), 1);
  update(view(40 / 1.019, 30 / 1.019));  // 2.06 percent back
  EXPECT_EQ(notices(), 2);
}

TEST_F(AlgoZoom, ComparesAcrossAFrameWithoutAView) {
  startTracking(view(40, 30));
  update(makePicture());
  EXPECT_EQ(Access::zoomReference(*algo), std::make_pair(40.0, 30.0));
  update(view(20, 15));
  EXPECT_EQ(notices(), 1);
}

TEST_F(AlgoZoom, TakesItsReferenceFromTheFirstViewWhenTheStartHadNone) {
  startTracking(makePicture());
  EXPECT_FALSE(Access::haveZoomReference(*algo));
  update(view(40, 30));
  EXPECT_EQ(notices(), 0);
  EXPECT_EQ(Access::zoomReference(*algo), std::make_pair(40.0, 30.0));
  update(view(50, 37.5));
  EXPECT_EQ(notices(), 1);
  EXPECT_FLOAT_EQ(asked().scale_factor, 0.8F);
}

TEST_F(AlgoZoom, LogsANotice) {
  startTracking(view(40, 30));
  algo->enableDebug(true);
  const RecordedLog log;
  update(view(20, 15));
  EXPECT_THAT(log.infos(),
              Contains(ReadsLike("[TRACK_FLOW][OT] zoom_changed steady_ns=<n> scale_factor=2.00000 "
                                 "hfov_prev=40.000 hfov_now=20.000 vfov_prev=30.000 "
                                 "vfov_now=15.000 status=zoom_changed_ok")));
  EXPECT_THAT(log.console(), Contains("zoom_changed factor=2.0000 status=zoom_changed_ok"));
  script([](FakeBackendScript& backend) { backend.zoom_changed.text = "rescaled"; });
  update(view(40, 30));
  EXPECT_THAT(log.console(), Contains("zoom_changed factor=0.5000 status=rescaled"));
}

TEST_F(AlgoZoom, DoesNotRepeatARefusedNotice) {
  startTracking(view(40, 30));
  script([](FakeBackendScript& backend) { backend.zoom_changed = {false, "refused", {}, 0.0F}; });
  algo->enableDebug(true);
  const RecordedLog log;
  update(view(20, 15));
  EXPECT_THAT(log.infos(),
              Contains(ReadsLike("[TRACK_FLOW][OT] zoom_changed_failed steady_ns=<n> scale_factor=2.00000 "
                                 "hfov_prev=40.000 hfov_now=20.000 vfov_prev=30.000 vfov_now=15.000 "
                                 "status=refused")));
  EXPECT_THAT(log.console(), Contains("zoom_changed_failed factor=2.0000 status=refused"));
  EXPECT_EQ(status(), "track_ok");  // neither outcome changes the status
  EXPECT_EQ(Access::zoomReference(*algo), std::make_pair(20.0, 15.0));
  update(view(20, 15));
  EXPECT_EQ(notices(), 1);
}

TEST_F(AlgoZoom, SaysNothingWithoutDebugging) {
  startTracking(view(40, 30));
  const RecordedLog log;
  update(view(20, 15));
  EXPECT_EQ(notices(), 1);
  EXPECT_THAT(log.infos(), IsEmpty());
  EXPECT_EQ(log.consoleText(), "");
}

TEST(ZoomFactor, IsTheGeometricMeanOfBothRatios) {
  EXPECT_FLOAT_EQ(*Access::zoomFactor(40, 30, 20, 15), 2.0F);
  EXPECT_FLOAT_EQ(*Access::zoomFactor(40, 30, 10, 30), 2.0F);
  EXPECT_FLOAT_EQ(*Access::zoomFactor(20, 15, 40, 30), 0.5F);
}

TEST(ZoomFactor, NeedsFourUsableFieldsOfViewAndAUsableResult) {
  const double bad[] = {0.0, 1e-6, -5.0, std::numeric_limits<double>::quiet_NaN(),
                        std::numeric_limits<double>::infinity()};
  for (const double value : bad) {
    EXPECT_FALSE(Access::zoomFactor(value, 30, 20, 15));
    EXPECT_FALSE(Access::zoomFactor(40, value, 20, 15));
    EXPECT_FALSE(Access::zoomFactor(40, 30, value, 15));
    EXPECT_FALSE(Access::zoomFactor(40, 30, 20, value));
  }
  EXPECT_FALSE(Access::zoomFactor(2e-6, 2e-6, 40, 40));        // a product below the guard
  EXPECT_FALSE(Access::zoomFactor(1e300, 1e300, 2e-6, 2e-6));  // not finite
}

class AlgoLiveness : public AlgoTest {};

TEST_F(AlgoLiveness, DiesAfterTheTimeoutAndStaysDeadWhileItTracksOn) {
  startTracking();
  Access::lastTrackOkNs(*algo) = 1;
  script([](FakeBackendScript& backend) { backend.track.ok = false; });
  algo->enableDebug(true);
  const RecordedLog log;
  EXPECT_EQ(update(makePicture()).size(), 1U);  // the held box is still published
  EXPECT_FALSE(algo->isAlive());
  EXPECT_EQ(property().at("alive"), false);
  EXPECT_EQ(phase(), "ready");
  EXPECT_EQ(status(), "tracking_dead_timeout");
  EXPECT_TRUE(readsLike(detail(), "elapsed_s=<*> timeout_s=10 last_status=track_fail_hold")) << detail();
  EXPECT_THAT(log.warnings(),
              Contains(ReadsLike("[TRACK_FLOW][OT] tracking_declared_dead steady_ns=<n> elapsed_s=<f> "
                                 "timeout_s=10.000 last_status=track_fail_hold")));
  script([](FakeBackendScript& backend) { backend.track.ok = true; });
  EXPECT_EQ(update(makePicture()).size(), 1U);
  EXPECT_EQ(status(), "track_ok");
  EXPECT_FALSE(algo->isAlive());
  init(makePicture(), {8, 8, 20, 16});
  EXPECT_TRUE(algo->isAlive());
}

TEST_F(AlgoLiveness, IsNotStrictAboutTheTimeout) {
  startTracking();
  Access::lastTrackOkNs(*algo) = 1'000'000'000;
  Access::markDead(*algo, 10'999'999'999);
  EXPECT_TRUE(algo->isAlive());
  Access::markDead(*algo, 11'000'000'000);
  EXPECT_FALSE(algo->isAlive());
  EXPECT_EQ(detail(), "elapsed_s=10 timeout_s=10 last_status=track_ok");
}

TEST_F(AlgoLiveness, StaysQuietOnceDead) {
  startTracking();
  Access::lastTrackOkNs(*algo) = 1;
  Access::markDead(*algo, 11'000'000'000);
  Access::setStatus(*algo, "other", "");
  Access::markDead(*algo, 99'000'000'000);
  EXPECT_EQ(status(), "other");
}

TEST_F(AlgoLiveness, HasNoTimeoutAtZeroAndNoneBeforeArming) {
  startTracking();
  Access::lastTrackOkNs(*algo) = 1;
  config().dead_timeout_s = 0.0F;
  Access::markDead(*algo, 99'000'000'000);
  EXPECT_TRUE(algo->isAlive());
  config().dead_timeout_s = 10.0F;
  Access::armed(*algo) = false;
  Access::markDead(*algo, 99'000'000'000);
  EXPECT_TRUE(algo->isAlive());
}

TEST_F(AlgoLiveness, CountsFromTheFirstCheckWhenNothingHasSetTheTime) {
  startTracking();
  Access::lastTrackOkNs(*algo) = 0;
  Access::markDead(*algo, 99'000'000'000);
  EXPECT_TRUE(algo->isAlive());
  EXPECT_EQ(Access::lastTrackOkNs(*algo), 99'000'000'000U);
}

TEST_F(AlgoLiveness, ReadsTheClockItselfForATimeOfZero) {
  startTracking();
  const auto before = ostrel_algo_internal::steadyNowNs();
  Access::refreshLiveness(*algo, 0);
  EXPECT_GE(Access::lastTrackOkNs(*algo), before);
  Access::refreshLiveness(*algo, 7);
  EXPECT_EQ(Access::lastTrackOkNs(*algo), 7U);
  Access::markDead(*algo, 0);
  EXPECT_FALSE(algo->isAlive());
}

TEST_F(AlgoLiveness, IsRefreshedByAGoodFrameAlone) {
  startTracking();
  Access::lastTrackOkNs(*algo) = ostrel_algo_internal::steadyNowNs() - 5'000'000'000;
  const auto old = Access::lastTrackOkNs(*algo);
  script([](FakeBackendScript& backend) { backend.track.ok = false; });
  update(makePicture());
  update(nullptr);
  EXPECT_EQ(Access::lastTrackOkNs(*algo), old);
  EXPECT_GT(property().at("track_idle_ms").get<double>(), 4999.0);
  script([](FakeBackendScript& backend) { backend.track.ok = true; });
  update(makePicture());
  EXPECT_GT(Access::lastTrackOkNs(*algo), old);
  EXPECT_LT(property().at("track_idle_ms").get<double>(), 4999.0);
}

TEST_F(AlgoLiveness, IsSetByTheInstallation) {
  warmUp();
  EXPECT_EQ(Access::lastTrackOkNs(*algo), 0U);
  update(nullptr);  // installs, tracks nothing
  EXPECT_NE(Access::lastTrackOkNs(*algo), 0U);
}

}  // namespace
}  // namespace ostrel_test
