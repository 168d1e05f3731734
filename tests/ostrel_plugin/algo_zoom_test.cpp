#include <limits>

#include "ostrel_plugin/algo_fixture.h"

namespace ostrel_test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

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

TEST_F(AlgoZoom, MeasuresTheStepInSinglePrecision) {
  startTracking(view(51, 51));
  update(view(50, 50));  // 1.02 is above two percent as a double, not as a float
  EXPECT_EQ(notices(), 0);
}

TEST_F(AlgoZoom, LeavesOutAFrameThatDoesNotReachTheTracker) {
  startTracking(view(40, 30));
  update(makePicture(32, 24, makeView(0, 0, 20, 15)));
  ASSERT_EQ(status(), "update_skip_source_size_changed");
  EXPECT_EQ(Access::zoomReference(*algo), std::make_pair(40.0, 30.0));
  EXPECT_EQ(notices(), 0);
}

TEST_F(AlgoZoom, ComparesFramesThatTheTrackerLoses) {
  startTracking(view(40, 30));
  script([](FakeBackendScript& backend) { backend.track.ok = false; });
  update(view(20, 15));
  EXPECT_EQ(notices(), 1);
  EXPECT_EQ(status(), "track_fail_hold");
  update(view(10, 7.5));
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
  script([](FakeBackendScript& backend) { backend.zoom_changed.text = ""; });
  update(view(40, 30));
  EXPECT_THAT(log.console(), Contains("zoom_changed_failed factor=0.5000 status="));  // no word is made up
  update(view(20, 15));
  EXPECT_EQ(status(), "track_ok");  // neither outcome changes the status
  EXPECT_EQ(Access::zoomReference(*algo), std::make_pair(20.0, 15.0));
  update(view(20, 15));
  EXPECT_EQ(notices(), 3);
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

}  // namespace
}  // namespace ostrel_test
