// Figures, means and spreads of an evaluation, and how they are written.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ostrel_host/bad_input.h>
#include <ostrel_host/eval_files.h>
#include <ostrel_host/eval_plots.h>
#include <ostrel_host/eval_statistics.h>
#include <ostrel_host/eval_table.h>
#include <ostrel_host/time_left.h>

#include <cmath>
#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>
#include <sstream>

#include "support/temporary_folder.h"

namespace {

using namespace ostrel_host;
using nlohmann::json;
using ostrel_test::content_of;
using testing::ElementsAre;

EvalRecord record(const std::string& sequence, const std::string& tracker, int run, double auc) {
  EvalRecord made;
  made.sequence = sequence;
  made.tracker = tracker;
  made.run = run;
  made.frames = 12;
  made.accuracy.frames = 10;
  made.accuracy.success_auc = auc;
  made.accuracy.precision_20px = auc / 2;
  made.accuracy.success.fill(auc);
  made.accuracy.precision.fill(auc / 2);
  made.start_up_ms = 250.0;
  return made;
}

// Two sequences, one of them long gone wrong, in two runs.
std::vector<EvalRecord> two_runs() {
  return {record("a", "t", 1, 0.2), record("b", "t", 1, 0.6), record("a", "t", 2, 0.4),
          record("b", "t", 2, 1.0)};
}

Sequence four_frames() {
  Sequence sequence;
  sequence.name = "s";
  sequence.truth = {{0, 0, 10, 10}, {0, 0, 10, 10}, {}, {0, 0, 10, 10}};
  return sequence;
}

TEST(JudgedPass, CountsMissesHeldAndHiddenFrames) {
  Pass pass;
  pass.start_up_ms = 120.0;
  pass.frames = {
      {{0, 0, 10, 10}, false, 10.0}, {{0, 0, 10, 5}, true, 30.0}, {{}, false, 20.0}, {{}, false, 20.0}};
  pass.own_boxes = std::vector<cv::Rect2d>(4, {0, 0, 10, 10});
  const EvalRecord judged = judge_pass(pass, four_frames(), "t", 3);
  EXPECT_EQ(judged.sequence, "s");
  EXPECT_EQ(judged.tracker, "t");
  EXPECT_EQ(judged.run, 3);
  EXPECT_EQ(judged.frames, 4U);
  EXPECT_EQ(judged.accuracy.frames, 3U) << "the frame without a true box is left out";
  // 20 of 21 thresholds for the first, 10 for half a box, none without one.
  EXPECT_DOUBLE_EQ(judged.accuracy.success_auc, 30.0 / 21.0 / 3.0);
  EXPECT_DOUBLE_EQ(judged.accuracy.precision_20px, 2.0 / 3.0);
  EXPECT_DOUBLE_EQ(judged.accuracy.above_half, 1.0 / 3.0);
  EXPECT_DOUBLE_EQ(judged.own_accuracy->success_auc, 20.0 / 21.0);
  EXPECT_DOUBLE_EQ(judged.held, 0.25);
  EXPECT_DOUBLE_EQ(judged.hidden, 0.5);
  EXPECT_DOUBLE_EQ(*judged.fps, 50.0) << "over the mean of 20 ms";
  EXPECT_EQ(judged.start_up_ms, 120.0);
}

TEST(JudgedPass, LeavesOutFramesWithoutACallFromTheRate) {
  Pass pass;
  pass.frames = {{{0, 0, 10, 10}, false, std::nullopt}, {{0, 0, 10, 10}, false, 4.0}};
  EXPECT_DOUBLE_EQ(*judge_pass(pass, four_frames(), "t", 1).fps, 250.0);
  EXPECT_FALSE(judge_pass(pass, four_frames(), "t", 1).own_accuracy);
  pass.frames.pop_back();
  EXPECT_FALSE(judge_pass(pass, four_frames(), "t", 1).fps);
}

TEST(Spread, IsTheSampleStandardDeviation) {
  EXPECT_FALSE(spread_of({}));
  EXPECT_EQ(spread_of({3.0})->mean, 3.0);
  EXPECT_FALSE(spread_of({3.0})->deviation) << "one value has none";
  const Spread spread = *spread_of({2.0, 4.0, 4.0, 4.0, 5.0, 5.0, 7.0, 9.0});
  EXPECT_DOUBLE_EQ(spread.mean, 5.0);
  EXPECT_DOUBLE_EQ(*spread.deviation, std::sqrt(32.0 / 7.0));
}

TEST(EvalRows, GiveMeansPerSequenceAndOverAll) {
  const auto rows = eval_rows(two_runs(), {"a", "b"}, {"t"});
  ASSERT_EQ(rows.size(), 3U);
  EXPECT_EQ(rows[0].sequence, "a");
  EXPECT_EQ(rows[0].runs, 2U);
  EXPECT_DOUBLE_EQ(rows[0].figures[0]->mean, 0.3);
  EXPECT_NEAR(*rows[0].figures[0]->deviation, 0.1 * std::sqrt(2.0), 1e-12);
  EXPECT_EQ(rows[2].sequence, "");
  EXPECT_EQ(rows[2].sequences, 2U);
  EXPECT_EQ(rows[2].frames, 20U);
  EXPECT_NEAR(rows[2].figures[0]->mean, 0.55, 1e-12);
  // The runs' means are 0.4 and 0.7.
  EXPECT_NEAR(*rows[2].figures[0]->deviation, 0.15 * std::sqrt(2.0), 1e-12);
  EXPECT_FALSE(rows[2].figures[3]) << "no rate was measured";
}

TEST(EvalRows, TakeTheSpreadOfTheMeanFromWholeRunsAlone) {
  auto records = two_runs();
  records.push_back(record("a", "t", 3, 0.9));  // run 3 was broken off
  const auto rows = eval_rows(records, {"a", "b"}, {"t"});
  EXPECT_EQ(rows[2].runs, 2U);
  EXPECT_NEAR(*rows[2].figures[0]->deviation, 0.15 * std::sqrt(2.0), 1e-12);
  EXPECT_NEAR(rows[2].figures[0]->mean, (0.5 + 0.8) / 2, 1e-12);

  const auto part = eval_rows({record("a", "t", 1, 0.2), record("a", "t", 2, 0.4)}, {"a", "b"}, {"t", "u"});
  ASSERT_EQ(part.size(), 2U) << "nothing for what has no record";
  EXPECT_EQ(part[1].sequences, 1U);
  EXPECT_EQ(part[1].runs, 0U);
  EXPECT_FALSE(part[1].figures[0]->deviation);
}

TEST(EvalCurves, AreMeansOverSequencesOfMeansOverRuns) {
  auto records = two_runs();
  records.pop_back();  // "b" has one run: 0.6
  const auto curves = eval_curves(records, {"a", "b"}, {"t", "u"});
  ASSERT_EQ(curves.size(), 1U);
  EXPECT_NEAR(curves[0].success[7], (0.3 + 0.6) / 2, 1e-12);
  EXPECT_NEAR(curves[0].precision[50], (0.15 + 0.3) / 2, 1e-12);
}

TEST(EvalTable, IsMarkdownWithSpreadsAndGaps) {
  const auto rows = eval_rows(two_runs(), {"a", "b"}, {"t"});
  std::istringstream table(eval_table(rows, 2));
  std::string heading, rule, first, second, mean;
  std::getline(table, heading);
  std::getline(table, rule);
  std::getline(table, first);
  std::getline(table, second);
  std::getline(table, mean);
  EXPECT_EQ(heading,
            "| sequence | tracker | frames |          AUC |         P@20 |    IoU > 0.5 | own AUC | fps | "
            "start ms |         held |       hidden |");
  EXPECT_EQ(first,
            "| a        | t       |     10 | 0.300 \u00b10.141 | 0.150 \u00b10.071 | 0.000 \u00b10.000 |     "
            "  - |   - | "
            "  250 \u00b10 | 0.000 \u00b10.000 | 0.000 \u00b10.000 |");
  EXPECT_EQ(mean.rfind("| mean     | t       |     20 | 0.550 \u00b10.212 |", 0), 0U) << mean;
  EXPECT_EQ(rule.size(), heading.size());
  EXPECT_THAT(rule, testing::HasSubstr("-----:|"));
}

TEST(EvalTable, SaysOverHowManySequencesAMeanIs) {
  const auto rows = eval_rows({record("a", "t", 1, 0.2)}, {"a", "b"}, {"t"});
  EXPECT_THAT(eval_table(rows, 2), testing::HasSubstr("| mean of 1 |"));
  EXPECT_THAT(eval_table(rows, 2), testing::HasSubstr("| 0.200 |")) << "one run has no spread";
}

TEST(Csv, HasARowPerPass) {
  EXPECT_EQ(
      csv_header(),
      "sequence,tracker,run,frames,counted,success_auc,precision_20px,above_half,fps,start_up_ms,held,hidden,"
      "own_success_auc,own_precision_20px,own_above_half");
  EvalRecord row = record("a", "t", 2, 0.5);
  row.hidden = 0.125;
  EXPECT_EQ(csv_line(row), "a,t,2,12,10,0.5,0.25,0,,250,0,0.125,,,");
  row.fps = 12.3456789;
  row.own_accuracy = row.accuracy;
  EXPECT_EQ(csv_line(row), "a,t,2,12,10,0.5,0.25,0,12.3457,250,0,0.125,0.5,0.25,0");
}

TEST(Csv, QuotesCellsThatNeedIt) {
  EXPECT_EQ(csv_line(record("car, \"red\"", "t", 1, 1)).rfind("\"car, \"\"red\"\"\",t,1,", 0), 0U);
}

TEST(EvalJson, HoldsFiguresCurvesAndNulls) {
  EvalRecord row = record("a", "t", 1, 0.5);
  const json pass = record_json(row);
  EXPECT_EQ(pass["success_auc"], 0.5);
  EXPECT_TRUE(pass["fps"].is_null());
  EXPECT_TRUE(pass["own_success_auc"].is_null());
  EXPECT_EQ(pass["success"].size(), 21U);
  EXPECT_EQ(pass["precision"].size(), 51U);
  const auto rows = eval_rows(two_runs(), {"a", "b"}, {"t"});
  EXPECT_NEAR(row_json(rows[0])["success_auc"]["mean"].get<double>(), 0.3, 1e-12);
  EXPECT_GT(row_json(rows[0])["success_auc"]["deviation"], 0.14);
  EXPECT_TRUE(row_json(rows[0])["fps"].is_null());
  EXPECT_TRUE(row_json(rows[2])["sequence"].is_null());
  const auto single = eval_rows({row}, {"a"}, {"t"});
  EXPECT_TRUE(row_json(single[0])["success_auc"]["deviation"].is_null());
}

TEST(EvalFiles, KeepWhatIsFinishedAtOnce) {
  const ostrel_test::TemporaryFolder folder;
  EvalFiles files(folder.path() / "out");
  EXPECT_EQ(content_of(folder.path("out/eval.csv")), csv_header() + "\n");
  Pass pass;
  pass.frames = {{{1, 2, 3, 4}, false, 10.0}, {{}, false, 10.0}};
  pass.own_boxes = {{1.25, 2, 3, 4}, {1.5, 2, 3, 4}};
  pass.records = {{{"frame", 0}}, {{"frame", 1}}};
  const EvalRecord row = record("s", "t", 1, 0.5);
  files.write_pass(pass, row);
  EXPECT_EQ(content_of(folder.path("out/eval.csv")), csv_header() + "\n" + csv_line(row) + "\n");
  EXPECT_EQ(content_of(folder.path("out/boxes/t/s-run1.txt")), "1,2,3,4\nnan,nan,nan,nan\n");
  EXPECT_EQ(content_of(folder.path("out/boxes/t/s-run1.own.txt")), "1.25,2,3,4\n1.5,2,3,4\n");
  EXPECT_EQ(content_of(folder.path("out/boxes/t/s-run1.jsonl")), "{\"frame\":0}\n{\"frame\":1}\n");
  folder.file("file", "");
  EXPECT_THROW(EvalFiles(folder.path() / "file"), BadInput);
}

TEST(EvalFiles, TakeAwayAnEarlierReport) {
  const ostrel_test::TemporaryFolder folder;
  for (const char* name : {"out/eval.json", "out/success.png", "out/precision.png", "out/notes.txt"}) {
    std::filesystem::create_directories(folder.path() / "out");
    folder.file(name, "of before");
  }
  const EvalFiles files(folder.path() / "out");
  for (const char* name : {"eval.json", "success.png", "precision.png"}) {
    EXPECT_FALSE(std::filesystem::exists(files.folder() / name)) << name;
  }
  EXPECT_EQ(content_of(folder.path("out/notes.txt")), "of before");
}

EvalCurves curves(const std::string& tracker, double value, double at_20px) {
  EvalCurves made{tracker, {}, {}};
  made.success.fill(value);
  made.precision.fill(at_20px);
  return made;
}

TEST(EvalPlots, HaveATablePerFigureWithTheBestFirst) {
  const PlotTable success = success_table({curves("low", 0.25, 0.9), curves("high", 0.75, 0.1)});
  EXPECT_THAT(success.columns, ElementsAre("overlap", "high", "low"));
  ASSERT_EQ(success.rows.size(), 21U);
  EXPECT_THAT(success.rows[1], ElementsAre(testing::DoubleEq(0.05), 0.75, 0.25));
  EXPECT_EQ(success.rows[20][0], 1.0);
  const PlotTable precision = precision_table({curves("low", 0.25, 0.9), curves("high", 0.75, 0.1)});
  EXPECT_THAT(precision.columns, ElementsAre("distance_px", "low", "high"));
  ASSERT_EQ(precision.rows.size(), 51U);
  EXPECT_EQ(precision.rows[20][0], 20.0);
}

TEST(EvalPlots, AreDrawnAsPicturesForAnyNumberOfTrackersAndAnyName) {
  const ostrel_test::TemporaryFolder folder;
  std::vector<EvalCurves> many;
  for (int i = 0; i < 12; ++i) many.push_back(curves("it's_{" + std::to_string(i), 0.05 * i, 0.5));
  ASSERT_EQ(draw_eval_plots(folder.path(), many), "");
  for (const char* name : {"success.png", "precision.png"}) {
    EXPECT_EQ(content_of(folder.path(name)).substr(1, 3), "PNG");
    EXPECT_EQ(cv::imread(folder.path(name)).size(), cv::Size(960, 720)) << name;
  }
  EXPECT_THAT(content_of(folder.path("success.gp")), testing::HasSubstr("[0.550]")) << "the best one's AUC";
  EXPECT_EQ(draw_eval_plots(folder.path(), {}), "no results");
}

TEST(TimeLeft, KnowsThePaceOfEachTracker) {
  TimeLeft left;
  left.add_work("slow", 10);
  left.add_work("fast", 10);
  EXPECT_LT(left.left_s(), 0.0) << "nothing is known yet";
  EXPECT_EQ(left.total(), 20U);
  left.frame_done("slow", 2.0);
  EXPECT_DOUBLE_EQ(left.left_s(), 9 * 2.0 + 10 * 2.0) << "the other counts with the mean";
  left.frame_done("fast", 0.5);
  EXPECT_DOUBLE_EQ(left.left_s(), 9 * 2.0 + 9 * 0.5);
  EXPECT_EQ(left.done(), 2U);
  for (int i = 0; i < 9; ++i) left.frame_done("slow", 2.0);
  EXPECT_DOUBLE_EQ(left.left_s(), 9 * 0.5);
}

}  // namespace
