#include <gtest/gtest.h>
#include <ostrel_host/timeline_plot.h>
#include <sys/stat.h>

#include <cmath>
#include <cstdlib>
#include <opencv2/imgcodecs.hpp>
#include <sstream>

#include "apps/ostrel_host/demo_frames.h"
#include "support/temporary_folder.h"

namespace {

using namespace ostrel_host;
using ostrel_test::content_of;
using ostrel_test::demo_frame;
using ostrel_test::followed;
using ostrel_test::hidden;
using ostrel_test::TemporaryFolder;

std::vector<DemoFrame> some_frames() {
  std::vector<DemoFrame> frames;
  for (std::size_t i = 0; i < 10; ++i) frames.push_back(followed(i));
  for (std::size_t i = 10; i < 20; ++i) frames.push_back(hidden(demo_frame(i, "overlay_rejected")));
  for (std::size_t i = 20; i < 30; ++i) frames.push_back(followed(i));
  frames[0].answer.state.phase = "warming_up";
  frames[1].answer.told.words = {{"teleport_ok", ""}};
  frames[25].answer.told.zoom_factors = {1.05};
  return frames;
}

std::vector<std::string> names_of(const std::vector<TimelineLane>& lanes) {
  std::vector<std::string> names;
  for (const TimelineLane& lane : lanes) names.push_back(lane.name);
  return names;
}

// A folder whose `gnuplot` is a script of the test, alone on the path.
class GnuplotOf {
 public:
  explicit GnuplotOf(const std::string& body) : before_(std::getenv("PATH")) {
    if (!body.empty()) chmod(folder_.file("gnuplot", "#!/bin/sh\n" + body + "\n").c_str(), 0755);
    setenv("PATH", folder_.path().c_str(), 1);
  }
  ~GnuplotOf() { setenv("PATH", before_.c_str(), 1); }

 private:
  TemporaryFolder folder_;
  std::string before_;
};

TEST(Timeline, HasARowPerFrameWithGapsWhereThereIsNothingToShow) {
  const PlotTable table = timeline_table(some_frames());
  EXPECT_EQ(table.columns, (std::vector<std::string>{"time_s", "score", "tracker_score", "overlap",
                                                     "visible_share", "hfov_deg"}));
  ASSERT_EQ(table.rows.size(), 30u);
  EXPECT_DOUBLE_EQ(table.rows[5][0], 0.2);
  EXPECT_EQ(table.rows[5][1], 0.9);
  EXPECT_EQ(table.rows[5][3], 1.0);
  EXPECT_EQ(table.rows[5][5], 40.0);
  EXPECT_TRUE(std::isnan(table.rows[15][1]));
  EXPECT_TRUE(std::isnan(table.rows[15][3]));
  EXPECT_EQ(table.rows[15][4], 0.0);
}

TEST(Timeline, JoinsFramesOfOneWordIntoStretchesInOneLane) {
  const auto lanes = word_lanes(some_frames());
  EXPECT_EQ(names_of(lanes), (std::vector<std::string>{"track_ok", "teleport_ok", "overlay_rejected"}));
  ASSERT_EQ(lanes[0].spans.size(), 2u);
  EXPECT_DOUBLE_EQ(lanes[0].spans[0].start_s, 0.0);
  EXPECT_NEAR(lanes[0].spans[0].end_s, 0.4, 1e-9);
  EXPECT_NEAR(lanes[0].spans[1].end_s, 1.2, 1e-9);
  ASSERT_EQ(lanes[1].spans.size(), 1u);
  EXPECT_NEAR(lanes[1].spans[0].end_s - lanes[1].spans[0].start_s, 0.04, 1e-9);
}

TEST(Timeline, HasLanesForPhasesAndForEventsUpToItsEnd) {
  EXPECT_EQ(names_of(phase_lanes(some_frames())), (std::vector<std::string>{"warming_up", "ready"}));
  const auto lanes =
      event_lanes({{0.0, 1.0, "open"}, {0.5, 9.0, "bridge"}, {1.1, 1.2, "open"}, {5.0, 6.0, "wood"}}, 1.2);
  EXPECT_EQ(names_of(lanes), (std::vector<std::string>{"open", "bridge"}));
  EXPECT_EQ(lanes[0].spans.size(), 2u);
  EXPECT_EQ(lanes[1].spans[0].end_s, 1.2);
}

TEST(Timeline, NamesEveryLaneAndMarksHidingAndZoomInItsScript) {
  const std::string script = timeline_script(some_frames(), {{0.0, 1.0, "it's open"}});
  for (const char* name :
       {"'it''s open'", "'warming_up'", "'ready'", "'track_ok'", "'teleport_ok'", "'overlay_rejected'"}) {
    EXPECT_NE(script.find(name), std::string::npos) << name;
  }
  EXPECT_NE(script.find("from 0.400, graph 0 to 0.800, graph 1"), std::string::npos);
  EXPECT_NE(script.find("from 1.000, graph 0 to 1.040, graph 1"), std::string::npos);
}

TEST(Timeline, IsDrawnWithItsTableAndScriptBesideIt) {
  const TemporaryFolder folder;
  ASSERT_EQ(draw_timeline(folder.path(), some_frames(), {{0.0, 1.0, "it's open"}}), "");
  const cv::Mat picture = cv::imread(folder.path("timeline.png"));
  EXPECT_EQ(picture.cols, 1600);
  EXPECT_GT(picture.rows, 500);
  EXPECT_EQ(content_of(folder.path("timeline.tsv")).substr(0, 14), "#time_s\tscore\t");
  EXPECT_GT(content_of(folder.path("timeline.gp")).size(), 500u);
}

TEST(Timeline, SaysInOneLineThatGnuplotIsMissingAndStillWritesTheTable) {
  const TemporaryFolder folder;
  const GnuplotOf nothing("");
  EXPECT_EQ(draw_timeline(folder.path(), some_frames(), {}),
            "gnuplot is not installed (Debian: gnuplot-nox)");
  EXPECT_GT(content_of(folder.path("timeline.tsv")).size(), 100u);
  EXPECT_FALSE(std::filesystem::exists(folder.path("timeline.png")));
}

TEST(Plot, RunsTheScriptInItsFolder) {
  const TemporaryFolder folder;
  const GnuplotOf recorder("echo \"$PWD $1\" >seen");
  EXPECT_EQ(draw_plot(folder.path(), "a.gp"), "");
  EXPECT_EQ(content_of(folder.path("seen")), folder.path().string() + " a.gp\n");
}

TEST(Plot, SaysThatGnuplotRefusedTheScript) {
  const TemporaryFolder folder;
  const GnuplotOf failing("exit 3");
  EXPECT_EQ(draw_plot(folder.path(), "a.gp"),
            "gnuplot refused the script; 'gnuplot a.gp' in " + folder.path().string() + " says why");
}

TEST(Plot, WritesATableWithTabsAndGaps) {
  const TemporaryFolder folder;
  write_table(folder.path("a.tsv"), {{"a", "b"}, {{1.5, std::nan("")}, {-2, 1e-7}}});
  EXPECT_EQ(content_of(folder.path("a.tsv")), "#a\tb\n1.5\tNaN\n-2\t1e-07\n");
  EXPECT_THROW(write_table(folder.path("no/a.tsv"), {}), std::runtime_error);
}

TEST(Plot, QuotesTextsSoThatGnuplotReadsNothingIntoThem) {
  EXPECT_EQ(plot_literal("it's a \"test\"\n"), "'it''s a \"test\" '");
}

}  // namespace
