#include "tracking_runtime/tracker/atom/square_patch.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "support/golden_mat.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

using ostrel_test::bgr_image;
using ostrel_test::bytes_of;
using ostrel_test::coordinate_image;

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

TEST(PatchSquare, MatchesGoldenRectangles) {
  const auto golden = ostrel_test::load_golden_case("patch_geometry", "rect_and_crop");
  const std::vector<float> rows = golden.input_as<float>("rows");
  std::vector<int> squares;
  for (std::size_t i = 0; i + 7 <= rows.size(); i += 7) {
    const auto square = patch_square({rows[i], rows[i + 1]}, rows[i + 2], rows[i + 3], rows[i + 4]);
    // A centre that is not finite is refused by who cuts a patch, not by the geometry.
    const bool finite = std::isfinite(rows[i]) && std::isfinite(rows[i + 1]);
    const PatchSquare found = finite ? square.value_or(PatchSquare{}) : PatchSquare{};
    squares.insert(squares.end(), {found.x0, found.y0, found.side});
  }
  EXPECT_TRUE(ostrel_test::matches_golden(golden.output("rect"), squares));
}

TEST(PatchSquare, TruncatesTheCentreTowardsZeroAndRoundsTheSide) {
  const auto square = patch_square({-3.9F, 7.9F}, 4.0F, 4.0F, 1.375F);  // side 5.5
  ASSERT_TRUE(square);
  EXPECT_EQ(square->side, 6);
  EXPECT_EQ(square->x0, -3 - 2);
  EXPECT_EQ(square->y0, 7 - 2);
}

TEST(PatchSquare, LeavesTheSideUnscaledForAFactorOfOneOrBelow) {
  EXPECT_EQ(patch_square({0.0F, 0.0F}, 4.0F, 9.0F, 1.0F)->side, 6);
  EXPECT_EQ(patch_square({0.0F, 0.0F}, 4.0F, 9.0F, 0.25F)->side, 6);
  EXPECT_EQ(patch_square({0.0F, 0.0F}, 4.0F, 9.0F, 1.5F)->side, 9);
}

TEST(PatchSquare, CountsAnAreaOfOneOrBelowAsSideOne) {
  EXPECT_EQ(patch_square({0.0F, 0.0F}, 1.0F, 1.0F, 7.0F)->side, 7);
  EXPECT_EQ(patch_square({0.0F, 0.0F}, 0.1F, 0.1F, 7.0F)->side, 7);
}

TEST(PatchSquare, IsAtLeastTwoPixels) {
  EXPECT_EQ(patch_square({0.0F, 0.0F}, 1.0F, 1.0F, 1.2F)->side, 2);
}

TEST(PatchSquare, IsNothingWithoutASideAboveOne) {
  EXPECT_FALSE(patch_square({0.0F, 0.0F}, 1.0F, 1.0F, 1.0F));
  EXPECT_FALSE(patch_square({0.0F, 0.0F}, 0.5F, 0.5F, 0.5F));
}

TEST(PatchSquare, StaysDefinedForBrokenNumbers) {
  EXPECT_TRUE(patch_square({kNan, kInfinity}, 4.0F, 4.0F, 2.0F));
  EXPECT_TRUE(patch_square({-kInfinity, 0.0F}, 1e30F, 1e30F, 2.0F));
  EXPECT_FALSE(patch_square({0.0F, 0.0F}, kNan, 4.0F, 0.5F));
}

TEST(CutSquarePatch, MatchesGoldenPatches) {
  for (int i = 0; i < 5; ++i) {
    const auto golden = ostrel_test::load_golden_case("patch_geometry", "cut" + std::to_string(i));
    const cv::Mat patch = cut_square_patch(
        bgr_image(golden.input("image")), {golden.f32("cx"), golden.f32("cy")}, golden.f32("box_width"),
        golden.f32("box_height"), golden.f32("factor"), golden.i32("search_size"));
    EXPECT_TRUE(ostrel_test::matches_golden(golden.output("patch"), bytes_of(patch))) << golden.name();
  }
}

TEST(CutSquarePatch, CopiesThePixelsWhenTheSideIsTheOutputSide) {
  const cv::Mat image = coordinate_image(40, 60);
  const cv::Mat patch = cut_square_patch(image, {30.7F, 20.2F}, 4.0F, 4.0F, 2.0F, 8);
  ASSERT_EQ(patch.size(), cv::Size(8, 8));
  EXPECT_EQ(patch.at<cv::Vec3b>(0, 0), cv::Vec3b(27, 17, 7));
  EXPECT_EQ(patch.at<cv::Vec3b>(7, 7), cv::Vec3b(34, 24, 7));
  EXPECT_NE(patch.data, image.ptr(17, 27)) << "the patch must not alias the frame";
}

