// Files, statistics and the terminal line of a run.
#include <gtest/gtest.h>
#include <ostrel_host/annotated_video.h>
#include <ostrel_host/bad_input.h>
#include <ostrel_host/pacer.h>
#include <ostrel_host/progress.h>
#include <ostrel_host/result_files.h>
#include <ostrel_host/run_statistics.h>
#include <ostrel_host/tracker_log.h>

#include <cstdio>

#include "support/temporary_folder.h"

namespace {

using namespace ostrel_host;
using nlohmann::json;
using ostrel_test::content_of;
using ostrel_test::TemporaryFolder;

StepResult tracked(double score = 0.5) {
  StepResult result;
  result.published = Detection{{1, 2, 30, 40}, score};
  result.state.status = "track_ok";
  result.state.detail = "ok";
  result.state.phase = "ready";
  result.state.tracker_box = {1.25, 2.5, 30.125, 1234.5678};
  result.update_ms = 12.5;
  return result;
}

StepResult skipped() {
  StepResult result;
  result.state.status = "update_skip_warming_up";
  result.state.phase = "warming_up";
  result.state.box = {5, 6, 7, 8};
  result.update_ms = 0.25;
  return result;
}

TEST(ResultFiles, WriteALinePerFrameWithNullsWithoutABox) {
  const TemporaryFolder folder;
  ResultFiles files(folder.path() / "a" / "b");
  files.write_frame(0, skipped());
  files.write_frame(1, tracked());
  files.write_summary({{"frames", 2}});
  EXPECT_EQ(content_of(folder.path("a/b/boxes.jsonl")),
            "{\"frame\":0,\"x\":null,\"y\":null,\"w\":null,\"h\":null,\"score\":null,\"status\":"
            "\"update_skip_warming_up\",\"detail\":\"\",\"phase\":\"warming_up\",\"update_ms\":0.25}\n"
            "{\"frame\":1,\"x\":1,\"y\":2,\"w\":30,\"h\":40,\"score\":0.5,\"status\":\"track_ok\",\"detail\":"
            "\"ok\","
            "\"phase\":\"ready\",\"update_ms\":12.5}\n");
  EXPECT_EQ(content_of(folder.path("a/b/boxes.txt")), "5,6,7,8\n1.25,2.5,30.125,1234.57\n");
  EXPECT_EQ(json::parse(content_of(folder.path("a/b/summary.json")))["frames"], 2);
}

TEST(ResultFiles, KeepLinesReadableWhateverBytesADetailHolds) {
  const TemporaryFolder folder;
  ResultFiles files(folder.path());
  StepResult result = tracked();
  result.state.detail = "\xff\xfe";
  files.write_frame(0, result);
  files.write_summary({{"frames", 1}});
  EXPECT_TRUE(json::accept(content_of(folder.path("boxes.jsonl"))));
}

TEST(ResultFiles, RefuseAFolderThatCannotBeMade) {
  const TemporaryFolder folder;
  folder.file("file", "in the way");
  EXPECT_THROW(ResultFiles(folder.path() / "file"), BadInput);
  EXPECT_THROW(ResultFiles(folder.path() / "file" / "below"), BadInput);
}

TEST(Quantile, TakesTheNearestRank) {
  EXPECT_EQ(quantile({}, 0.5), 0.0);
  EXPECT_EQ(quantile({3, 1, 2}, 0.5), 2.0);
  EXPECT_EQ(quantile({4, 1, 2, 3}, 0.5), 2.0);
  EXPECT_EQ(quantile({4, 1, 2, 3}, 1.0), 4.0);
  EXPECT_EQ(quantile({4, 1, 2, 3}, 0.0), 1.0);
}

TEST(RunStatistics, SeparateWarmUpFromTrackingAndCountWords) {
  RunStatistics statistics;
  statistics.add_waiting_call(skipped());
  statistics.add_frame(skipped(), false);
  statistics.add_frame(tracked(0.8), true);
  statistics.add_frame(tracked(0.4), true);
  statistics.add_frame(tracked(0.0), true);
  statistics.set_wall_s(2.0);
  const auto summary = statistics.to_json();
  EXPECT_EQ(summary["frames"], 4);
  EXPECT_EQ(summary["published"], 3);
  EXPECT_EQ(summary["fps"], 2.0);
  EXPECT_TRUE(summary["ready_ms"].is_null());
  EXPECT_TRUE(summary["accuracy"].is_null());
  EXPECT_EQ(summary["update_ms"]["count"], 3);
  EXPECT_EQ(summary["update_ms"]["median"], 12.5);
  EXPECT_EQ(summary["warm_up_update_ms"]["count"], 2);
  EXPECT_EQ(summary["warm_up_update_ms"]["max"], 0.25);
  EXPECT_NEAR(summary["score"]["mean"].get<double>(), 0.6, 1e-12);
  EXPECT_EQ(summary["statuses"]["track_ok"], 3);
  EXPECT_EQ(statistics.status_line(), "track_ok 3, update_skip_warming_up 1");
}

TEST(RunStatistics, CarryReadinessAndAccuracy) {
  RunStatistics statistics;
  EXPECT_FALSE(statistics.ever_armed());
  statistics.set_ready_ms(420.0);
  AccuracyReport accuracy;
  accuracy.frames = 7;
  accuracy.success_auc = 0.5;
  statistics.set_accuracy(accuracy);
  EXPECT_TRUE(statistics.ever_armed());
  EXPECT_EQ(statistics.to_json()["ready_ms"], 420.0);
  EXPECT_EQ(statistics.to_json()["accuracy"]["success_auc"], 0.5);
}

TEST(ProgressLine, ShowsABarOnlyWhereTheEndIsKnown) {
  EXPECT_EQ(progress_line(120, 240, 28.44, tracked(0.71)),
            "[============>           ] 120/240  28.4 fps  track_ok 0.71");
  EXPECT_EQ(progress_line(240, 240, 30.0, skipped()),
            "[========================] 240/240  30.0 fps  update_skip_warming_up");
  EXPECT_EQ(progress_line(300, 240, 30.0, skipped()).substr(0, 26), "[========================]");
  EXPECT_EQ(progress_line(3, 0, 1.0, skipped()), "3  1.0 fps  update_skip_warming_up");
}

TEST(JobLine, ShowsHowLongItStillTakes) {
  EXPECT_EQ(job_line(1200, 2400, 185.2, "Coke, csrt"),
            "[============>           ] 1200/2400  3:05 left  Coke, csrt");
  EXPECT_EQ(job_line(0, 2400, -1.0, "Coke, csrt"), "[>                       ] 0/2400  Coke, csrt");
  EXPECT_EQ(job_line(1, 1, 0.0, "x"), "[========================] 1/1  0:00 left  x");
  EXPECT_NE(job_line(1, 2, 59.6, "x").find(" 1:00 left"), std::string::npos) << "rounded";
  EXPECT_NE(job_line(1, 2, 3599.0, "x").find(" 59:59 left"), std::string::npos);
  EXPECT_NE(job_line(1, 2, 3723.0, "x").find(" 1:02:03 left"), std::string::npos);
  EXPECT_NE(job_line(0, 0, -1.0, "x").find("0/0"), std::string::npos) << "no work is no division by zero";
}

TEST(Annotation, DrawsTheBoxInTheColourOfItsState) {
  const auto corner = [](const StepResult& result) {
    cv::Mat image(80, 120, CV_8UC3, cv::Scalar::all(0));
    annotate(0, result, &image);
    return image.at<cv::Vec3b>(41, 30);  // the lower right corner of the box, below the caption
  };
  EXPECT_GT(corner(tracked(0.7))[1], 150);
  EXPECT_GT(corner(tracked(0.0))[2], 150);
  EXPECT_EQ(corner(skipped()), cv::Vec3b(0, 0, 0));
}

TEST(AnnotatedVideo, TakesFramesOfOddAndChangingSizesAndMissingOnes) {
  const TemporaryFolder folder;
  const std::string file = folder.path("annotated.mp4");
  {
    AnnotatedVideo video(file, cv::Size(121, 81), 25.0);
    video.write(0, tracked(), cv::Mat(81, 121, CV_8UC3, cv::Scalar::all(50)));
    video.write(1, tracked(), cv::Mat(40, 60, CV_8UC3, cv::Scalar::all(50)));
    video.write(2, skipped(), cv::Mat());
  }
  cv::VideoCapture capture(file, cv::CAP_FFMPEG);
  cv::Mat frame;
  int frames = 0;
  while (capture.read(frame)) {
    EXPECT_EQ(frame.size(), cv::Size(122, 82));
    ++frames;
  }
  EXPECT_EQ(frames, 3);
}

TEST(AnnotatedVideo, RefusesAPlaceThatCannotBeWritten) {
  const TemporaryFolder folder;
  EXPECT_THROW(AnnotatedVideo(folder.path("missing/annotated.mp4"), cv::Size(32, 32), 25.0), BadInput);
}

TEST(TrackerLog, KeepsStandardErrorInItsFileAndGivesItBack) {
  const TemporaryFolder folder;
  testing::internal::CaptureStderr();
  {
    const TrackerLog log(folder.path("tracker.log"));
    std::fprintf(stderr, "about itself\n");
    std::fprintf(log.terminal(), "for people\n");
  }
  std::fprintf(stderr, "behind it\n");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "for people\nbehind it\n");
  EXPECT_EQ(content_of(folder.path("tracker.log")), "about itself\n");
  EXPECT_THROW(TrackerLog(folder.path("no/tracker.log")), BadInput);
}

