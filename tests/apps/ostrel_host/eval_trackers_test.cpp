// Which trackers an evaluation compares, and how OpenCV's behave as one.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ostrel_host/accuracy.h>
#include <ostrel_host/bad_input.h>
#include <ostrel_host/eval_trackers.h>
#include <ostrel_host/one_pass.h>
#include <ostrel_host/render_command.h>

#include <fstream>
#include <opencv2/imgcodecs.hpp>

#include "apps/ostrel_host/fake_plugin.h"
#include "support/temporary_folder.h"

namespace {

using namespace ostrel_host;
using testing::ElementsAre;

std::vector<std::string> names(const std::vector<EvalTracker>& trackers) {
  std::vector<std::string> all;
  for (const EvalTracker& tracker : trackers) all.push_back(tracker.name);
  return all;
}

std::string engine_of(const EvalTracker& tracker) {
  return tracker.configuration.value(nlohmann::json::json_pointer("/engine/tracker_engine_path"), "");
}

class EvalTrackers : public testing::Test {
 protected:
  std::string refusal(const TrackerChoice& choice) const {
    try {
      eval_trackers(choice);
    } catch (const BadInput& failure) {
      return failure.what();
    }
    return "accepted";
  }

  ostrel_test::TemporaryFolder folder_;
};

TEST_F(EvalTrackers, AreThePluginAndThePeersAskedFor) {
  TrackerChoice choice;
  EXPECT_THAT(names(eval_trackers(choice)), ElementsAre("ostrel"));
  choice.engines = {"a/one.onnx"};
  choice.config_file = folder_.file("c.json", R"({"target":{"class_id":3}})");
  choice.settings = {"target/class_id=4", "runtime/dead_timeout_s=9"};
  choice.peers = "mil,csrt";
  const auto trackers = eval_trackers(choice);
  EXPECT_THAT(names(trackers), ElementsAre("ostrel", "mil", "csrt"));
  EXPECT_TRUE(trackers[0].is_plugin());
  EXPECT_FALSE(trackers[1].is_plugin());
  EXPECT_EQ(engine_of(trackers[0]), "a/one.onnx");
  EXPECT_EQ(trackers[0].configuration["target"]["class_id"], 4) << "a setting goes on top";
  EXPECT_EQ(trackers[0].configuration["runtime"]["dead_timeout_s"], 9);
}

TEST_F(EvalTrackers, AreEachEngineWithEachVariant) {
  TrackerChoice choice;
  choice.variants = {"plain=", "small=" + folder_.file("s.json", R"({"target":{"class_id":5}})")};
  choice.settings = {"runtime/dead_timeout_s=9"};
  EXPECT_THAT(names(eval_trackers(choice)), ElementsAre("plain", "small"));
  choice.engines = {"one.onnx", "second=two.onnx"};
  const auto trackers = eval_trackers(choice);
  EXPECT_THAT(names(trackers), ElementsAre("one+plain", "one+small", "second+plain", "second+small"));
  EXPECT_EQ(engine_of(trackers[1]), "one.onnx");
  EXPECT_EQ(engine_of(trackers[2]), "two.onnx");
  EXPECT_FALSE(trackers[2].configuration.contains("target"));
  EXPECT_EQ(trackers[3].configuration["target"]["class_id"], 5);
  EXPECT_EQ(trackers[3].configuration["runtime"]["dead_timeout_s"], 9);
}

TEST_F(EvalTrackers, AreCalledByWhatTellsThemApart) {
  TrackerChoice choice;
  choice.engines = {"folder/one two.onnx", "three.onnx"};
  EXPECT_THAT(names(eval_trackers(choice)), ElementsAre("one_two", "three"));
  choice.engines = {"mine=three.onnx"};
  EXPECT_THAT(names(eval_trackers(choice)), ElementsAre("mine")) << "a name that is given is used";
  const std::string with_equals = folder_.file("a=b.onnx", "");
  choice.engines = {with_equals};
  EXPECT_EQ(engine_of(eval_trackers(choice)[0]), with_equals) << "a file that is there is no NAME=FILE";
}

TEST_F(EvalTrackers, AreRefusedInOneLineEach) {
  const std::string file = folder_.file("c.json", "{}");
  const struct {
    const char* reason;
    TrackerChoice choice;
    std::string message;
  } rows[] = {
      {"no such peer",
       {{}, "", {}, {}, "csrt,yolo"},
       "'yolo' is no peer: csrt, kcf, mosse and mil are known"},
      {"a peer twice",
       {{}, "", {}, {}, "kcf,kcf"},
       "two trackers are called 'kcf': NAME=FILE gives another name"},
      {"no name", {{}, "", {file}, {}, ""}, "'" + file + "' is no variant: NAME=FILE is needed"},
      {"an empty name",
       {{}, "", {"=" + file}, {}, ""},
       "'=" + file + "' gives no name: letters, digits and -_.+ are allowed"},
      {"a way out of the folder",
       {{}, "", {"..=" + file}, {}, ""},
       "'..=" + file + "' gives no name: letters, digits and -_.+ are allowed"},
      {"a slash", {{"a/b=c"}, "", {}, {}, ""}, "'a/b=c' gives no name: letters, digits and -_.+ are allowed"},
      {"one name for two engines",
       {{"a/e.onnx", "b/e.onnx"}, "", {}, {}, ""},
       "two trackers are called 'e': NAME=FILE gives another name"},
      {"a file and variants", {{}, file, {"v="}, {}, ""}, "--config and --variant exclude each other"},
      {"no such file",
       {{}, "", {"v=" + folder_.path("none")}, {}, ""},
       "the configuration '" + folder_.path("none") + "' cannot be read"},
  };
  for (const auto& row : rows) EXPECT_EQ(refusal(row.choice), row.message) << row.reason;
}

class OnePass : public testing::Test {
 protected:
  Sequence sequence(int frames) const {
    testing::internal::CaptureStdout();
    run_render({folder_.path("clip"), {160, 120, frames, 3}});
    testing::internal::GetCapturedStdout();
    return open_sequence(folder_.path("clip"), 0);
  }

