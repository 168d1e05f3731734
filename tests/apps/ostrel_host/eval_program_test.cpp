// ostrel_host eval, run as a user runs it, with a plug-in that follows a script and OpenCV's trackers.
#include <gtest/gtest.h>
#include <ostrel_host/accuracy.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>

#include "apps/ostrel_host/program_runner.h"

namespace {

using nlohmann::json;
using ostrel_test::content_of;
using ostrel_test::Outcome;

class EvalProgram : public ostrel_test::ProgramTest {
 protected:
  static std::string plugin() { return std::string(" --plugin ") + OSTREL_SCRIPTED_PLUGIN; }

  Outcome eval(const std::string& words) const {
    return run("eval" + plugin() + " --fps 1000 --out " + folder_.path("out") + " " + words);
  }

  // Sequences "first" (12 frames) and "second" (7) below one folder.
  std::string sequences() const {
    rendered("all/first", {128, 96, 12, 2});
    rendered("all/second", {128, 96, 7, 3});
    return folder_.path("all");
  }

  json report() const { return json::parse(content_of(folder_.path("out/eval.json"))); }

  // The rows of eval.csv behind the heading.
  std::vector<std::string> rows() const {
    std::vector<std::string> all;
    std::istringstream stream(content_of(folder_.path("out/eval.csv")));
    for (std::string line; std::getline(stream, line);) all.push_back(line);
    if (!all.empty()) all.erase(all.begin());
    return all;
  }