TEST(CutSquarePatch, ReplicatesTheBorderOnEachSide) {
  const cv::Mat image = coordinate_image(10, 12);
  const cv::Mat corner = cut_square_patch(image, {0.0F, 0.0F}, 4.0F, 4.0F, 2.0F, 8);  // origin -3, -3
  EXPECT_EQ(corner.at<cv::Vec3b>(0, 0), cv::Vec3b(0, 0, 7));
  EXPECT_EQ(corner.at<cv::Vec3b>(7, 7), cv::Vec3b(4, 4, 7));
  const cv::Mat opposite = cut_square_patch(image, {11.0F, 9.0F}, 4.0F, 4.0F, 2.0F, 8);  // origin 8, 6
  EXPECT_EQ(opposite.at<cv::Vec3b>(0, 0), cv::Vec3b(8, 6, 7));
  EXPECT_EQ(opposite.at<cv::Vec3b>(7, 7), cv::Vec3b(11, 9, 7));
}

TEST(CutSquarePatch, IsAllBorderForACentreFarOutside) {
  const cv::Mat image = coordinate_image(10, 12);
  struct Row {
    cv::Point_<float> center;
    cv::Vec3b pixel;
  };
  for (const Row& row : {Row{{-100.0F, -100.0F}, {0, 0, 7}}, Row{{100.0F, 100.0F}, {11, 9, 7}},
                         Row{{-100.0F, 100.0F}, {0, 9, 7}}, Row{{1e9F, -1e9F}, {11, 0, 7}}}) {
    const cv::Mat patch = cut_square_patch(image, row.center, 4.0F, 4.0F, 2.0F, 8);
    ASSERT_EQ(patch.size(), cv::Size(8, 8));
    for (int i = 0; i < 64; ++i) EXPECT_EQ(patch.at<cv::Vec3b>(i / 8, i % 8), row.pixel);
  }
}

TEST(CutSquarePatch, NeverReadsPixelsOfAnEnclosingImage) {
  const cv::Mat whole = coordinate_image(30, 30);
  const cv::Mat part = whole(cv::Rect(10, 10, 8, 8));
  const cv::Mat patch = cut_square_patch(part, {0.0F, 0.0F}, 4.0F, 4.0F, 2.0F, 8);
  EXPECT_EQ(patch.at<cv::Vec3b>(0, 0), cv::Vec3b(10, 10, 7));
}

TEST(CutSquarePatch, ResizesABoxOfOnePixelFromSevenPixels) {
  const cv::Mat patch = cut_square_patch(coordinate_image(40, 60), {30.0F, 20.0F}, 1.0F, 1.0F, 7.0F, 192);
  ASSERT_EQ(patch.size(), cv::Size(192, 192));
  EXPECT_EQ(patch.at<cv::Vec3b>(0, 0), cv::Vec3b(27, 17, 7));
  EXPECT_EQ(patch.at<cv::Vec3b>(191, 191), cv::Vec3b(33, 23, 7));
}

TEST(CutSquarePatch, IsEmptyForUnusableInput) {
  const cv::Mat image = coordinate_image(10, 10);
  struct Row {
    const char* reason;
    cv::Mat image;
    cv::Point_<float> center;
    float width, height, factor;
    int side;
  };
  const std::vector<Row> rows = {
      {"no image", cv::Mat(), {5.0F, 5.0F}, 4.0F, 4.0F, 2.0F, 8},
      {"no output side", image, {5.0F, 5.0F}, 4.0F, 4.0F, 2.0F, 0},
      {"negative output side", image, {5.0F, 5.0F}, 4.0F, 4.0F, 2.0F, -1},
      {"x not a number", image, {kNan, 5.0F}, 4.0F, 4.0F, 2.0F, 8},
      {"y infinite", image, {5.0F, kInfinity}, 4.0F, 4.0F, 2.0F, 8},
      {"width zero", image, {5.0F, 5.0F}, 0.0F, 4.0F, 2.0F, 8},
      {"height negative", image, {5.0F, 5.0F}, 4.0F, -4.0F, 2.0F, 8},
      {"width not a number", image, {5.0F, 5.0F}, kNan, 4.0F, 2.0F, 8},
      {"side not above one", image, {5.0F, 5.0F}, 1.0F, 1.0F, 1.0F, 8},
  };
  for (const Row& row : rows) {
    EXPECT_TRUE(cut_square_patch(row.image, row.center, row.width, row.height, row.factor, row.side).empty())
        << row.reason;
  }
}

}  // namespace
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