  ostrel_test::TemporaryFolder folder_;
};

constexpr auto kGoOn = [](bool) { return true; };

TEST_F(OnePass, RunsEveryPeerOverTheFrames) {
  const Sequence clip = sequence(8);
  for (const char* peer : {"csrt", "kcf", "mosse", "mil"}) {
    SCOPED_TRACE(peer);
    const Pass pass = pass_of_peer(peer, clip, 1, kGoOn);
    EXPECT_TRUE(pass.complete);
    ASSERT_EQ(pass.frames.size(), 8U);
    EXPECT_EQ(pass.frames[0].box, cv::Rect2d(clip.start.x, clip.start.y, clip.start.w, clip.start.h));
    EXPECT_FALSE(pass.frames[0].update_ms) << "the first box is the start";
    EXPECT_GT(*pass.frames[1].update_ms, 0.0);
    EXPECT_GT(pass.start_up_ms, 0.0);
    EXPECT_TRUE(pass.own_boxes.empty());
    EXPECT_GT(overlap(pass.frames[1].box, clip.truth[1]), 0.4) << "it looks at the pictures";
  }
}

TEST_F(OnePass, RepeatsAPeerWithTheSameSeed) {
  const Sequence clip = sequence(8);
  for (const char* peer : {"csrt", "mil"}) {
    const Pass first = pass_of_peer(peer, clip, 2, kGoOn);
    const Pass second = pass_of_peer(peer, clip, 2, kGoOn);
    for (std::size_t i = 0; i < 8; ++i) EXPECT_EQ(first.frames[i].box, second.frames[i].box) << peer << i;
  }
}

TEST_F(OnePass, CountsAPeersLossAsAFrameWithoutABox) {
  Sequence clip = sequence(30);
  // On a patch of the background that the camera leaves behind, with the picture black from then on.
  for (int i = 5; i < 30; ++i) {
    char name[16];
    std::snprintf(name, sizeof name, "%05d.png", i + 1);
    cv::imwrite(clip.images() + "/" + name, cv::Mat::zeros(clip.frame_size_px, CV_8UC3));
  }
  const Pass pass = pass_of_peer("mosse", clip, 1, kGoOn);
  ASSERT_EQ(pass.frames.size(), 30U);
  EXPECT_FALSE(has_size(pass.frames.back().box));
  EXPECT_TRUE(pass.frames.back().update_ms);
}

TEST_F(OnePass, StartsAPeerOnThePartOfTheBoxInsideThePicture) {
  Sequence clip = sequence(3);
  clip.start = {-10, 100, 40, 40};
  const Pass pass = pass_of_peer("csrt", clip, 1, kGoOn);
  EXPECT_EQ(pass.frames[0].box, cv::Rect2d(0, 100, 30, 20));
  EXPECT_EQ(pass.frames.size(), 3U);
}

TEST_F(OnePass, HasNoBoxFromAPeerThatCannotStart) {
  Sequence clip = sequence(3);
  std::filesystem::remove(clip.images() + "/00001.png");
  std::ofstream(clip.images() + "/00001.png") << "no picture";
  const Pass pass = pass_of_peer("csrt", clip, 1, kGoOn);
  EXPECT_TRUE(pass.complete);
  ASSERT_EQ(pass.frames.size(), 3U);
  for (const PassFrame& frame : pass.frames) {
    EXPECT_FALSE(has_size(frame.box));
    EXPECT_FALSE(frame.update_ms);
  }
}

TEST_F(OnePass, IsOnePassAlsoWherePicturesAreGoneByThen) {
  Sequence clip = sequence(4);
  std::filesystem::remove(clip.images() + "/00004.png");
  const Pass pass = pass_of_peer("csrt", clip, 1, kGoOn);
  ASSERT_EQ(pass.frames.size(), 4U);
  EXPECT_TRUE(has_size(pass.frames[2].box));
  EXPECT_FALSE(has_size(pass.frames[3].box));
  ostrel_test::FakePlugin plugin;
  plugin.phase = "ready";
  EXPECT_EQ(pass_of_plugin(plugin, clip, 0.0, false, kGoOn).frames.size(), 4U);
  EXPECT_EQ(plugin.pictures_at_update, (std::vector<std::size_t>{1, 1, 1, 0}));
}

TEST_F(OnePass, IsBrokenOffBetweenFrames) {
  const Sequence clip = sequence(6);
  int calls = 0;
  const Pass pass = pass_of_peer("mosse", clip, 1, [&](bool) { return ++calls < 3; });
  EXPECT_FALSE(pass.complete);
  EXPECT_EQ(pass.frames.size(), 3U);
  ostrel_test::FakePlugin never_armed;
  never_armed.phase = "warming_up";
  EXPECT_FALSE(pass_of_plugin(never_armed, clip, 0.0, false, [](bool) { return false; }).complete);
}

TEST_F(OnePass, WaitsForThePluginBeforeTheFirstFrameCounts) {
  const Sequence clip = sequence(4);
  ostrel_test::FakePlugin plugin;
  plugin.phase = "warming_up";
  plugin.on_update = [](ostrel_test::FakePlugin& self) {
    if (self.pictures_at_update.size() == 3) self.phase = "ready";
  };
  const Pass pass = pass_of_plugin(plugin, clip, 0.0, false, kGoOn);
  EXPECT_TRUE(pass.complete);
  EXPECT_EQ(pass.frames.size(), 4U);
  EXPECT_EQ(plugin.pictures_at_update.size(), 6U)
      << "two calls before, the third answers for the first frame";
  EXPECT_GE(pass.start_up_ms, 4.0) << "with the pauses between the calls";
  EXPECT_FALSE(pass.frames[0].update_ms) << "the call that arms is the start's, as a peer's init is";
  EXPECT_TRUE(pass.frames[1].update_ms);
  for (const PassFrame& frame : pass.frames) EXPECT_FALSE(has_size(frame.box)) << "it published nothing";
}

}  // namespace
