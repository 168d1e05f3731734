// From a clip to boxes through everything: program, plug-in, start-up worker, engine, kernels, trainer.
#include <gtest/gtest.h>
#include <ostrel_host/accuracy.h>
#include <trunk_writer.h>

#include <opencv2/imgcodecs.hpp>

#include "apps/ostrel_host/program_runner.h"

namespace {

using ostrel_host::AccuracyReport;
using ostrel_test::content_of;
using ostrel_test::Outcome;

class ClipToBoxes : public ostrel_test::ProgramTest {
 protected:
  // A trunk with random weights; made once for all tests.
  static const std::string& engine() {
    static const ostrel_test::TemporaryFolder folder;
    static const std::string file = [] {
      ostrel::backbone::TrunkOptions options;
      options.seed = 1;
      options.outputs = ostrel::backbone::TrunkOutputs::kLayer2;
      std::string error;
      EXPECT_TRUE(write_trunk(options, folder.path("random.onnx"), &error)) << error;
      return folder.path("random.onnx");
    }();
    return file;
  }

  Outcome track(const std::string& source, const std::string& words) const {
    return run("track " + source + " --out " + folder_.path("out") + " " + words);
  }

  // The program's own word is one line, behind what the tracker writes to standard error by itself.
  static void expect_last_line(const Outcome& outcome, const std::string& message) {
    const std::string line = "ostrel_host: " + message + "\n";
    const std::size_t at = outcome.err.find("ostrel_host: ");
    ASSERT_NE(at, std::string::npos) << outcome.err;
    EXPECT_TRUE(at == 0 || outcome.err[at - 1] == '\n') << outcome.err;
    EXPECT_EQ(outcome.err.substr(at), line);
  }

