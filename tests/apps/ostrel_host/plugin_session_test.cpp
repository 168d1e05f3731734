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
  return {cv::Mat(16, 24, CV_8UC3, cv::Scalar::all(90)), 7, "", {}};
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

TEST(PluginSession, RepeatsAFrameUntilTrackingIsArmed) {
  FakePlugin plugin;
  plugin.phase = "warming_up";
  plugin.on_update = [](FakePlugin& self) {
    self.status = "call " + std::to_string(self.pictures_at_update.size());
    if (self.pictures_at_update.size() == 3) self.phase = "ready";
  };
  PluginSession session(plugin, false);
  session.start(small_frame(), {1, 2, 3, 4});
  std::vector<std::string> before;
  const auto first = session.step_until_armed(small_frame(), [&](const StepResult& result) {
    before.push_back(result.state.status);
    return true;
  });
  ASSERT_TRUE(first);
  EXPECT_EQ(first->state.status, "call 3");
  EXPECT_EQ(before, (std::vector<std::string>{"call 1", "call 2"}));
}

TEST(PluginSession, EndsTheWaitWhenItIsToldTo) {
  FakePlugin plugin;
  plugin.phase = "warming_up";
  PluginSession session(plugin, false);
  session.start(small_frame(), {1, 2, 3, 4});
  EXPECT_FALSE(session.step_until_armed(small_frame(), [](const StepResult&) { return false; }));
  EXPECT_EQ(plugin.pictures_at_update.size(), 1u);
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

TEST(PluginSession, TellsThePluginWhereTheCameraLooks) {
  using Keys = optrix::OptrixPicture::BaseMetadata::Keys;
  FakePlugin plugin;
  PluginSession session(plugin, false);
  Frame frame = small_frame();
  frame.view = ViewMetadata{12.5, -14.0, 40.0, 23.0, true};
  session.start(frame, {1, 2, 3, 4});
  EXPECT_EQ(std::get<double>(plugin.metadata_at_init.at(Keys::kPanDeg)), 12.5);
  EXPECT_EQ(std::get<double>(plugin.metadata_at_init.at(Keys::kTiltDeg)), -14.0);
  EXPECT_EQ(std::get<double>(plugin.metadata_at_init.at(Keys::kHfovDeg)), 40.0);
  EXPECT_EQ(std::get<double>(plugin.metadata_at_init.at(Keys::kVfovDeg)), 23.0);
  EXPECT_EQ(std::get<std::int32_t>(plugin.metadata_at_init.at(Keys::kFollowMeEnabledCommand)), 1);
}

TEST(PluginSession, GivesAFrameWithoutAViewNoMetadata) {
  FakePlugin plugin;
  PluginSession session(plugin, false);
  session.start(small_frame(), {1, 2, 3, 4});
  EXPECT_TRUE(plugin.metadata_at_init.empty());
}

TEST(PluginSession, HandsOutTheGimbalTargetOfAStart) {
  FakePlugin plugin;
  PluginSession session(plugin, false);
  EXPECT_FALSE(session.start(small_frame(), {1, 2, 3, 4}).gimbal_target);
  plugin.status = "init_deferred_waiting_alignment";
  plugin.answer_to_init = {
      {"gimbal_preposition.v1", AlgoValue(AlgoValue::Object{{"target_pan_deg", AlgoValue(3.5)},
                                                            {"target_tilt_deg", AlgoValue(-9.25)}})}};
  const StartResult answer = session.start(small_frame(), {1, 2, 3, 4});
  ASSERT_TRUE(answer.gimbal_target);
  EXPECT_EQ(answer.gimbal_target->pan_deg, 3.5);
  EXPECT_EQ(answer.gimbal_target->tilt_deg, -9.25);
  EXPECT_EQ(answer.state.status, "init_deferred_waiting_alignment");
}

TEST(PluginSession, HearsEveryWordOfACallOverTheWholeRunWhereAsked) {
  FakePlugin plugin;
  PluginSession session(plugin, false, LogUse::kWholeRun);
  session.start(small_frame(), {1, 2, 3, 4});
  plugin.phase = "ready";
  plugin.on_update = [](FakePlugin& self) {
    if (!self.debug) return;
    RCLCPP_INFO(rclcpp::get_logger("OstrelAlgo"),
                "[TRACK_FLOW][OT] runtime_status steady_ns=%d status=%s detail=%s", 1, "teleport_ok",
                "teleport_ok");
  };
  for (int frame = 0; frame < 2; ++frame) {
    const StepResult result = session.step(small_frame());
    EXPECT_TRUE(session.armed(result.state));
    EXPECT_EQ(result.told.words, (std::vector<StatusWord>{{"teleport_ok", "teleport_ok"}})) << frame;
  }
  EXPECT_FALSE(plugin.debug);
}

TEST(PluginLog, ReadsWordsAndZoomStepsFromTheirLines) {
  LogNews news;
  add_news("[TRACK_FLOW][OT] runtime_status steady_ns=5 status=init_ok detail=-", &news);
  add_news(
      "[TRACK_FLOW][OT] runtime_status steady_ns=6 status=wait_alignment detail=dx_norm=0.2 dy_norm=-0.1",
      &news);
  add_news("[TRACK_FLOW][OT] zoom_changed steady_ns=7 scale_factor=1.05700 hfov_prev=40.000 hfov_now=37.843",
           &news);
  EXPECT_EQ(news.words,
            (std::vector<StatusWord>{{"init_ok", ""}, {"wait_alignment", "dx_norm=0.2 dy_norm=-0.1"}}));
  EXPECT_EQ(news.zoom_factors, (std::vector<double>{1.057}));
}

TEST(PluginLog, TakesNoNewsFromOtherLines) {
  LogNews news;
  for (const char* line :
       {"", "[TRACK_FLOW][OT] zoom_changed_failed steady_ns=1 scale_factor=1.1",
        "zoom_changed factor=1.1 status=ok", "runtime_status=track_ok detail=ok",
        "[TRACK_FLOW][OT] runtime_status steady_ns=1", "[TRACK_FLOW][OT] runtime_status detail=a status=b",
        "[TRACK_FLOW][OT] zoom_changed steady_ns=1"}) {
    add_news(line, &news);
  }
  EXPECT_TRUE(news.words.empty());
  EXPECT_TRUE(news.zoom_factors.empty());
}

TEST(PluginLog, FindsTheCauseInItsLineOnly) {
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
