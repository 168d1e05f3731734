#include <algorithm>

#include "ostrel_plugin/algo_fixture.h"
#include "ostrel_plugin/scripted_clock.h"

/// When a setting takes effect: at once, at the next frame, or at the next start.

namespace ostrel_test {
namespace {

using testing::Contains;
using testing::IsEmpty;
using testing::Not;

class AlgoSettings : public AlgoTest {
 protected:
  long countOf(const std::string& operation) {
    const auto calls = asked().calls;
    return std::count(calls.begin(), calls.end(), operation);
  }
};

TEST_F(AlgoSettings, ChangesTheIdentityOfTheNextBox) {
  startTracking();
  algo->setConfig(R"({"target":{"class_id":7,"tracker_id":-1,"class_name":"boat \"A\""}})");
  const auto boxes = update(makePicture());
  ASSERT_EQ(boxes.size(), 1U);
  EXPECT_EQ(boxes[0].class_id, 7);
  EXPECT_EQ(boxes[0].tracker_id, -1);
  EXPECT_EQ(boxes[0].class_name, "boat \"A\"");
}

TEST_F(AlgoSettings, ChangesTheLogAtOnce) {
  startTracking();
  algo->setConfig(R"({"debug":{"enabled":true,"log_every_n_frames":3}})");
  EXPECT_EQ(property().at("debug_log_period"), 3);
  const RecordedLog log;
  update(makePicture());
  EXPECT_THAT(log.console(), Not(Contains(ReadsLike("emit_bbox<*>"))));
  update(makePicture());
  EXPECT_THAT(log.console(), Contains(ReadsLike("emit_bbox frame=3 <*>")));
}

TEST_F(AlgoSettings, ChangesThePublicationAtTheNextFrame) {
  startTracking();
  script([](FakeBackendScript& backend) { backend.track.score = 0.1F; });
  EXPECT_EQ(update(makePicture()).size(), 1U);
  configure("publication/lost_after_low_score_frames", "1");
  EXPECT_THAT(update(makePicture()), IsEmpty());
  EXPECT_EQ(status(), "overlay_rejected");
}

TEST_F(AlgoSettings, ChangesTheDeadTimeoutAtOnce) {
  ScriptedClock clock;
  startTracking();
  configure("runtime/dead_timeout_s", "2.5");
  EXPECT_EQ(property().at("tracking_dead_timeout_s"), 2.5);
  clock.advance(5 * kSecond_ns / 2);
  update(nullptr);
  EXPECT_FALSE(algo->isAlive());
  EXPECT_EQ(detail(), "elapsed_s=2.5 timeout_s=2.5 last_status=update_skip_no_frame");
}

TEST_F(AlgoSettings, ShowsTheFrameScaleAtOnceAndUsesItAtTheNextStart) {
  startTracking(makePicture(100, 80));
  configure("processing/frame_scale", "0.5");
  EXPECT_EQ(property().at("resize_scale"), 0.5);
  EXPECT_EQ(property().at("tracker_input_width"), 100);
  update(makePicture(100, 80));
  EXPECT_EQ(asked().frame_size, cv::Size(100, 80));
  startTracking(makePicture(100, 80));
  EXPECT_EQ(property().at("tracker_input_width"), 50);
  EXPECT_EQ(asked().frame_size, cv::Size(50, 40));
}

TEST_F(AlgoSettings, ChangesTheEngineAtTheNextStart) {
  startTracking();
  configure("engine/tracker_engine_path", "\"other.engine\"");
  EXPECT_EQ(asked().made, 1);  // nothing is restarted
  EXPECT_EQ(phase(), "ready");
  EXPECT_EQ(asked().updated_with.trt_engine_path, "other.engine");  // the tracker refuses it by itself
  startTracking();
  EXPECT_EQ(asked().made_with.trt_engine_path, "other.engine");
}

TEST_F(AlgoSettings, LeavesALaunchedWorkerTheConfigurationOfItsStart) {
  auto starts = holdStarts();
  configure("learning/learning_rate", "0.125");
  init(makePicture(), {8, 8, 20, 16});
  update(makePicture());
  configure("learning/learning_rate", "0.5");
  EXPECT_EQ(countOf("updateConfig"), 0);
  starts.release();
  Access::waitForWorkers(*algo);
  update(makePicture());
  EXPECT_EQ(asked().made_with.learning_rate, 0.125F);
  EXPECT_EQ(countOf("updateConfig"), 0);  // not even when it is installed
  configure("target/class_id", "3");      // the next change carries it along
  EXPECT_EQ(asked().updated_with.learning_rate, 0.5F);
}

TEST_F(AlgoSettings, TakesDocumentsInEveryPhase) {
  const auto change_class = [this](int class_id) {
    const std::string before = status();
    configure("target/class_id", std::to_string(class_id));
    EXPECT_EQ(status(), before);
    EXPECT_EQ(config().class_id, class_id);
  };
  EXPECT_EQ(phase(), "idle");
  change_class(1);
  auto starts = holdStarts();
  init(makePicture(), {8, 8, 20, 16});
  EXPECT_EQ(phase(), "waiting_first_update");
  change_class(2);
  update(makePicture());
  EXPECT_EQ(phase(), "warming_up");
  change_class(3);
  starts.release();
  Access::waitForWorkers(*algo);
  EXPECT_EQ(update(makePicture()).at(0).class_id, 3);
  EXPECT_EQ(phase(), "ready");
  change_class(4);
  EXPECT_EQ(update(makePicture()).at(0).class_id, 4);
  script([](FakeBackendScript& backend) { backend.initialize.ok = false; });
  warmUp();
  update(makePicture());
  EXPECT_EQ(phase(), "failed");
  change_class(5);
  EXPECT_EQ(phase(), "failed");
}

}  // namespace
}  // namespace ostrel_test
