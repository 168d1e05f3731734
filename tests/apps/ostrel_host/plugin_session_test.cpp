#include <gtest/gtest.h>
#include <ostrel_host/bad_input.h>
#include <ostrel_host/plugin_session.h>

#include <cstdio>
#include <rclcpp/logging.hpp>

#include "apps/ostrel_host/fake_plugin.h"

namespace {

using namespace ostrel_host;
using ostrel_test::FakePlugin;

Frame small_frame() {
  return {cv::Mat(16, 24, CV_8UC3, cv::Scalar::all(90)), 7, ""};
}

std::string message_of(const std::function<void()>& call) {
  try {
    call();
  } catch (const BadInput& failure) {
    return failure.what();
  }
  return "nothing thrown";
}

TEST(PluginSession, NamesTheWordOfARefusedRegion) {
  FakePlugin plugin;
  plugin.accepts_init = false;
  plugin.status = "init_fail_invalid_roi";
  PluginSession session(plugin, false);
  EXPECT_EQ(message_of([&] {
              session.start(small_frame(), {1, 2, 0, 4});
            }),
            "the plug-in refused the region 1,2,0,4: init_fail_invalid_roi");
}

TEST(PluginSession, HandsAFrameWithoutPixelsOnAsNoPicture) {
  FakePlugin plugin;
  PluginSession session(plugin, false);
  session.start(small_frame(), {1, 2, 3, 4});
  session.step(small_frame());
  session.step({});
  EXPECT_EQ(plugin.pictures_at_init, 1u);
  EXPECT_EQ(plugin.pictures_at_update, (std::vector<std::size_t>{1, 0}));
}

TEST(PluginSession, TellsWhyAStartUpFailedThoughThePropertyHasLostIt) {
  FakePlugin plugin;
  PluginSession session(plugin, false);
  session.start(small_frame(), {1, 2, 3, 4});
  plugin.on_update = [](FakePlugin& self) {
    if (self.debug) {
      RCLCPP_INFO(rclcpp::get_logger("OstrelAlgo"),
                  "[TRACK_FLOW][OT] init_worker_result steady_ns=%d generation=%d ok=0 status=%s detail=%s "
                  "warmup_ms=%.3f",
                  1, 1, "init_async_fail", "initialize failed: no such file", 2.0);
    }
    self.phase = "failed";
    self.status = "update_skip_not_initialized";
  };
  const StepResult result = session.step(small_frame());
  EXPECT_EQ(message_of([&] { session.armed(result.state); }),
            "tracking could not start: init_async_fail (initialize failed: no such file)");
}

TEST(PluginSession, FallsBackToTheStatusWordWhereTheLogToldNothing) {
  FakePlugin plugin;
  PluginSession session(plugin, false);
  session.start(small_frame(), {1, 2, 3, 4});
  plugin.phase = "failed";
  plugin.status = "init_async_launch_fail";
  const StepResult result = session.step(small_frame());
  EXPECT_EQ(message_of([&] { session.armed(result.state); }),
            "tracking could not start: init_async_launch_fail");
}

TEST(PluginSession, KeepsStandardOutputQuietDuringWarmUpAndDebugOffAfterwards) {
  FakePlugin plugin;
  PluginSession session(plugin, false);
  session.start(small_frame(), {1, 2, 3, 4});
  std::vector<bool> debug_seen;
  plugin.on_update = [&](FakePlugin& self) {
    debug_seen.push_back(self.debug);
    std::printf("[AlgoPlugin INFO] noise\n");
  };
  testing::internal::CaptureStdout();
  plugin.phase = "warming_up";
  EXPECT_FALSE(session.armed(session.step(small_frame()).state));
  EXPECT_FALSE(plugin.debug);
  plugin.phase = "ready";
  EXPECT_TRUE(session.armed(session.step(small_frame()).state));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  session.step(small_frame());
  EXPECT_EQ(debug_seen, (std::vector<bool>{true, true, false}));
}

TEST(PluginSession, LeavesDebugOnWhereItIsAskedFor) {
  FakePlugin plugin;
  PluginSession session(plugin, true);
  session.start(small_frame(), {1, 2, 3, 4});
  plugin.phase = "ready";
  EXPECT_TRUE(session.armed(session.step(small_frame()).state));
  EXPECT_TRUE(plugin.debug);
}

TEST(PluginSession, SettlesWithoutPicturesUntilTheStartUpHasEnded) {
  FakePlugin plugin;
  plugin.phase = "warming_up";
  int left = 3;
  plugin.on_update = [&](FakePlugin& self) {
    if (--left == 0) self.phase = "ready";
  };
  PluginSession session(plugin, false);
  session.start(small_frame(), {1, 2, 3, 4});
  EXPECT_EQ(session.settle().state.phase, "ready");
  EXPECT_EQ(plugin.pictures_at_update, (std::vector<std::size_t>{0, 0, 0}));
}

TEST(StartupLog, FindsTheCauseInItsLineOnly) {
  EXPECT_EQ(cause_in_line(
                "[TRACK_FLOW][OT] init_worker_result steady_ns=1 generation=1 ok=0 status=init_async_fail "
                "detail=a detail=b warmup_ms=3.0"),
            "init_async_fail (a detail=b)");
  EXPECT_EQ(cause_in_line("[TRACK_FLOW][OT] init_worker_result steady_ns=1 generation=1 ok=1 status=init_ok "
                          "detail=fine warmup_ms=3.0 tracking_armed=1"),
            "");
  EXPECT_EQ(cause_in_line("runtime_status=init_async_fail detail=x"), "");
  EXPECT_EQ(cause_in_line("init_worker_result ok=0 status= warmup_ms= detail="), "");
}

}  // namespace
