// The program itself, run as a user runs it, with a plug-in that follows a script.
#include <gtest/gtest.h>
#include <ostrel_host/accuracy.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/videoio.hpp>

#include "apps/ostrel_host/program_runner.h"

namespace {

using nlohmann::json;
using ostrel_test::content_of;
using ostrel_test::Outcome;

class Program : public ostrel_test::ProgramTest {
 protected:
  Outcome track(const std::string& source, const std::string& words) const {
    return run("track " + source + " --plugin " + OSTREL_SCRIPTED_PLUGIN + " --out " + folder_.path("out") +
               " " + words);
  }

  void expect_bad_input(const Outcome& outcome, const std::string& message) const {
    EXPECT_EQ(outcome.exit_code, 2);
    EXPECT_EQ(outcome.err, "ostrel_host: " + message + "\n");
    EXPECT_EQ(outcome.out, "");
  }

  std::string clip() const { return rendered("clip.mp4", {128, 96, 12, 2}); }
};

TEST_F(Program, LeavesAllResultsOfAClip) {
  const Outcome outcome = track(clip(), "--roi 10,20,30,40 --engine some.engine");
  EXPECT_EQ(outcome.exit_code, 0) << outcome.err;
  const auto frames = lines();
  ASSERT_EQ(frames.size(), 12u);
  EXPECT_EQ(frames[0]["status"], "init_warmup_started");
  EXPECT_TRUE(frames[0]["x"].is_null());
  EXPECT_TRUE(frames[0]["score"].is_null());
  EXPECT_EQ(frames[2]["frame"], 2);
  EXPECT_EQ(frames[2]["x"], 12);
  EXPECT_EQ(frames[2]["h"], 40);
  EXPECT_EQ(frames[2]["score"], 0.75);
  EXPECT_EQ(frames[6]["status"], "track_fail_hold");
  EXPECT_EQ(frames[6]["score"], 0.0);

  const auto boxes = ostrel_host::read_boxes(folder_.path("out/boxes.txt"));
  ASSERT_EQ(boxes.size(), 12u);
  EXPECT_EQ(boxes[0], cv::Rect2d(10, 20, 30, 40)) << "the start box until the tracker has its own";
  EXPECT_EQ(boxes[2], cv::Rect2d(12.25, 21, 30, 40));

  EXPECT_EQ(summary()["frames"], 12);
  EXPECT_EQ(summary()["frame_width"], 128);
  EXPECT_EQ(summary()["roi"], json({10, 20, 30, 40}));
  EXPECT_EQ(summary()["engine"], "some.engine");
  EXPECT_EQ(summary()["configuration"], json::parse(R"({"engine":{"tracker_engine_path":"some.engine"}})"));
  EXPECT_EQ(summary()["wait_ready"], false);
  EXPECT_EQ(summary()["statuses"]["track_fail_hold"], 2);
  EXPECT_EQ(summary()["warm_up_update_ms"]["count"], 2);
  EXPECT_EQ(summary()["update_ms"]["count"], 10);
  EXPECT_TRUE(summary()["ready_ms"].is_number());

  cv::VideoCapture annotated(folder_.path("out/annotated.mp4"), cv::CAP_FFMPEG);
  cv::Mat image;
  int pictures = 0;
  while (annotated.read(image)) ++pictures;
  EXPECT_EQ(pictures, 12);
  EXPECT_NE(outcome.out.find("12 frames of 128x96"), std::string::npos);
  EXPECT_NE(outcome.out.find("status: track_ok 8, track_fail_hold 2"), std::string::npos);
}

TEST_F(Program, HandsConfigAndSettingsToThePlugin) {
  const std::string config =
      folder_.file("c.json", R"({"learning":{"update_iterations":7},"engine":{"tracker_engine_path":"a"}})");
  const Outcome outcome = track(clip(), "--roi 10,20,30,40 --no-video --frames 3 --config " + config +
                                            " --set learning/update_iterations=9 --set debug/enabled=true");
  EXPECT_EQ(outcome.exit_code, 0) << outcome.err;
  const json expected = json::parse(
      R"({"learning":{"update_iterations":9},"engine":{"tracker_engine_path":"a"},"debug":{"enabled":true}})");
  EXPECT_EQ(summary()["properties"]["told"], expected);
  EXPECT_EQ(summary()["configuration"], expected);
  EXPECT_EQ(summary()["engine"], "a");
}

TEST_F(Program, WritesThePropertiesOfTheEnd) {
  EXPECT_EQ(track(clip(), "--roi 10,20,30,40 --no-video").exit_code, 0);
  EXPECT_EQ(summary()["properties"]["calls"], 12);
  EXPECT_EQ(summary()["properties"]["runtime_status"], lines().back()["status"]);
  EXPECT_EQ(summary()["properties"]["told"], json::object());
  // A start-up that the clip's end finds running goes on after its last frame.
  EXPECT_EQ(track(clip(), "--roi 10,20,30,40 --no-video --frames 2").exit_code, 0);
  EXPECT_GT(summary()["properties"]["calls"], 2);
  EXPECT_EQ(summary()["properties"]["init_phase"], "ready");
}

TEST_F(Program, TakesTheEngineOfTheCommandLineBeforeAnyOther) {
  ::setenv("OSTREL_TRACKER_ATOM_TRT_ENGINE", "of_the_environment", 1);
  const std::string words =
      "--roi 10,20,30,40 --no-video --frames 3 --set engine/tracker_engine_path=of_a_setting";
  EXPECT_EQ(track(clip(), words).exit_code, 0);
  EXPECT_EQ(summary()["engine"], "of_the_environment") << "it outranks the setting";
  EXPECT_EQ(track(clip(), words + " --engine mine").exit_code, 0);
  ::unsetenv("OSTREL_TRACKER_ATOM_TRT_ENGINE");
  EXPECT_EQ(summary()["engine"], "mine");
  EXPECT_EQ(summary()["properties"]["told"]["engine"]["tracker_engine_path"], "mine");
  EXPECT_TRUE(summary()["properties"]["variable"].is_null());
  EXPECT_EQ(track(clip(), "--roi 10,20,30,40 --no-video --frames 3").exit_code, 0);
  EXPECT_TRUE(summary()["engine"].is_null());
}

TEST_F(Program, PrintsTheSchemas) {
  const std::string plugin = std::string(" --plugin ") + OSTREL_SCRIPTED_PLUGIN;
  const Outcome settings = run("schema" + plugin);
  EXPECT_EQ(settings.exit_code, 0) << settings.err;
  EXPECT_EQ(settings.out.substr(0, 2), "{\"");
  EXPECT_EQ(settings.out.substr(settings.out.size() - 2), "}\n");
  EXPECT_TRUE(json::parse(settings.out)["properties"].contains("learning"));
  EXPECT_EQ(run("schema --properties" + plugin).out, "{\"title\":\"scripted\"}\n");
  expect_bad_input(run("schema --plugin " + folder_.path("none.so")),
                   "no plug-in at '" + folder_.path("none.so") + "'");
}

TEST_F(Program, WaitReadyTracksFromTheFirstFrameOn) {
  EXPECT_EQ(track(clip(), "--roi 10,20,30,40 --wait-ready --no-video").exit_code, 0);
  const auto frames = lines();
  ASSERT_EQ(frames.size(), 12u);
  EXPECT_EQ(frames[0]["status"], "track_ok");
  EXPECT_EQ(frames[0]["x"], 12) << "the first frame is tracked once";
  EXPECT_EQ(frames[11]["x"], 34);
  EXPECT_EQ(summary()["warm_up_update_ms"]["count"], 2);
  EXPECT_FALSE(std::filesystem::exists(folder_.path() / "out/annotated.mp4"));
}

TEST_F(Program, StopsAfterTheFramesAskedFor) {
  EXPECT_EQ(track(clip(), "--roi 10,20,30,40 --frames 4").exit_code, 0);
  EXPECT_EQ(lines().size(), 4u);
}

TEST_F(Program, PacesFramesAndDropsNone) {
  const std::string source = clip();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(track(source, "--roi 10,20,30,40 --fps 40").exit_code, 0);
  const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
  EXPECT_GE(taken.count(), 11 / 40.0);
  EXPECT_EQ(lines().size(), 12u);
  EXPECT_LE(summary()["fps"].get<double>(), 44.0);
  EXPECT_EQ(summary()["paced_fps"], 40.0);
}

TEST_F(Program, ScoresAgainstGroundTruth) {
  const std::string source = clip();
  const Outcome outcome =
      track(source, "--roi 10,20,30,40 --groundtruth " + folder_.path("groundtruth_rect.txt"));
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_EQ(summary()["accuracy"]["frames"], 12);
  const Outcome score =
      run("score " + folder_.path("out/boxes.txt") + " " + folder_.path("groundtruth_rect.txt"));
  EXPECT_EQ(score.exit_code, 0);
  EXPECT_NE(outcome.out.find(score.out), std::string::npos) << "one scorer serves both";
}

TEST_F(Program, GoesOnAfterAFrameOfAnotherSizeAndAnUnreadableOne) {
  for (int i = 0; i < 9; ++i) {
    const int width = i == 4 ? 60 : 80;
    cv::imwrite(folder_.path("images_" + std::to_string(i) + ".png"),
                cv::Mat(64, width, CV_8UC3, cv::Scalar::all(i)));
  }
  std::filesystem::create_directory(folder_.path() / "images");
  for (int i = 0; i < 9; ++i) {
    std::filesystem::rename(folder_.path("images_" + std::to_string(i) + ".png"),
                            folder_.path("images/" + std::to_string(i) + ".png"));
  }
  folder_.file("images/6.png", "damaged");
  EXPECT_EQ(track(folder_.path("images"), "--roi 10,20,30,40").exit_code, 0);
  const auto frames = lines();
  ASSERT_EQ(frames.size(), 9u);
  EXPECT_EQ(frames[3]["status"], "track_ok");
  EXPECT_EQ(frames[4]["status"], "update_skip_source_size_changed");
  EXPECT_EQ(frames[5]["status"], "track_ok");
  EXPECT_EQ(frames[6]["status"], "update_skip_no_frame");
  EXPECT_EQ(frames[7]["status"], "track_ok");
}

TEST_F(Program, SaysThatTheClipEndedBeforeTrackingWasArmed) {
  const Outcome outcome = track(clip(), "--roi 10,20,30,40 --frames 2");
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_NE(outcome.out.find("tracking was not armed before the clip ended"), std::string::npos);
  EXPECT_TRUE(summary()["ready_ms"].is_null());
}

TEST_F(Program, EndsWithTheCauseWhereTheStartUpFails) {
  for (const char* words : {"--wait-ready", "", "--frames 2"}) {
    const Outcome outcome = track(clip(), std::string("--roi 10,20,30,40 --engine broken ") + words);
    EXPECT_EQ(outcome.exit_code, 2) << words;
    EXPECT_NE(outcome.err.find(
                  "ostrel_host: tracking could not start: init_async_fail (initialize failed: scripted)\n"),
              std::string::npos)
        << outcome.err;
    EXPECT_EQ(outcome.out, "");
  }
}

TEST_F(Program, RefusesBadInputInOneLine) {
  const std::string source = clip();
  const std::string roi = " --roi 10,20,30,40 ";
  folder_.file("empty.mp4", "");
  folder_.file("truncated.mp4", content_of(source).substr(0, 300));
  std::filesystem::create_directory(folder_.path() / "nothing");
  std::filesystem::create_directory(folder_.path() / "damaged");
  folder_.file("damaged/1.png", "no image");
  folder_.file("broken.json", "{");
  folder_.file("deep.json", R"({"target":)" + std::string(100'000, '[') + std::string(100'000, ']') + "}");
  folder_.file("unknown.json", R"({"learn":{}})");
  const auto path = [&](const char* name) { return folder_.path(name); };
  const auto quoted = [&](const char* name) { return "'" + folder_.path(name) + "'"; };
  const struct {
    std::string words, message;
  } rows[] = {
      {path("missing.mp4") + roi, "no such file or folder: " + quoted("missing.mp4")},
      {path("empty.mp4") + roi, quoted("empty.mp4") + " cannot be read as a video"},
      {path("truncated.mp4") + roi, quoted("truncated.mp4") + " cannot be read as a video"},
      {path("nothing") + roi, "the folder " + quoted("nothing") + " holds no images"},
      {path("damaged") + roi, "the first image '1.png' of " + quoted("damaged") + " cannot be read"},
      {source + " --roi 10,20,30", "'10,20,30' is no region: four numbers x,y,w,h are needed"},
      {source + " --roi 10,20,0,40", "the plug-in refused the region 10,20,0,40: init_fail_invalid_roi"},
      {source + " --roi 500,20,30,40", "the region 500,20,30,40 lies outside the frame of 128x96"},
      {source, "--roi is required"},
      {source + roi + "--fps 0", "--fps: a rate above 0 and up to 1000 frames per second is needed"},
      {source + roi + "--fps nan", "--fps: a rate above 0 and up to 1000 frames per second is needed"},
      {source + roi + "--fps fast", "--fps: a rate above 0 and up to 1000 frames per second is needed"},
      {source + roi + "--colour", "The following argument was not expected: --colour"},
      {source + roi + "--config " + path("missing.json"),
       "the configuration " + quoted("missing.json") + " cannot be read"},
      {source + roi + "--config " + path("nothing"),
       "the configuration " + quoted("nothing") + " cannot be read"},
      {source + roi + "--config " + path("deep.json"),
       "the configuration " + quoted("deep.json") + " is nested too deeply"},
      {source + roi + "--config " + path("broken.json"),
       "the configuration " + quoted("broken.json") + " is malformed JSON at line 1"},
      {source + roi + "--set nonsense", "'nonsense' is no setting: path=value is needed"},
      {source + roi + "--set debug/enable=true", "the plug-in knows no setting 'debug/enable'"},
      {source + roi + "--config " + path("unknown.json"), "the plug-in knows no setting 'learn'"},
      {source + roi + "--set debug/enabled=yes",
       "the setting 'debug/enabled' is \"yes\": true or false is needed"},
      {source + roi + "--set learning/update_iterations=500",
       "the setting 'learning/update_iterations' is 500: 1 to 100 is allowed"},
      {source + roi + "--groundtruth " + path("missing.txt"),
       "the boxes " + quoted("missing.txt") + " cannot be read"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.words);
    expect_bad_input(track(row.words, ""), row.message);
  }
}

TEST_F(Program, RefusesAMissingOrForeignPlugin) {
  const std::string words = " --roi 10,20,30,40 --plugin ";
  const std::string source = clip();
  expect_bad_input(run("track " + source + words + folder_.path("none.so")),
                   "no plug-in at '" + folder_.path("none.so") + "'");
  const Outcome foreign = run("track " + source + words + folder_.file("foreign.so", "no library"));
  EXPECT_EQ(foreign.exit_code, 2);
  EXPECT_EQ(foreign.err.rfind("ostrel_host: '" + folder_.path("foreign.so") + "' is no plug-in: ", 0), 0u)
      << foreign.err;
}

TEST_F(Program, RefusesResultsThatCannotBeWritten) {
  folder_.file("out", "in the way");
  expect_bad_input(track(clip(), "--roi 10,20,30,40"),
                   "the folder '" + folder_.path("out") + "' cannot be made");
}

TEST_F(Program, ExplainsItself) {
  const Outcome help = run("track --help");
  EXPECT_EQ(help.exit_code, 0);
  EXPECT_NE(help.out.find("--wait-ready"), std::string::npos);
  expect_bad_input(run(""), "A subcommand is required");
}

}  // namespace
