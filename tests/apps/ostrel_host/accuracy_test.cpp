#include <gtest/gtest.h>
#include <ostrel_host/accuracy.h>
#include <ostrel_host/bad_input.h>

#include <cmath>

#include "support/temporary_folder.h"

namespace {

using namespace ostrel_host;
using Boxes = std::vector<cv::Rect2d>;

TEST(Overlap, IsIntersectionOverUnion) {
  EXPECT_DOUBLE_EQ(overlap({0, 0, 10, 10}, {0, 0, 10, 10}), 1.0);
  EXPECT_DOUBLE_EQ(overlap({0, 0, 10, 10}, {5, 0, 10, 10}), 50.0 / 150.0);
  EXPECT_DOUBLE_EQ(overlap({0, 0, 10, 10}, {2, 2, 5, 4}), 0.2);
  EXPECT_EQ(overlap({0, 0, 10, 10}, {10, 0, 10, 10}), 0.0);
  EXPECT_EQ(overlap({0, 0, 10, 10}, {0, 0, 0, 10}), 0.0);
}

// 0.1 + 0.2 - 0.1 is more than 0.2.
TEST(Overlap, OfABoxWithItselfIsNoMoreThanOneWhereNumbersAreRounded) {
  const cv::Rect2d box{0.1, 0.1, 0.2, 0.2};
  EXPECT_EQ(overlap(box, box), 1.0);
  EXPECT_DOUBLE_EQ(score_boxes({box}, {box}).success_auc, 20.0 / 21.0);
}

TEST(CentreDistance, IsEuclidean) {
  EXPECT_DOUBLE_EQ(centre_distance_px({0, 0, 10, 10}, {3, 4, 10, 10}), 5.0);
  EXPECT_DOUBLE_EQ(centre_distance_px({0, 0, 10, 10}, {-5, -5, 20, 20}), 0.0);
}

TEST(Score, CountsAnOverlapOnlyAboveEachThreshold) {
  const Boxes truth{{0, 0, 10, 10}};
  EXPECT_DOUBLE_EQ(score_boxes(truth, truth).success_auc, 20.0 / 21.0) << "nothing is above 1";
  EXPECT_DOUBLE_EQ(score_boxes({{100, 0, 10, 10}}, truth).success_auc, 0.0);
  // Half a box: 0.5 is above 0, 0.05 .. 0.45, and not above 0.5.
  const AccuracyReport half = score_boxes({{0, 0, 10, 5}}, truth);
  EXPECT_DOUBLE_EQ(half.success_auc, 10.0 / 21.0);
  EXPECT_EQ(half.above_half, 0.0);
}

TEST(Score, CountsCentresUpToTwentyPixels) {
  const Boxes truth(3, {100, 100, 10, 10});
  const AccuracyReport report =
      score_boxes({{120, 100, 10, 10}, {120.01, 100, 10, 10}, {112, 116, 10, 10}}, truth);
  EXPECT_DOUBLE_EQ(report.precision_20px, 2.0 / 3.0);
}

TEST(Score, LeavesOutFramesWithoutATargetAndTheLongerRest) {
  const Boxes truth{{0, 0, 10, 10}, {0, 0, 0, 0}, {0, 0, 10, 10}};
  const AccuracyReport report = score_boxes({{0, 0, 10, 10}, {50, 50, 10, 10}}, truth);
  EXPECT_EQ(report.frames, 1u);
  EXPECT_EQ(report.precision_20px, 1.0);
  EXPECT_EQ(score_boxes({}, truth).frames, 0u);
  EXPECT_EQ(score_boxes({}, truth).success_auc, 0.0);
}

TEST(Score, CountsAFrameWithoutABoxAsAMissWhereverTheTargetIs) {
  const Boxes truth{{0, 0, 10, 10}, {100, 100, 10, 10}};
  const AccuracyReport report = score_boxes({{}, {100, 100, 10, 10}}, truth);
  EXPECT_EQ(report.frames, 2u);
  EXPECT_EQ(report.precision_20px, 0.5) << "no box is not near the picture's corner";
  EXPECT_EQ(report.above_half, 0.5);
  EXPECT_DOUBLE_EQ(report.success_auc, 10.0 / 21.0);
}

TEST(Score, LeavesOutATruthOfNegativeSize) {
  EXPECT_EQ(score_boxes({{0, 0, 10, 10}, {0, 0, 10, 10}}, {{0, 0, -1, 10}, {-1, -1, -1, -1}}).frames, 0u);
}

TEST(Score, HasACurvePerFigure) {
  const Boxes truth(2, {100, 100, 10, 10});
  // Half of the first; the second lies 30 px away.
  const AccuracyReport report = score_boxes({{100, 100, 10, 5}, {130, 100, 10, 10}}, truth);
  EXPECT_EQ(report.success[0], 0.5);
  EXPECT_EQ(report.success[9], 0.5);
  EXPECT_EQ(report.success[10], 0.0) << "0.5 is not above 0.5";
  EXPECT_EQ(report.precision[2], 0.0);
  EXPECT_EQ(report.precision[3], 0.5) << "2.5 px";
  EXPECT_EQ(report.precision[29], 0.5);
  EXPECT_EQ(report.precision[30], 1.0);
}

// The plain double loop over random boxes.
TEST(Score, AgreesWithTheDefinitionOnRandomBoxes) {
  cv::RNG random(5);
  Boxes boxes, truth;
  for (int i = 0; i < 200; ++i) {
    truth.emplace_back(random.uniform(0.0, 50.0), random.uniform(0.0, 50.0), random.uniform(5.0, 40.0),
                       random.uniform(5.0, 40.0));
    boxes.emplace_back(truth.back().x + random.uniform(-20.0, 20.0),
                       truth.back().y + random.uniform(-20.0, 20.0), random.uniform(5.0, 40.0),
                       random.uniform(5.0, 40.0));
  }
  double auc = 0, precision = 0;
  for (int step = 0; step <= 20; ++step) {
    double share = 0;
    for (std::size_t i = 0; i < 200; ++i) {
      const double shared = (boxes[i] & truth[i]).area();
      share += shared / (boxes[i].area() + truth[i].area() - shared) > step * 0.05 ? 1.0 / 200 : 0;
    }
    auc += share / 21;
  }
  for (std::size_t i = 0; i < 200; ++i) {
    const double dx = boxes[i].x + boxes[i].width / 2 - truth[i].x - truth[i].width / 2;
    const double dy = boxes[i].y + boxes[i].height / 2 - truth[i].y - truth[i].height / 2;
    precision += std::sqrt(dx * dx + dy * dy) <= 20 ? 1.0 / 200 : 0;
  }
  const AccuracyReport report = score_boxes(boxes, truth);
  EXPECT_NEAR(report.success_auc, auc, 1e-9);
  EXPECT_NEAR(report.precision_20px, precision, 1e-9);
  EXPECT_GT(auc, 0.1);
}

TEST(BoxFile, ReadsEveryLineAsABoxOrNone) {
  const struct {
    const char* reason;
    const char* line;
    cv::Rect2d box;
  } rows[] = {
      {"commas", "1,2,3,4", {1, 2, 3, 4}},
      {"commas and blanks", "1, 2 , 3 ,4", {1, 2, 3, 4}},
      {"tabs", "1\t2\t3\t4", {1, 2, 3, 4}},
      {"blanks in a row", "  1   2  3 4  ", {1, 2, 3, 4}},
      {"another system's end of line", "1,2,3,4\r", {1, 2, 3, 4}},
      {"fractions", "5.5,-6.25,7,8e1", {5.5, -6.25, 7, 80}},
      {"zeros stand for no target", "0,0,0,0", {}},
      {"so do words for no number", "NaN,NaN,NaN,NaN", {}},
      {"in any case", "nan NAN nan nan", {}},
      {"one is enough", "10,20,nan,30.5", {}},
      {"with what some systems say of it", "-nan(ind),1,2,3", {}},
      {"and an empty line", "", {}},
      {"or a blank one", " \t\r", {}},
  };
  const ostrel_test::TemporaryFolder folder;
  for (const auto& row : rows) {
    const Boxes boxes = read_boxes(folder.file("boxes.txt", std::string(row.line) + "\n9,9,9,9\n"));
    ASSERT_EQ(boxes.size(), 2u) << row.reason;
    EXPECT_EQ(boxes[0], row.box) << row.reason;
  }
}

TEST(BoxFile, EndsWithItsLastLineThatIsNotEmpty) {
  const ostrel_test::TemporaryFolder folder;
  EXPECT_EQ(read_boxes(folder.file("boxes.txt", "1,2,3,4\n\n5,6,7,8\r\n\r\n\n")).size(), 3u);
  EXPECT_EQ(read_boxes(folder.file("open.txt", "1,2,3,4\n5,6,7,8")).size(), 2u);
}

TEST(BoxFile, RefusesWhatIsNoListOfBoxes) {
  const ostrel_test::TemporaryFolder folder;
  EXPECT_THROW(read_boxes(folder.path("missing.txt")), BadInput);
  EXPECT_THROW(read_boxes(folder.file("empty.txt", "\n")), BadInput);
  for (const char* line :
       {"hello", "banana", "1,2,nanometres,4", "1,2,3", "1,2,3,4,5", "1,,2,3", "1,2,3,inf", "1;2;3;4;x"}) {
    const std::string file = folder.file("bad.txt", std::string("1,2,3,4\n") + line + "\n");
    try {
      read_boxes(file);
      ADD_FAILURE() << line;
    } catch (const BadInput& failure) {
      EXPECT_EQ(failure.what(), "line 2 of '" + file + "' is no box: x,y,w,h is needed");
    }
  }
}

}  // namespace
