// The demo as a user runs it, with a plug-in that follows a script.
#include <gtest/gtest.h>

#include "apps/ostrel_host/program_runner.h"

namespace {

using nlohmann::json;
using ostrel_test::content_of;
using ostrel_test::Outcome;

class DemoProgram : public ostrel_test::ProgramTest {
 protected:
  Outcome demo(const std::string& words) const {
    return run(std::string("demo --plugin ") + OSTREL_SCRIPTED_PLUGIN + " --out " + folder_.path("out") +
               " " + words);
  }

  void expect_bad_input(const Outcome& outcome, const std::string& message) const {
    EXPECT_EQ(outcome.exit_code, 2);
    EXPECT_EQ(outcome.err, "ostrel_host: " + message + "\n");
    EXPECT_EQ(outcome.out, "");
  }

  bool left(const std::string& name) const { return std::filesystem::exists(folder_.path() / "out" / name); }
};

TEST_F(DemoProgram, LeavesAllResultsOfARun) {
  const Outcome outcome = demo("--size 160x90 --seconds 0.48 --seed 3 --set target/class_id=7");
  ASSERT_EQ(outcome.exit_code, 0) << outcome.err;
  for (const char* name : {"annotated.mp4", "boxes.jsonl", "boxes.txt", "summary.json", "timeline.tsv",
                           "timeline.gp", "timeline.png", "tracker.log"}) {
    EXPECT_TRUE(left(name)) << name;
    EXPECT_NE(outcome.out.find(name), std::string::npos) << name;
  }
  const json result = summary();
  EXPECT_EQ(result["source"], "demo");
  EXPECT_EQ(result["seed"], 3);
  EXPECT_EQ(result["frame_width"], 160);
  EXPECT_EQ(result["frames"], 12);
  EXPECT_EQ(result["configuration"]["preposition"]["enabled"], true);
  EXPECT_EQ(result["configuration"]["target"]["class_id"], 7);
  EXPECT_EQ(result["demo"]["armed_s"], 0.08);
  EXPECT_EQ(result["properties"]["init_phase"], "ready");
  EXPECT_EQ(result["events"][0]["what"], "parked");
}

TEST_F(DemoProgram, WritesTruthAndViewWithEveryBox) {
  ASSERT_EQ(demo("--size 160x90 --seconds 0.2 --no-video").exit_code, 0);
  EXPECT_FALSE(left("annotated.mp4"));
  const auto frames = lines();
  ASSERT_EQ(frames.size(), 5u);
  EXPECT_EQ(frames[2]["time_s"], 0.08);
  EXPECT_EQ(frames[2]["truth"].size(), 4u);
  EXPECT_GT(frames[2]["visible_share"], 0.9);
  EXPECT_EQ(frames[2]["in_view_share"], 1.0);
  EXPECT_EQ(frames[2]["hfov_deg"], 26.0);
  for (const char* key : {"pan_deg", "tilt_deg", "vfov_deg"}) EXPECT_TRUE(frames[2][key].is_number()) << key;
}

TEST_F(DemoProgram, TellsItsStoryOnceWithoutATerminal) {
  const Outcome outcome = demo("--size 160x90 --seconds 0.4 --no-video");
  EXPECT_EQ(outcome.err, "");
  const char* lines[] = {"   0.00 s  event   parked\n",
                         "   0.00 s  status  init_deferred_waiting_update\n",
                         "   0.00 s  phase   waiting_first_update\n",
                         "   0.00 s  status  init_warmup_started\n",
                         "   0.00 s  phase   warming_up\n",
                         "   0.04 s  status  update_skip_warming_up\n",
                         "   0.08 s  status  track_ok\n",
                         "   0.08 s  phase   ready\n",
                         "   0.24 s  status  track_fail_hold\n"};
  std::size_t at = 0;
  for (const char* line : lines) {
    const std::size_t found = outcome.out.find(line, at);
    ASSERT_NE(found, std::string::npos) << line << "\n" << outcome.out;
    at = found + 1;
  }
}

TEST_F(DemoProgram, LetsTheUserOverrideWhatItSets) {
  ASSERT_EQ(demo("--size 160x90 --seconds 0.04 --no-video --set preposition/enabled=false "
                 "--set runtime/dead_timeout_s=5")
                .exit_code,
            0);
  const json configuration = summary()["configuration"];
  EXPECT_EQ(configuration["preposition"], json::parse(R"({"enabled":false})"));
  EXPECT_EQ(configuration["runtime"], json::parse(R"({"dead_timeout_s":5})"));
  EXPECT_EQ(configuration["publication"], json::parse(R"({"lost_score_threshold":0.4})")) << "the rest stays";
}

TEST_F(DemoProgram, RendersTheSameWorldForTheSameSeed) {
  const auto truth = [&](const char* words) {
    EXPECT_EQ(demo(std::string("--size 160x90 --seconds 0.04 --no-video ") + words).exit_code, 0);
    const json first = lines().at(0);
    return std::make_pair(first["truth"], first["pan_deg"]);
  };
  EXPECT_EQ(truth("--seed 4"), truth("--seed 4"));
  EXPECT_NE(truth("--seed 4").second, truth("--seed 5").second);
}

TEST_F(DemoProgram, EndsInOneLineForBadOptions) {
  const struct {
    const char* words;
    std::string message;
  } rows[] = {
      {"--size 960", "'960' is no size: WxH is needed, such as 640x360"},
      {"--size 10x10", "a world's sides are 64 to 1920 pixels"},
      {"--size 960x99999", "a world's sides are 64 to 1920 pixels"},
      {"--config no.json", "the configuration 'no.json' cannot be read"},
      {"--set nonsense", "'nonsense' is no setting: path=value is needed"},
      {"--plugin no.so", "no plug-in at 'no.so'"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.words);
    expect_bad_input(run(std::string("demo ") + row.words + " --out " + folder_.path("out")), row.message);
  }
  for (const char* words :
       {"--seconds 0", "--seconds x", "--seed -1", "--seed x", "--frames 3", "clip.mp4"}) {
    const Outcome outcome = demo(words);
    EXPECT_EQ(outcome.exit_code, 2) << words;
    EXPECT_EQ(outcome.err.rfind("ostrel_host: ", 0), 0u) << outcome.err;
    EXPECT_EQ(outcome.err.find('\n'), outcome.err.size() - 1) << outcome.err;
  }
  expect_bad_input(
      run("demo --plugin " + std::string(OSTREL_SCRIPTED_PLUGIN) + " --out " + folder_.file("f", "")),
      "the folder '" + folder_.path("f") + "' cannot be made");
}

TEST_F(DemoProgram, GivesTheCauseWhereTrackingCannotStart) {
  const Outcome outcome = demo("--size 160x90 --seconds 1 --no-video --engine broken");
  EXPECT_EQ(outcome.exit_code, 2);
  EXPECT_EQ(outcome.err,
            "ostrel_host: tracking could not start: init_async_fail (initialize failed: scripted)\n");
}

}  // namespace
