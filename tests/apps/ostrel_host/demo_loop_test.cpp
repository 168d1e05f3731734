// The whole loop with the plug-in itself: it asks the camera for a view, the view arrives, it teleports and tracks.
#include <gtest/gtest.h>
#include <trunk_writer.h>

#include <algorithm>
#include <cmath>

#include "apps/ostrel_host/program_runner.h"

namespace {

using nlohmann::json;
using ostrel_test::Outcome;

constexpr int kWidth_px = 480;
constexpr int kHeight_px = 270;

class DemoLoop : public ostrel_test::ProgramTest {
 protected:
  // A trunk with random weights.
  std::string engine() const {
    ostrel::backbone::TrunkOptions options;
    options.seed = 1;
    options.outputs = ostrel::backbone::TrunkOutputs::kLayer2;
    std::string error;
    EXPECT_TRUE(write_trunk(options, folder_.path("random.onnx"), &error)) << error;
    return folder_.path("random.onnx");
  }

  // The texts of the story's lines of one kind, in their order.
  static std::vector<std::string> told(const Outcome& outcome, const std::string& kind) {
    std::vector<std::string> texts;
    std::istringstream stream(outcome.out);
    for (std::string line; std::getline(stream, line);) {
      const std::size_t at = line.find(" s  " + kind + "  ");
      if (at == std::string::npos) continue;
      const std::string text = line.substr(line.find_first_not_of(' ', at + 4 + kind.size()));
      texts.push_back(text.substr(0, text.find(' ')));
    }
    return texts;
  }

  // How far the target's middle is off the picture's, in shares of its sides.
  static double off_centre(const json& line) {
    const auto& box = line["truth"];
    const double x = (box[0].get<double>() + 0.5 * box[2].get<double>()) / kWidth_px - 0.5;
    const double y = (box[1].get<double>() + 0.5 * box[3].get<double>()) / kHeight_px - 0.5;
    return std::max(std::abs(x), std::abs(y));
  }
};

TEST_F(DemoLoop, AsksForTheViewWaitsForItTeleportsAndTracks) {
  const std::string size = std::to_string(kWidth_px) + "x" + std::to_string(kHeight_px);
  const Outcome outcome = run("demo --no-video --seconds 6 --size " + size + " --engine " + engine() +
                              " --out " + folder_.path("out"));
  ASSERT_EQ(outcome.exit_code, 0) << outcome.err;

  auto words = told(outcome, "status");
  ASSERT_GE(words.size(), 5u) << outcome.out;
  EXPECT_EQ(words[0], "init_deferred_waiting_alignment");
  EXPECT_EQ(words[1], "init_warmup_started");
  // A fast gimbal is there before the start-up is through, a slow one after it.
  words.erase(std::remove_if(words.begin(), words.end(),
                             [](const std::string& word) {
                               return word == "update_skip_warming_up" || word == "wait_alignment";
                             }),
              words.end());
  EXPECT_EQ(words[2], "init_ok") << outcome.out;
  EXPECT_EQ(words[3], "teleport_ok") << outcome.out;
  EXPECT_EQ(words[4], "track_ok") << outcome.out;

  const auto phases = told(outcome, "phase");
  ASSERT_GE(phases.size(), 3u);
  EXPECT_EQ(phases.front(), "waiting_alignment");
  EXPECT_EQ(phases[1], "warming_up");
  EXPECT_EQ(phases.back(), "ready");
}

TEST_F(DemoLoop, HasTheTargetInTheMiddleOfTheViewWhenItArms) {
  const std::string size = std::to_string(kWidth_px) + "x" + std::to_string(kHeight_px);
  ASSERT_EQ(run("demo --no-video --seconds 6 --size " + size + " --engine " + engine() + " --out " +
                folder_.path("out"))
                .exit_code,
            0);
  const auto frames = lines();
  EXPECT_GT(off_centre(frames.front()), 0.2);
  const auto armed =
      std::find_if(frames.begin(), frames.end(), [](const json& line) { return line["phase"] == "ready"; });
  ASSERT_NE(armed, frames.end());
  // Within the plug-in's own limit of a twentieth of the view, and what a linear map of the view errs by.
  EXPECT_LT(off_centre(*armed), 0.08);
  EXPECT_FALSE((*armed)["x"].is_null());
  EXPECT_TRUE(summary()["demo"]["armed_s"].is_number());
}

}  // namespace
