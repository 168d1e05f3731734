#include "ostrel_plugin/src/frame_geometry.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace {

using namespace ostrel_algo_internal;

constexpr std::int32_t kMax = std::numeric_limits<std::int32_t>::max();
constexpr std::int32_t kMin = std::numeric_limits<std::int32_t>::min();
constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

void expectBox(const BBox& box, std::int32_t x, std::int32_t y, std::int32_t w, std::int32_t h) {
  EXPECT_EQ(box.x, x);
  EXPECT_EQ(box.y, y);
  EXPECT_EQ(box.w, w);
  EXPECT_EQ(box.h, h);
}

TEST(ProcessingFrame, HalvesAFullHdPicture) {
  const ProcessingFrame frame = makeProcessingFrame(1920, 1080, 0.5F);
  EXPECT_EQ(frame.width, 960);
  EXPECT_EQ(frame.height, 540);
  EXPECT_FLOAT_EQ(frame.scale_x, 0.5F);
  EXPECT_FLOAT_EQ(frame.inverse_scale_y, 2.0F);
}

TEST(ProcessingFrame, LosesTheLastColumnAndRowOfAnOddSource) {
  const ProcessingFrame frame = makeProcessingFrame(1001, 777, 1.0F);
  EXPECT_EQ(frame.width, 1000);
  EXPECT_EQ(frame.height, 776);
  EXPECT_FLOAT_EQ(frame.scale_x, 1000.0F / 1001.0F);
  EXPECT_FLOAT_EQ(frame.scale_y, 776.0F / 777.0F);
  EXPECT_FLOAT_EQ(frame.inverse_scale_x, 1.0F / (1000.0F / 1001.0F));
}

TEST(ProcessingFrame, IsTwoPixelsForASourceOfOne) {
  const ProcessingFrame frame = makeProcessingFrame(1, 1, 0.4F);
  EXPECT_EQ(frame.width, 2);
  EXPECT_EQ(frame.height, 2);
  EXPECT_FLOAT_EQ(frame.scale_x, 2.0F);
  EXPECT_FLOAT_EQ(frame.inverse_scale_x, 0.5F);
}

TEST(ProcessingFrame, RoundsHalfUpBeforeItClearsTheLowestBit) {
  EXPECT_EQ(makeProcessingFrame(7, 9, 0.5F).width, 4);   // 3.5 rounds to 4
  EXPECT_EQ(makeProcessingFrame(7, 9, 0.5F).height, 4);  // 4.5 rounds to 5
}

TEST(ProcessingFrame, NeverExceedsTheSource) {
  EXPECT_EQ(makeProcessingFrame(100, 100, 3.0F).width, 100);
  EXPECT_EQ(makeProcessingFrame(kMax, 4, 1.0F).width, kMax - 1);
}

TEST(ProcessingFrame, HasAFixedInverseForAVanishingScale) {
  EXPECT_FLOAT_EQ(makeProcessingFrame(kMax, 4, 0.0F).inverse_scale_x, 1e6F);
}

TEST(ScaleToProcessing, ScalesEachMemberAndRounds) {
  expectBox(scaleToProcessing({10, 10, 50, 50}, 0.5F, 0.5F, 960, 540), 5, 5, 25, 25);
  expectBox(scaleToProcessing({5, 7, 11, 13}, 0.5F, 0.5F, 960, 540), 3, 4, 6, 7);  // halves away from zero
}

TEST(ScaleToProcessing, KeepsTheSizeOfABoxThatCrossesTheEdge) {
  expectBox(scaleToProcessing({90, -20, 30, 40}, 1.0F, 1.0F, 100, 100), 70, 0, 30, 40);
}

TEST(ScaleToProcessing, RaisesVanishingSidesToOne) {
  expectBox(scaleToProcessing({4, 4, 1, 1}, 0.4F, 0.4F, 40, 40), 2, 2, 1, 1);
}

TEST(ScaleToProcessing, WrapsWhatDoesNotFitInto32Bits) {
  // 2147483647 becomes 2147483648 as a float, twice that 4294967296, which wraps to 0.
  expectBox(scaleToProcessing({kMax, 0, 1, 1}, 2.0F, 2.0F, 2, 2), 0, 0, 2, 2);
  // 2147483648 itself wraps to the least number and is moved in from the left.
  expectBox(scaleToProcessing({kMax, 0, 10, 10}, 1.0F, 1.0F, 100, 100), 0, 0, 10, 10);
}

TEST(FitRectInside, MovesABoxInWithoutChangingItsSize) {
  expectBox(fitRectInsidePreserveSize({-5, 3, 20, 10}, 100, 50), 0, 3, 20, 10);
  expectBox(fitRectInsidePreserveSize({95, 45, 20, 10}, 100, 50), 80, 40, 20, 10);
}

TEST(FitRectInside, GivesTheWholeFrameForALargerBox) {
  expectBox(fitRectInsidePreserveSize({-5, 10, 200, 300}, 100, 50), 0, 0, 100, 50);
}

TEST(FitRectInside, IsNeverEmpty) {
  expectBox(fitRectInsidePreserveSize({3, 3, 0, -4}, 100, 50), 3, 3, 1, 1);
  expectBox(fitRectInsidePreserveSize({3, 3, 5, 5}, 0, -1), 0, 0, 1, 1);
}

