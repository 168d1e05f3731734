// The library on a rendered clip, with the real tracker and its threads.
#include "plugin/loaded_plugin_fixture.h"

namespace ostrel_test {
namespace {

class PluginRun : public LoadedPluginTest {
 protected:
  /// Tracks a clip from its first frame; the mean overlap with the truth.
  static double meanOverlap(DrivenPlugin& plugin, std::uint32_t seed, int frames) {
    const auto scene = makeScene(seed);
    const PicturePtr first = uploaded(scene.render(0).image);
    EXPECT_TRUE(plugin.init(first, asBox(scene.target_at(0))));
    plugin.settle(first);
    double sum = 0.0;
    for (int frame = 1; frame <= frames; ++frame) {
      const auto boxes = plugin.update(uploaded(scene.render(frame).image));
      if (!boxes.empty()) sum += overlap(boxes[0], scene.target_at(frame));
    }
    return sum / frames;
  }
};

TEST_F(PluginRun, FollowsARenderedTarget) {
  DrivenPlugin plugin = create();
  EXPECT_GT(meanOverlap(plugin, 1, 12), 0.5) << plugin.property();
  EXPECT_EQ(plugin.phase(), "ready");
  EXPECT_EQ(plugin.property().at("initialized"), true);
  EXPECT_EQ(plugin.property().at("stats").at("track_fail"), 0);
  EXPECT_EQ(plugin.property().at("frame_width"), 240);
}

TEST_F(PluginRun, StartsAgainOnAnotherTarget) {
  DrivenPlugin plugin = create();
  EXPECT_GT(meanOverlap(plugin, 1, 5), 0.5) << plugin.property();
  EXPECT_GT(meanOverlap(plugin, 2, 5), 0.5) << plugin.property();
  EXPECT_EQ(plugin.property().at("stats").at("track_ok"), 6);
}

TEST_F(PluginRun, RunsTwoInstancesOnTwoThreads) {
  DrivenPlugin plugins[] = {create(), create()};
  double overlaps[] = {0.0, 0.0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 2; ++i) {
    threads.emplace_back([&plugin = plugins[i], &overlap = overlaps[i], i] {
      overlap = meanOverlap(plugin, static_cast<std::uint32_t>(i + 1), 8);
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (int i = 0; i < 2; ++i) EXPECT_GT(overlaps[i], 0.5) << plugins[i].property();
  EXPECT_NE((*plugins[0]).getUuid(), (*plugins[1]).getUuid());
}

TEST_F(PluginRun, TakesSettingsWhileTrainingsRun) {
  DrivenPlugin plugin = create();
  plugin.set({{"learning",
               {{"startup_filter_iterations", 5},
                {"feature_projection_dim", 16},
                {"frames_between_learning", 1},
                {"update_iterations", 100}}},
              {"tracking", {{"min_update_confidence", 0.0}, {"min_update_scale_margin", 0.0}}}});
  const PicturePtr frame = uploaded(makeScene().render(0).image);
  ASSERT_TRUE(plugin.init(frame, asBox(makeScene().target_at(0))));
  plugin.settle(frame);
  ASSERT_EQ(plugin.phase(), "ready") << plugin.property();
  testing::internal::CaptureStderr();
  for (int round = 0; round < 8; ++round) {
    plugin.update(frame);
    EXPECT_EQ(plugin.status(), "track_ok") << plugin.property();
    plugin.set({{"learning",
                 {{"learning_rate", 0.01 * (round + 1)},
                  {"filter_regularization", 0.5 * (round + 1)},
                  {"max_sample_history", 8 + round}}}});
  }
  const std::string lines = testing::internal::GetCapturedStderr();
  // Each change has awaited the training before it, so that every frame could start one.
  EXPECT_THAT(lines, testing::HasSubstr("[CudaRuntimeBackend][train] job=8 "));
  EXPECT_THAT(lines, testing::HasSubstr(" reason=periodic done status=ok iter=100"));
}

TEST_F(PluginRun, ReturnsFromInitAndWarmUpBeforeTheTrackerIsReady) {
  const auto scene = makeScene();
  const PicturePtr first = uploaded(scene.render(0).image);
  DrivenPlugin plugin = create();
  ASSERT_TRUE(plugin.init(first, asBox(scene.target_at(0))));
  EXPECT_EQ(plugin.status(), "init_deferred_waiting_update");
  EXPECT_TRUE(plugin.update(first).empty());
  EXPECT_EQ(plugin.status(), "init_warmup_started");
  EXPECT_TRUE(plugin.update(first).empty());
  EXPECT_EQ(plugin.status(), "update_skip_warming_up");
  plugin.settle(first);
  EXPECT_EQ(plugin.status(), "track_ok");
}

TEST_F(PluginRun, SupersedesAStartThatIsUnderWay) {
  const auto scene = makeScene();
  const PicturePtr first = uploaded(scene.render(0).image);
  DrivenPlugin plugin = create();
  for (int start = 0; start < 3; ++start) {
    ASSERT_TRUE(plugin.init(first, asBox(scene.target_at(0))));
    plugin.update(first);
  }
  const auto boxes = plugin.settle(first);
  ASSERT_EQ(boxes.size(), 1U) << plugin.property();
  EXPECT_GT(overlap(boxes[0], scene.target_at(0)), 0.5);
}

TEST_F(PluginRun, IsDestroyedDuringItsStartUp) {
  const auto scene = makeScene();
  const PicturePtr first = uploaded(scene.render(0).image);
  DrivenPlugin plugin = create();
  ASSERT_TRUE(plugin.init(first, asBox(scene.target_at(0))));
  plugin.update(first);
  EXPECT_EQ(plugin.phase(), "warming_up");
  plugin.destroy();  // waits for the worker
}

}  // namespace
}  // namespace ostrel_test
