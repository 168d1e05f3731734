// Starts beside a tracker that tracks and trains.

#include <atomic>
#include <thread>

#include "tracking_runtime/tracker/atom/track_fixture.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace track_test {
namespace {

constexpr int kStarts = 6;
constexpr int kLeastFrames = 12;

Config learning_config() {
  Config config = tiny_config();
  config.proj_init_method = "randn";
  config.filter_init_method = "randn";
  config.startup_box_refinement_iterations = 4;
  config.frames_between_learning = 1;
  config.update_iterations = 5;
  return config;
}

class StartsBesideTracking : public BackendTracking {};

TEST_F(StartsBesideTracking, DisturbNeitherTheFramesNorTheTrainings) {
  Tracked running(learning_config());
  ASSERT_TRUE(running.started);
  std::atomic<bool> started_all{false};
  std::thread starter([&] {
    for (int i = 0; i < kStarts; ++i) {
      Tracked other(learning_config());
      EXPECT_TRUE(other.started);
      EXPECT_EQ(Access::weights(other.backend).projection_version, 2U);
      EXPECT_TRUE(other.image(scene(Tracked::start)).ok);
    }
    started_all = true;
  });
  int frames = 0;
  for (; frames < kLeastFrames || !started_all; ++frames) {
    const Answer answer = running.view(picture(scene(Tracked::start)));
    EXPECT_TRUE(answer.ok) << answer.status;
  }
  starter.join();
  EXPECT_GE(Access::training_job_counter(running.backend), 1);
  EXPECT_EQ(Access::collect_training_job(running.backend), std::nullopt);
  EXPECT_GT(Access::weights(running.backend).filter_version, 3U);
  EXPECT_EQ(Access::weights(running.backend).projection_version, 2U) << "a job leaves the matrix alone";
}

TEST_F(StartsBesideTracking, AnewOnTheSameTrackerAwaitItsTraining) {
  Tracked tracker(learning_config());
  ASSERT_TRUE(tracker.started);
  for (int i = 0; i < kStarts; ++i) {
    EXPECT_TRUE(tracker.view(picture(scene(Tracked::start))).ok);
    std::string error;
    EXPECT_TRUE(tracker.backend.initialize(
        scene(Tracked::start), {Tracked::start.x, Tracked::start.y, kTargetSide, kTargetSide}, &error))
        << error;
    EXPECT_FALSE(Access::training_in_flight(tracker.backend));
  }
  EXPECT_EQ(Access::weights(tracker.backend).projection_version, 2U * (kStarts + 1U));
}

}  // namespace
}  // namespace track_test
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