  std::string first_box() const {
    const std::string truth = content_of(folder_.path("groundtruth_rect.txt"));
    return truth.substr(0, truth.find('\n'));
  }
};

TEST_F(ClipToBoxes, FollowsTheRenderedTarget) {
  const std::string clip = rendered("clip.mp4", {480, 270, 50, 1});
  const Outcome outcome = track(clip, "--roi " + first_box() + " --engine " + engine() + " --wait-ready");
  ASSERT_EQ(outcome.exit_code, 0) << outcome.err;
  const AccuracyReport report =
      ostrel_host::score_boxes(ostrel_host::read_boxes(folder_.path("out/boxes.txt")),
                               ostrel_host::read_boxes(folder_.path("groundtruth_rect.txt")));
  EXPECT_EQ(report.frames, 50u);
  EXPECT_GT(report.success_auc, 0.5);
  EXPECT_GT(report.precision_20px, 0.9);
  EXPECT_GE(summary()["statuses"]["track_ok"].get<int>(), 45);
  EXPECT_EQ(summary()["properties"]["stats"]["track_fail"], 0);
  EXPECT_TRUE(std::filesystem::file_size(folder_.path() / "out/annotated.mp4") > 1000);
}

TEST_F(ClipToBoxes, PublishesNothingUntilItIsArmedAndStaysArmedThen) {
  const std::string clip = rendered("clip.mp4", {320, 200, 20, 1});
  const Outcome outcome =
      track(clip, "--roi " + first_box() + " --engine " + engine() + " --no-video --fps 12");
  ASSERT_EQ(outcome.exit_code, 0) << outcome.err;
  EXPECT_EQ(lines()[0]["status"], "init_warmup_started");
  EXPECT_EQ(lines()[1]["status"], "update_skip_warming_up");
  bool armed = false;
  for (const auto& line : lines()) {
    if (!armed && line["phase"] == "warming_up") {
      EXPECT_TRUE(line["x"].is_null()) << line;
      continue;
    }
    armed = true;
    EXPECT_EQ(line["phase"], "ready") << line;
  }
}

TEST_F(ClipToBoxes, NamesTheWordOfAFrameOfAnotherSizeAndGoesOn) {
  const std::string folder = rendered("scene", {161, 121, 8, 1});
  const std::string small = folder + "/img/00005.png";
  cv::imwrite(small, cv::Mat(121, 100, CV_8UC3, cv::Scalar::all(80)));
  ASSERT_EQ(track(folder, "--roi 60,40,30,30 --engine " + engine() + " --wait-ready --no-video").exit_code,
            0);
  const auto frames = lines();
  ASSERT_EQ(frames.size(), 8u);
  EXPECT_EQ(frames[4]["status"], "update_skip_source_size_changed");
  EXPECT_TRUE(frames[4]["x"].is_null());
  for (const std::size_t frame : {3u, 5u}) EXPECT_EQ(frames[frame]["phase"], "ready") << frames[frame];
  EXPECT_NE(frames[5]["status"], "update_skip_source_size_changed");
}

TEST_F(ClipToBoxes, TracksInTinyAndOddFrames) {
  std::filesystem::create_directory(folder_.path() / "tiny");
  for (int i = 0; i < 3; ++i) {
    cv::Mat image(9, 13, CV_8UC3, cv::Scalar::all(40));
    image(cv::Rect(4, 2, 4, 4)).setTo(cv::Scalar(20, 200, 240));
    cv::imwrite(folder_.path("tiny/" + std::to_string(i) + ".png"), image);
  }
  const Outcome outcome =
      track(folder_.path("tiny"), "--roi 4,2,4,4 --engine " + engine() + " --wait-ready --no-video");
  EXPECT_EQ(outcome.exit_code, 0) << outcome.err;
  EXPECT_EQ(lines().size(), 3u);
  EXPECT_EQ(lines()[2]["phase"], "ready");
}

TEST_F(ClipToBoxes, TracksWithAConfigurationFileAndSettings) {
  const std::string clip = rendered("clip.mp4", {320, 200, 8, 1});
  const std::string config = folder_.file(
      "c.json", nlohmann::json{{"engine", {{"tracker_engine_path", engine()}}},
                               {"processing", {{"frame_scale", 0.5}, {"search_scales", {0.95, 1.0}}}},
                               {"runtime", {{"dead_timeout_s", 7}}}}
                    .dump());
  const Outcome outcome =
      track(clip, "--roi " + first_box() + " --wait-ready --no-video --config " + config +
                      " --set runtime/dead_timeout_s=42.5 --set debug/log_every_n_frames=9");
  ASSERT_EQ(outcome.exit_code, 0) << outcome.err;
  const nlohmann::json properties = summary()["properties"];
  EXPECT_EQ(properties["tracking_dead_timeout_s"], 42.5);
  EXPECT_EQ(properties["debug_log_period"], 9);
  EXPECT_EQ(properties["tracker_input_width"], 160);
  EXPECT_EQ(properties["stats"]["track_ok"], 8);
  EXPECT_EQ(summary()["engine"], engine());
  EXPECT_EQ(summary()["configuration"]["processing"]["frame_scale"], 0.5);
}

TEST_F(ClipToBoxes, JudgesThePluginAnewInEachPass) {
  const std::string clip = rendered("clip", {320, 200, 6, 1});
  const Outcome outcome = run("eval " + clip + " --runs 2 --fps 25 --peer mosse --variant plain= --out " +
                              folder_.path("out") + " --engine " + engine());
  ASSERT_EQ(outcome.exit_code, 0) << outcome.err;
  const auto report = nlohmann::json::parse(content_of(folder_.path("out/eval.json")));
  ASSERT_EQ(report["passes"].size(), 4U);
  for (const std::size_t pass : {0U, 2U}) {
    EXPECT_EQ(report["passes"][pass]["tracker"], "plain");
    EXPECT_EQ(report["passes"][pass]["counted"], 6);
    EXPECT_GT(report["passes"][pass]["own_above_half"], 0.5);
    EXPECT_GT(report["passes"][pass]["fps"], 0.0);
  }
}

TEST_F(ClipToBoxes, RefusesASettingThatThePluginWouldBend) {
  const std::string clip = rendered("clip.mp4", {128, 96, 4, 1});
  const struct {
    const char* setting;
    const char* message;
  } rows[] = {
      {"learning/update_iterations=500",
       "the setting 'learning/update_iterations' is 500: 1 to 100 is allowed"},
      {"learning/update_iterations=2.5",
       "the setting 'learning/update_iterations' is 2.5: a whole number is needed"},
      {"processing/frame_scale=0.3", "the setting 'processing/frame_scale' is 0.3: 0.4 to 1.0 is allowed"},
      {"processing/search_scales=1.0",
       "the setting 'processing/search_scales' is 1.0: a list of numbers is needed"},
      {"scale/enable_scale_predictor=1",
       "the setting 'scale/enable_scale_predictor' is 1: true or false is needed"},
      {"learning/sample_memory_size=9", "the plug-in knows no setting 'learning/sample_memory_size'"},
      {"learning=9", "the setting 'learning' is 9: a group of settings is needed"},
  };
  for (const auto& row : rows) {
    const Outcome outcome = track(clip, "--roi 40,30,20,20 --set " + std::string(row.setting));
    EXPECT_EQ(outcome.exit_code, 2);
    EXPECT_EQ(outcome.err, std::string("ostrel_host: ") + row.message + "\n");
    EXPECT_EQ(outcome.out, "");
  }
}

TEST_F(ClipToBoxes, PrintsTheSchemasOfThePlugin) {
  const Outcome settings = run("schema");
  ASSERT_EQ(settings.exit_code, 0) << settings.err;
  const auto schema = nlohmann::json::parse(settings.out);
  EXPECT_EQ(schema["title"], "Ostrel Tracker");
  EXPECT_EQ(schema["properties"].size(), 12U);
  EXPECT_EQ(schema["properties"]["learning"]["properties"]["update_iterations"]["default"], 45);
  const Outcome properties = run("schema --properties");
  ASSERT_EQ(properties.exit_code, 0) << properties.err;
  EXPECT_TRUE(nlohmann::json::parse(properties.out)["properties"].contains("runtime_status"));
}

TEST_F(ClipToBoxes, EndsInOneLineWhereTheEngineCannotBeUsed) {
  const std::string clip = rendered("clip.mp4", {128, 96, 4, 1});
  const std::string whole = content_of(engine());
  folder_.file("empty.onnx", "");
  folder_.file("truncated.onnx", whole.substr(0, whole.size() / 2));
  ostrel::backbone::TrunkOptions tiny;
  tiny.tiny = true;
  std::string error;
  ASSERT_TRUE(write_trunk(tiny, folder_.path("other_input.onnx"), &error)) << error;
  const struct {
    const char* engine;
    const char* cause;
    bool names_file;
  } rows[] = {
      {"missing.onnx", "TensorRT backbone engine not found: ", true},
      {"empty.onnx", "failed to deserialize TensorRT engine: ", true},
      {"truncated.onnx", "failed to deserialize TensorRT engine: ", true},
      {"other_input.onnx", "failed to extract template feature", false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.engine);
    const Outcome outcome =
        track(clip, "--roi 40,30,20,20 --wait-ready --no-video --engine " + folder_.path(row.engine));
    EXPECT_EQ(outcome.exit_code, 2);
    EXPECT_EQ(outcome.out, "");
    expect_last_line(outcome, std::string("tracking could not start: init_async_fail (initialize failed: ") +
                                  row.cause + (row.names_file ? folder_.path(row.engine) : "") + ")");
  }
}

TEST_F(ClipToBoxes, EndsInOneLineForARegionOfOnePixel) {
  const std::string clip = rendered("clip.mp4", {128, 96, 4, 1});
  const Outcome outcome = track(clip, "--roi 40,30,1,20 --wait-ready --no-video --engine " + engine());
  EXPECT_EQ(outcome.exit_code, 2);
  expect_last_line(outcome,
                   "tracking could not start: init_async_fail (initialize failed: invalid init bbox)");
}

TEST_F(ClipToBoxes, GivesThePluginsWordForARegionWithoutSize) {
  const std::string clip = rendered("clip.mp4", {128, 96, 4, 1});
  const Outcome outcome = track(clip, "--roi 40,30,0,20 --engine " + engine());
  EXPECT_EQ(outcome.exit_code, 2);
  EXPECT_EQ(outcome.err, "ostrel_host: the plug-in refused the region 40,30,0,20: init_fail_invalid_roi\n");
}

}  // namespace
