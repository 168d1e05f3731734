#include <gtest/gtest.h>
#include <ostrel_host/accuracy.h>
#include <ostrel_host/bad_input.h>
#include <ostrel_host/frame_source.h>
#include <ostrel_host/render_command.h>

#include "support/temporary_folder.h"

namespace {

using namespace ostrel_host;
using ostrel_test::TemporaryFolder;

TEST(Render, WritesAVideoWithItsGroundTruthBeside) {
  const TemporaryFolder folder;
  EXPECT_EQ(run_render({folder.path("made/clip.mp4"), {128, 96, 6, 2}}), 0);
  const auto source = open_source(folder.path("made/clip.mp4"));
  EXPECT_EQ(source->next()->image.size(), cv::Size(128, 96));
  EXPECT_EQ(read_boxes(folder.path("made/groundtruth_rect.txt")).size(), 6u);
}

TEST(Render, WritesAFolderThatTrackTakes) {
  const TemporaryFolder folder;
  const ostrel_scene::SceneOptions options{65, 77, 3, 2};
  EXPECT_EQ(run_render({folder.path("scene"), options}), 0);
  const auto source = open_source(folder.path("scene"));
  EXPECT_EQ(source->frame_count(), 3u);
  const ostrel_scene::SceneFrame first = ostrel_scene::Scene(options).render(0);
  EXPECT_EQ(cv::norm(source->next()->image, first.image, cv::NORM_INF), 0.0) << "images lose nothing";
  const auto truth = read_boxes(folder.path("scene/groundtruth_rect.txt"));
  ASSERT_EQ(truth.size(), 3u);
  EXPECT_NEAR(truth[0].x, first.target_px.x, 0.005);
}

TEST(Render, RefusesUnusableOptions) {
  const TemporaryFolder folder;
  EXPECT_THROW(run_render({folder.path("a.mp4"), {10, 10, 3, 1}}), BadInput);
  EXPECT_THROW(run_render({folder.path("a.mp4"), {65, 64, 3, 1}}), BadInput);
  EXPECT_THROW(run_render({folder.file("f", "") + "/a.mp4", {64, 64, 3, 1}}), BadInput);
}

}  // namespace