TEST(Progress, TellsEachTaskOfAJobOnceWithoutATerminal) {
  testing::internal::CaptureStderr();
  {
    Progress progress(4);
    progress.job(0, -1.0, "first");
    progress.job(1, 9.0, "first");
    progress.job(2, 6.0, "second");
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            job_line(0, 4, -1.0, "first") + "\n" + job_line(2, 4, 6.0, "second") + "\n");
}

// Hours may pass before the next one.
TEST(Progress, TellsATaskAtOnceInAFileToo) {
  const ostrel_test::TemporaryFolder folder;
  std::FILE* const file = std::fopen(folder.path("told").c_str(), "w");
  ASSERT_NE(file, nullptr);
  {
    Progress progress(4, Progress::Words::kTold, file);
    progress.job(0, -1.0, "first");
    EXPECT_EQ(content_of(folder.path("told")), job_line(0, 4, -1.0, "first") + "\n");
  }
  std::fclose(file);
}

TEST(Pacer, HoldsFramesBackUntilTheyAreDueAndNoLateOne) {
  const Pacer pacer(100.0);
  pacer.wait_for(5);
  const double waited_s = pacer.elapsed_s();
  EXPECT_GE(waited_s, 0.05);
  pacer.wait_for(1);
  const Pacer free(0.0);
  free.wait_for(1'000'000);
  EXPECT_LT(free.elapsed_s(), 5.0);
}

TEST(Progress, IsSilentWithoutATerminalWhereItsWordsAreToldElsewhere) {
  testing::internal::CaptureStderr();
  {
    Progress progress(10, Progress::Words::kToldElsewhere);
    progress.frame(1, 25.0, tracked());
    progress.clear();
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

}  // namespace
