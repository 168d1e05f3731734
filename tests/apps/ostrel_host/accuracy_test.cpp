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

TEST(BoxFile, ReadsBoxesAndAbsentTargets) {
  const ostrel_test::TemporaryFolder folder;
  const Boxes boxes = read_boxes(folder.file("boxes.txt", "1,2,3,4\nNaN,NaN,NaN,NaN\n5.5\t6\t7\t8\r\n\n"));
  ASSERT_EQ(boxes.size(), 3u);
  EXPECT_EQ(boxes[0], cv::Rect2d(1, 2, 3, 4));
  EXPECT_EQ(boxes[1].width, 0.0);
  EXPECT_EQ(boxes[2], cv::Rect2d(5.5, 6, 7, 8));
}

TEST(BoxFile, RefusesWhatIsNoListOfBoxes) {
  const ostrel_test::TemporaryFolder folder;
  EXPECT_THROW(read_boxes(folder.path("missing.txt")), BadInput);
  EXPECT_THROW(read_boxes(folder.file("empty.txt", "\n")), BadInput);
  EXPECT_THROW(read_boxes(folder.file("words.txt", "1,2,3,4\nhello\n")), BadInput);
}

}  // namespace