  void expect_bad_input(const Outcome& outcome, const std::string& message) const {
    EXPECT_EQ(outcome.exit_code, 2);
    EXPECT_EQ(outcome.err, "ostrel_host: " + message + "\n");
    EXPECT_EQ(outcome.out, "");
    EXPECT_FALSE(std::filesystem::exists(folder_.path() / "out")) << "nothing was begun";
  }
};

TEST_F(EvalProgram, ComparesTrackersOnSequencesInOneTable) {
  const Outcome outcome = eval(sequences() + " --engine my.onnx --peer kcf,mosse --runs 2");
  ASSERT_EQ(outcome.exit_code, 0) << outcome.err;
  EXPECT_EQ(rows().size(), 2U * 2U * 3U);
  EXPECT_EQ(rows()[0].rfind("first,ostrel,1,12,12,", 0), 0U) << rows()[0];
  EXPECT_EQ(rows()[1].rfind("first,kcf,1,", 0), 0U) << rows()[1];
  EXPECT_EQ(rows()[6].rfind("first,ostrel,2,", 0), 0U) << "a whole run before the next";

  const json all = report();
  EXPECT_EQ(all["complete"], true);
  EXPECT_EQ(all["runs"], 2);
  EXPECT_EQ(all["paced_fps"], 1000.0);
  EXPECT_GE(all["opencv"]["threads"], 1);
  EXPECT_EQ(all["passes"].size(), 12U);
  EXPECT_EQ(all["rows"].size(), 2U * 3U + 3U);
  EXPECT_EQ(all["sequences"][1]["name"], "second");
  EXPECT_EQ(all["sequences"][1]["frames"], 7);
  EXPECT_EQ(all["trackers"][0]["engine"], "my.onnx");
  EXPECT_EQ(all["trackers"][1]["kind"], "opencv");
  // It holds every fifth frame, and the frames of each pass begin with a fresh plug-in.
  for (const std::size_t pass : {0U, 6U}) EXPECT_DOUBLE_EQ(all["passes"][pass]["held"], 2.0 / 12.0);
  EXPECT_DOUBLE_EQ(all["passes"][3]["held"], 1.0 / 7.0);
  EXPECT_EQ(all["passes"][0]["hidden"], 0.0);
  EXPECT_GT(all["passes"][0]["start_up_ms"], 0.0);
  EXPECT_EQ(all["passes"][0]["success_auc"], all["passes"][6]["success_auc"]);
  EXPECT_EQ(all["rows"][0]["success_auc"]["deviation"], 0.0);

  for (const char* part : {"| first", "| second", "| mean", "| kcf", "0.000 \u00b10.000",
                           "\u00b1 is the sample standard deviation", "threads; the peers' random numbers"}) {
    EXPECT_NE(outcome.out.find(part), std::string::npos) << part << "\n" << outcome.out;
  }
  EXPECT_NE(outcome.err.find("second, mosse, run 2\n"), std::string::npos) << "each task is told";
  for (const char* name : {"success.png", "precision.png"}) {
    EXPECT_FALSE(cv::imread(folder_.path("out/" + std::string(name))).empty()) << name;
  }
}

TEST_F(EvalProgram, JudgesTheBoxesThatItLeaves) {
  ASSERT_EQ(eval(sequences() + " --peer kcf").exit_code, 0);
  const json all = report();
  const auto truth = ostrel_host::read_boxes(folder_.path("all/first/groundtruth_rect.txt"));
  const auto score = [&](const std::string& name) {
    return ostrel_host::score_boxes(ostrel_host::read_boxes(folder_.path("out/boxes/" + name)), truth);
  };
  EXPECT_NEAR(score("ostrel/first-run1.txt").success_auc, all["passes"][0]["success_auc"], 1e-9);
  EXPECT_NEAR(score("ostrel/first-run1.own.txt").success_auc, all["passes"][0]["own_success_auc"], 1e-9);
  EXPECT_NEAR(score("kcf/first-run1.txt").success_auc, all["passes"][1]["success_auc"], 1e-9);
  const auto own = ostrel_host::read_boxes(folder_.path("out/boxes/ostrel/first-run1.own.txt"));
  const auto given = ostrel_host::read_boxes(folder_.path("out/boxes/ostrel/first-run1.txt"));
  EXPECT_NEAR(own[3].x, given[3].x + 0.25, 1e-3) << "published in whole pixels";
  std::istringstream lines(content_of(folder_.path("out/boxes/ostrel/first-run1.jsonl")));
  std::string line;
  for (int i = 0; i < 5; ++i) std::getline(lines, line);
  EXPECT_EQ(json::parse(line)["status"], "track_fail_hold");
  EXPECT_EQ(json::parse(line)["own"].size(), 4U);
  EXPECT_TRUE(std::filesystem::exists(folder_.path() / "out/tracker.log"));
}

// One scorer serves both commands: the same boxes give the same figures.
TEST_F(EvalProgram, AgreesWithTrackOnTheTrackersOwnBoxes) {
  sequences();
  const std::string clip = folder_.path("all/first"), truth = clip + "/groundtruth_rect.txt";
  ASSERT_EQ(eval(clip).exit_code, 0);
  const auto roi = report()["sequences"][0]["roi"];
  const std::string words = std::to_string(roi[0].get<int>()) + "," + std::to_string(roi[1].get<int>()) +
                            "," + std::to_string(roi[2].get<int>()) + "," + std::to_string(roi[3].get<int>());
  const double own = report()["passes"][0]["own_success_auc"];
  ASSERT_EQ(run("track " + clip + plugin() + " --no-video --wait-ready --roi " + words + " --groundtruth " +
                truth + " --out " + folder_.path("out"))
                .exit_code,
            0);
  EXPECT_DOUBLE_EQ(summary()["accuracy"]["success_auc"], own);
}

TEST_F(EvalProgram, ComparesSettingsAndEngines) {
  const std::string a = folder_.file("a.json", R"({"target":{"class_id":1}})");
  const Outcome outcome = eval(sequences() + " --frames 3 --variant plain= --variant a=" + a +
                               " --set learning/update_iterations=9 --engine x.onnx --engine y=z.onnx");
  ASSERT_EQ(outcome.exit_code, 0) << outcome.err;
  const json all = report();
  ASSERT_EQ(all["trackers"].size(), 4U);
  EXPECT_EQ(all["trackers"][3]["name"], "y+a");
  EXPECT_EQ(all["trackers"][3]["engine"], "z.onnx");
  EXPECT_EQ(all["trackers"][3]["configuration"]["target"]["class_id"], 1);
  EXPECT_EQ(all["trackers"][3]["configuration"]["learning"]["update_iterations"], 9);
  EXPECT_EQ(all["passes"][0]["frames"], 3);
  EXPECT_EQ(all["most_frames"], 3);
}

TEST_F(EvalProgram, LeavesOutFramesWithoutATrueBox) {
  sequences();
  folder_.file("all/first/groundtruth_rect.txt",
               "10,20,30,30\n0,0,0,0\nNaN,NaN,NaN,NaN\n\n10\t20\t-1\t30\n18 24 30 30\n");
  ASSERT_EQ(eval(folder_.path("all/first")).exit_code, 0);
  const json pass = report()["passes"][0];
  EXPECT_EQ(pass["frames"], 6) << "as many as there are lines";
  EXPECT_EQ(pass["counted"], 2);
  EXPECT_GT(pass["above_half"], 0.9);
}

TEST_F(EvalProgram, PacesThePluginAndNotThePeers) {
  sequences();
  const auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(run("eval" + plugin() + " --fps 20 --peer mosse --out " + folder_.path("out") + " " +
                folder_.path("all/first"))
                .exit_code,
            0);
  const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
  EXPECT_GE(taken.count(), 11 / 20.0);
  EXPECT_GT(report()["passes"][0]["fps"], 100.0) << "the pauses are not the tracker's";
}

TEST_F(EvalProgram, RefusesBadInputBeforeAnythingStarts) {
  const std::string good = sequences();
  folder_.file("all/second/img/00004.png", "no picture");
  std::filesystem::create_directory(folder_.path() / "nothing");
  folder_.file("c.json", R"({"learn":{}})");
  std::filesystem::create_directory(folder_.path() / "knot");
  std::filesystem::create_symlink("img", folder_.path() / "knot/img");
  const std::string first = folder_.path("all/first");
  const struct {
    std::string words, message;
  } cases[] = {
      {"", "folders is required"},
      {folder_.path("none"), "no such folder: '" + folder_.path("none") + "'"},
      {folder_.path("nothing"),
       "'" + folder_.path("nothing") +
           "' is no sequence and holds none: img and groundtruth_rect.txt are needed"},
      {folder_.path("knot"),
       "'" + folder_.path("knot/img") + "' cannot be read: Too many levels of symbolic links"},
      {good, "the picture '00004.png' of '" + folder_.path("all/second") + "' cannot be read"},
      {first + " --peer yolo", "'yolo' is no peer: csrt, kcf, mosse and mil are known"},
      {first + " --runs 0", "--runs: Value 0 not in range 1 to 1000"},
      {first + " --variant v=" + folder_.path("c.json"), "the plug-in knows no setting 'learn'"},
      {first + " --set learning/update_iterations=500",
       "the setting 'learning/update_iterations' is 500: 1 to 100 is allowed"},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.words);
    expect_bad_input(eval(row.words), row.message);
  }
}