TEST(FitRectInside, IsDefinedForEveryBox) {
  expectBox(fitRectInsidePreserveSize({kMax, kMax, kMax, kMax}, 100, 50), 0, 0, 100, 50);
  expectBox(fitRectInsidePreserveSize({kMax, kMin, 10, kMin}, 100, 50), 90, 0, 10, 1);
}

TEST(ClipToFrame, CutsAtTheEdges) {
  expectBox(clipToFrame({-10, 5, 30, 200}, 100, 50), 0, 5, 20, 45);
  expectBox(clipToFrame({90, 40, 30, 30}, 100, 50), 90, 40, 10, 10);
}

TEST(ClipToFrame, LeavesABoxOutsideUnchanged) {
  expectBox(clipToFrame({100, 0, 30, 30}, 100, 50), 100, 0, 30, 30);
  expectBox(clipToFrame({0, -30, 30, 30}, 100, 50), 0, -30, 30, 30);
}

TEST(ClipToFrame, IsDefinedForEveryBox) {
  expectBox(clipToFrame({50, 10, kMax, kMax}, 100, 50), 50, 10, 50, 40);
  expectBox(clipToFrame({kMin, 0, kMax, 10}, 100, 50), kMin, 0, kMax, 10);
}

TEST(HasPositiveArea, MultipliesIn32Bits) {
  EXPECT_TRUE(hasPositiveArea({0, 0, 1, 1}));
  EXPECT_FALSE(hasPositiveArea({0, 0, 0, 5}));
  EXPECT_FALSE(hasPositiveArea({0, 0, 65536, 65536}));  // wraps to 0
  EXPECT_FALSE(hasPositiveArea({0, 0, 50000, 50000}));  // wraps below zero
  EXPECT_TRUE(hasPositiveArea({0, 0, 65536, 65537}));   // wraps to 65536
}

TEST(ClampSizeFromReference, KeepsASizeBetweenTheRatios) {
  EXPECT_DOUBLE_EQ(clampSizeFromReference(100, 120, 0.4, 2.5), 120);
  EXPECT_DOUBLE_EQ(clampSizeFromReference(100, 20, 0.4, 2.5), 40);
  EXPECT_DOUBLE_EQ(clampSizeFromReference(100, 900, 0.4, 2.5), 250);
}

TEST(ClampSizeFromReference, FloorsTheLowerRatio) {
  EXPECT_DOUBLE_EQ(clampSizeFromReference(1000, 2, 0.0, 2.5), 10);
}

TEST(ClampSizeFromReference, LetsALowerRatioAboveTheUpperDecideAlone) {
  EXPECT_DOUBLE_EQ(clampSizeFromReference(100, 50, 3.0, 2.0), 300);
  EXPECT_DOUBLE_EQ(clampSizeFromReference(100, 5000, 3.0, 2.0), 300);
}

TEST(ClampSizeFromReference, FallsBackToAValueOfAtLeastOne) {
  EXPECT_DOUBLE_EQ(clampSizeFromReference(1e-6, 7, 0.4, 2.5), 7);    // reference not above the guard
  EXPECT_DOUBLE_EQ(clampSizeFromReference(100, 1e-6, 0.4, 2.5), 1);  // value not above the guard
  EXPECT_DOUBLE_EQ(clampSizeFromReference(kNan, 7, 0.4, 2.5), 7);    // reference not finite
  EXPECT_DOUBLE_EQ(clampSizeFromReference(kInfinity, 0.5, 0.4, 2.5), 1);
  EXPECT_DOUBLE_EQ(clampSizeFromReference(100, kInfinity, 0.4, 2.5), kInfinity);
  EXPECT_DOUBLE_EQ(clampSizeFromReference(100, kNan, 0.4, 2.5), 1);
}

TEST(NormalizeAngle180, WrapsIntoTheHalfOpenRange) {
  EXPECT_DOUBLE_EQ(normalizeAngle180(0), 0);
  EXPECT_DOUBLE_EQ(normalizeAngle180(180), -180);
  EXPECT_DOUBLE_EQ(normalizeAngle180(-180), -180);
  EXPECT_DOUBLE_EQ(normalizeAngle180(190), -170);
  EXPECT_DOUBLE_EQ(normalizeAngle180(-190), 170);
  EXPECT_DOUBLE_EQ(normalizeAngle180(725), 5);
}

TEST(NormalizeAngle180, StaysBelowTheUpperEndForAHairBelowTheLower) {
  const double below = std::nextafter(-180.0, -200.0);
  EXPECT_GE(normalizeAngle180(below), -180.0);
  EXPECT_LT(normalizeAngle180(below), 180.0);
}

TEST(NormalizeAngle180, ReturnsWhatIsNotFinite) {
  EXPECT_TRUE(std::isnan(normalizeAngle180(kNan)));
  EXPECT_EQ(normalizeAngle180(-kInfinity), -kInfinity);
}

TEST(ShortestAngleDelta, GoesTheShorterWay) {
  EXPECT_DOUBLE_EQ(shortestAngleDeltaDeg(-179, 179), -2);
  EXPECT_DOUBLE_EQ(shortestAngleDeltaDeg(179, -179), 2);
  EXPECT_DOUBLE_EQ(shortestAngleDeltaDeg(10, 30), 20);
  EXPECT_TRUE(std::isnan(shortestAngleDeltaDeg(kNan, 3)));
}

}  // namespace
