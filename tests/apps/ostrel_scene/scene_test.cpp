#include <gtest/gtest.h>
#include <ostrel_scene/scene.h>

#include <algorithm>
#include <cmath>

namespace {

using ostrel_scene::Scene;
using ostrel_scene::SceneFrame;
using ostrel_scene::SceneOptions;

double mean_difference(const cv::Mat& a, const cv::Mat& b) {
  return cv::norm(a, b, cv::NORM_L1) / static_cast<double>(a.total() * 3);
}

TEST(Scene, KeepsTheTargetInsideTheFrame) {
  for (const SceneOptions& options :
       {SceneOptions{}, SceneOptions{64, 64, 300, 9}, SceneOptions{333, 201, 300, 4}}) {
    const Scene scene(options);
    for (int i = 0; i < options.frames; i += 7) {
      const cv::Rect2d box = scene.target_at(i);
      EXPECT_GE(box.x, 0.0);
      EXPECT_GE(box.y, 0.0);
      EXPECT_LE(box.x + box.width, options.width_px);
      EXPECT_LE(box.y + box.height, options.height_px);
    }
  }
}

TEST(Scene, HandsTheSameGroundTruthOutWithAndWithoutPixels) {
  const Scene scene({128, 96, 100, 3});
  for (int i = 50; i < 62; ++i) {
    const SceneFrame frame = scene.render(i);
    EXPECT_EQ(frame.target_px, scene.target_at(i));
    EXPECT_EQ(frame.hidden, scene.hidden_at(i));
  }
}

TEST(Scene, RendersFramesOfTheSizeAskedFor) {
  const SceneFrame frame = Scene({101, 67, 3, 1}).render(2);
  EXPECT_EQ(frame.image.size(), cv::Size(101, 67));
  EXPECT_EQ(frame.image.type(), CV_8UC3);
}

TEST(Scene, IsTheSameForTheSameSeedInAnyOrder) {
  const SceneOptions options{160, 120, 80, 5};
  const Scene first(options), second(options);
  const cv::Mat late = first.render(70).image;
  first.render(3);
  EXPECT_EQ(cv::norm(late, first.render(70).image, cv::NORM_INF), 0.0);
  EXPECT_EQ(cv::norm(late, second.render(70).image, cv::NORM_INF), 0.0);
}

TEST(Scene, DiffersBetweenSeeds) {
  const Scene first({160, 120, 80, 5}), second({160, 120, 80, 6});
  EXPECT_GT(mean_difference(first.render(0).image, second.render(0).image), 10.0);
}

// Wherever the ground truth says the target is, its texture shows: the pixels there correlate with the first frame's.
TEST(Scene, ShowsTheTargetWhereTheGroundTruthSays) {
  SceneOptions options{320, 240, 120, 3};
  options.occlusion = false;
  const Scene scene(options);
  const auto cell_colours = [](const SceneFrame& frame) {
    std::vector<double> colours;
    for (int row = 0; row < 6; ++row) {
      for (int column = 0; column < 6; ++column) {
        const double x = frame.target_px.x + frame.target_px.width * (column + 0.5) / 6 - 0.5;
        const double y = frame.target_px.y + frame.target_px.height * (row + 0.5) / 6 - 0.5;
        const cv::Vec3b pixel =
            frame.image.at<cv::Vec3b>(static_cast<int>(std::lround(y)), static_cast<int>(std::lround(x)));
        for (int c = 0; c < 3; ++c) colours.push_back(pixel[c]);
      }
    }
    return colours;
  };
  const auto correlation = [](const std::vector<double>& a, const std::vector<double>& b) {
    cv::Scalar mean_a, mean_b, deviation_a, deviation_b;
    cv::meanStdDev(a, mean_a, deviation_a);
    cv::meanStdDev(b, mean_b, deviation_b);
    double sum = 0;
    for (std::size_t i = 0; i < a.size(); ++i) sum += (a[i] - mean_a[0]) * (b[i] - mean_b[0]);
    return sum / (static_cast<double>(a.size()) * deviation_a[0] * deviation_b[0]);
  };
  const auto first = cell_colours(scene.render(0));
  for (int i = 10; i < options.frames; i += 20)
    EXPECT_GT(correlation(first, cell_colours(scene.render(i))), 0.8);
}

TEST(Scene, MovesAndZoomsTheTargetSmoothly) {
  const Scene scene({});
  double smallest = 1e9, largest = 0, fastest = 0;
  cv::Rect2d last = scene.target_at(0);
  for (int i = 1; i < 240; ++i) {
    const cv::Rect2d box = scene.target_at(i);
    smallest = std::min(smallest, box.width);
    largest = std::max(largest, box.width);
    fastest = std::max(fastest, std::hypot(box.x - last.x, box.y - last.y));
    last = box;
  }
  EXPECT_GT(largest / smallest, 1.3);
  EXPECT_LT(fastest, 0.15 * smallest);
}

TEST(Scene, HidesTheTargetOnceForAFewFrames) {
  const Scene scene({});
  int hidden = 0, changes = 0;
  bool last = false;
  for (int i = 0; i < 240; ++i) {
    const bool now = scene.hidden_at(i);
    hidden += now ? 1 : 0;
    changes += now != last ? 1 : 0;
    last = now;
  }
  EXPECT_EQ(changes, 2);
  EXPECT_GE(hidden, 4);
  EXPECT_LE(hidden, 16);
}

TEST(Scene, LeavesThePostOutWhereItIsNotWanted) {
  SceneOptions plain;
  plain.occlusion = false;
  const SceneOptions brief{640, 360, ostrel_scene::kFramesForOcclusion - 1, 1};
  for (const SceneOptions& options : {plain, brief}) {
    const Scene scene(options);
    for (int i = 0; i < options.frames; ++i) ASSERT_FALSE(scene.hidden_at(i));
  }
}

TEST(Scene, NamesWhatIsWrongWithItsOptions) {
  EXPECT_EQ(ostrel_scene::why_invalid(SceneOptions{}), "");
  EXPECT_EQ(ostrel_scene::why_invalid({63, 64, 1, 1}), "a scene's sides are 64 to 8192 pixels");
  EXPECT_EQ(ostrel_scene::why_invalid({64, 8193, 1, 1}), "a scene's sides are 64 to 8192 pixels");
  EXPECT_EQ(ostrel_scene::why_invalid({64, 64, 0, 1}), "a scene has at least one frame");
}

}  // namespace