TEST_F(EvalProgram, ReportsWhatIsFinishedWhereATrackerCannotStart) {
  const Outcome outcome = eval(sequences() + " --engine good.onnx --engine b=broken");
  EXPECT_EQ(outcome.exit_code, 2);
  EXPECT_NE(outcome.err.find("ostrel_host: 'b' on 'first': tracking could not start: init_async_fail "
                             "(initialize failed: scripted)\n"),
            std::string::npos)
      << outcome.err;
  EXPECT_EQ(report()["complete"], false);
  EXPECT_EQ(report()["passes"].size(), 1U);
  EXPECT_NE(outcome.out.find("broken off: 1 of 4 passes are finished"), std::string::npos);
}

TEST_F(EvalProgram, LeavesWhatWasFinishedWhenItIsInterrupted) {
  rendered("all/a", {128, 96, 2, 2});
  rendered("all/b", {128, 96, 60, 2});
  const std::string out = folder_.path("out");
  const std::string script = folder_.file(
      "interrupted.sh", std::string(OSTREL_HOST_PROGRAM) + " eval" + plugin() + " --fps 2 --out " + out +
                            " " + folder_.path("all") + " >" + folder_.path("printed") + " 2>" +
                            folder_.path("complaints") + " &\nprogram=$!\nfor _ in $(seq 600); do\n" +
                            "  grep -qs '^a,' " + out + "/eval.csv && break\n  sleep 0.1\ndone\n" +
                            "kill -INT $program\nwait $program\n");
  const int status = std::system(("sh " + script).c_str());
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 130) << content_of(folder_.path("complaints"));
  EXPECT_EQ(rows().size(), 1U);
  EXPECT_EQ(report()["complete"], false);
  EXPECT_EQ(report()["passes"].size(), 1U);
  EXPECT_NE(content_of(folder_.path("printed")).find("| mean of 1 |"), std::string::npos);
  EXPECT_TRUE(std::filesystem::exists(folder_.path() / "out/success.png"));
}

}  // namespace
