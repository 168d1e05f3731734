// What a frame of the real backend leaves behind: samples, trainings, lines on standard error, the trace.

#include "tracking_runtime/tracker/atom/track_fixture.h"

#include <cmath>
#include <fstream>
#include <functional>
#include <regex>
#include <sstream>
#include <vector>

#include "tracking_runtime/tracker/atom/sample_labels.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace track_test {
namespace {

class BackendReports : public BackendTracking {};

std::string stderr_of(const std::function<void()>& action) {
  ::testing::internal::CaptureStderr();
  action();
  return ::testing::internal::GetCapturedStderr();
}

int count_of(const std::string& text, const std::string& part) {
  int count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

std::vector<std::vector<std::string>> rows_of(const std::string& path) {
  std::ifstream file(path);
  std::vector<std::vector<std::string>> rows;
  for (std::string line; std::getline(file, line);) {
    std::istringstream cells(line);
    rows.emplace_back();
    for (std::string cell; std::getline(cells, cell, '\t');) rows.back().push_back(cell);
  }
  return rows;
}

TEST_F(BackendReports, StoresOneSampleAnAcceptedFrame) {
  Tracked tracked;
  const int before = Access::memory(tracked.backend).num_stored_samples;
  tracked.view(picture(scene(Tracked::start)));
  tracked.image(scene(Tracked::start));
  EXPECT_EQ(Access::memory(tracked.backend).num_stored_samples, before + 2);
  Access::state(tracked.backend).config.enable_online_update = false;
  tracked.view(picture(scene(Tracked::start)));
  EXPECT_EQ(Access::memory(tracked.backend).num_stored_samples, before + 2);
}

TEST_F(BackendReports, SchedulesTrainingByItsPeriod) {
  Config config = tiny_config();
  config.frames_between_learning = 2;
  config.update_iterations = 3;
  config.max_sample_history = 4;
  Tracked tracked(config);
  const std::string lines = stderr_of([&] {
    tracked.view(picture(scene(Tracked::start)));
    tracked.view(picture(scene(Tracked::start)));
  });
  EXPECT_EQ(count_of(lines, "[CudaRuntimeBackend][train] job=1 frame=2 reason=periodic schedule iter=3"), 1)
      << lines;
  EXPECT_EQ(count_of(lines, "schedule"), 1) << lines;
}

TEST_F(BackendReports, DebugLineOfTheViewPathStopsAfterTenFrames) {
  Tracked tracked;
  const auto frame = picture(scene(Tracked::start));
  const std::string lines = stderr_of([&] {
    for (int i = 0; i < 12; ++i) tracked.view(frame);
  });
  EXPECT_EQ(count_of(lines, "[TRACK_DEBUG][ATOM] view frame="), 10) << lines;
  const std::regex line(
      R"(\[TRACK_DEBUG\]\[ATOM\] view frame=1: center=\(-?\d+\.\d,-?\d+\.\d\) size=\(\d+\.\d,\d+\.\d\) → )"
      R"(bbox_proc=\[-?\d+\.\d,-?\d+\.\d,\d+\.\d,\d+\.\d\] score=\d\.\d{3} flag=0\n)");
  EXPECT_TRUE(std::regex_search(lines, line)) << lines;
}

TEST_F(BackendReports, HoldsAndTheImagePathPrintNoDebugLine) {
  Tracked tracked;
  EXPECT_EQ(count_of(stderr_of([&] { tracked.image(scene(Tracked::start)); }), "[TRACK_DEBUG]"), 0);
  Access::state(tracked.backend).config.target_not_found_score_threshold = kNever;
  EXPECT_EQ(count_of(stderr_of([&] { tracked.view(picture(scene(Tracked::start))); }), "[TRACK_DEBUG]"), 0);
  Access::state(tracked.backend).config.target_not_found_score_threshold = -kNever;
  Access::state(tracked.backend).config.jump_filter_enabled = true;
  Access::state(tracked.backend).config.jump_min_score = 1.0F;
  EXPECT_EQ(count_of(stderr_of([&] { tracked.view(picture(scene(Tracked::start))); }), "[TRACK_DEBUG]"), 0);
}

TEST_F(BackendReports, TimingLineComesEveryThirtiethAcceptedFrame) {
  Tracked tracked;
  const auto frame = picture(scene(Tracked::start));
  Access::state(tracked.backend).frame_index = 28;
  const std::string lines = stderr_of([&] {
    for (int i = 0; i < 3; ++i) tracked.view(frame);
  });
  const std::string ms = R"(\d+\.\d)";
  std::string pattern = R"(\[CudaRuntimeBackend\] frame=30 total=)" + ms + "ms";
  for (const char* name : {"crop", "feat", "upload_u8", "preprocess_cuda", "upload_weights_gpu", "trt_wait",
                           "d2h_response", "d2h_projected", "feat_other", "proj", "clf", "fft", "train"}) {
    pattern += std::string(" ") + name + "=" + ms;
  }
  pattern += R"( \| score=\d\.\d{3} raw=-?\d+\.\d{3} max2=\d+\.\d{3} scale=\d\.\d{4} margin=\d\.\d{3} )"
             R"(jump_norm=\d+\.\d jump_hold=0 mem=1 flag=ok\n)";
  EXPECT_TRUE(std::regex_search(lines, std::regex(pattern))) << lines;
  EXPECT_EQ(count_of(lines, "[CudaRuntimeBackend] frame="), 1) << lines;
  EXPECT_NE(lines.find(" proj=0.0 clf=0.0 "), std::string::npos) << lines;

  Access::state(tracked.backend).frame_index = 29;
  Access::state(tracked.backend).config.target_not_found_score_threshold = kNever;
  EXPECT_EQ(count_of(stderr_of([&] { tracked.view(frame); }), "[CudaRuntimeBackend] frame="), 0);
}

TEST_F(BackendReports, TracesEachDecision) {
  const ostrel_test::TemporaryFolder folder;
  Config config = tiny_config();
  config.reference_trace_path = folder.path("trace.tsv");
  Tracked tracked(config);
  TargetState& state = Access::state(tracked.backend);
  const cv::Mat frame = scene(Tracked::start + cv::Point_<int>(3, 0));
  tracked.image(frame);
  const cv::Rect_<int> state_box = state.bbox_from_state_(state.image_size);
  state.config.target_not_found_score_threshold = kNever;
  tracked.view(picture(frame));
  state.config.target_not_found_score_threshold = -kNever;
  state.config.search_scales = {0.0F};
  tracked.image(frame);

  const auto rows = rows_of(config.reference_trace_path);
  ASSERT_EQ(rows.size(), 5u);
  EXPECT_EQ(rows[1][0], "init_ok");
  EXPECT_EQ(rows[2][0], "track_ok");
  EXPECT_EQ(rows[2][1], "1");
  EXPECT_EQ(rows[2][2], "cuda");
  EXPECT_EQ(rows[2][3], "ok_native_cpp_backend");
  EXPECT_EQ(rows[3][0], "track_hold");
  EXPECT_EQ(rows[3][3], "ok_low_confidence_hold");
  EXPECT_EQ(rows[3][4], std::to_string(state_box.x));
  EXPECT_EQ(rows[3][8], "0");
  EXPECT_EQ(rows[4][0], "track_fail");
  EXPECT_EQ(rows[4][3], "no_valid_candidate");
  EXPECT_EQ(rows[4][8], "0");
  EXPECT_EQ(rows[4][9], "0");
  EXPECT_EQ(rows[4][10], "0");
  EXPECT_EQ(rows[4][11], "1");
}

TEST_F(BackendReports, ViewAndImageTraceDifferInBoxAndScale) {
  const ostrel_test::TemporaryFolder folder;
  Config config = tiny_config();
  config.reference_trace_path = folder.path("trace.tsv");
  config.roi_scale_deadband_px = 0.0F;
  config.roi_scale_deadband_ratio = 0.0F;
  config.scale_change_deadband = 0.0F;
  config.scale_smoothing = 1.0F;
  config.use_log_scale_peak_refinement = false;
  config.search_scales = {1.25F};
  Tracked tracked(config);
  TargetState& state = Access::state(tracked.backend);
  const TargetState before = state;
  const auto as_text = [](float value) {
    std::ostringstream text;
    text << value;
    return text.str();
  };
  tracked.view(picture(scene(Tracked::start)));
  ASSERT_NE(state.target_scale, before.target_scale);
  const std::string updated = as_text(state.target_scale);
  const cv::Rect_<int> state_box = state.bbox_from_state_(state.image_size);
  state = before;
  const Answer from_image = tracked.image(scene(Tracked::start));
  const auto rows = rows_of(config.reference_trace_path);
  ASSERT_EQ(rows.size(), 4u);
  EXPECT_EQ(rows[2][12], as_text(before.target_scale));
  EXPECT_EQ(rows[2][4], std::to_string(state_box.x));
  EXPECT_EQ(rows[2][11], "1.25");
  EXPECT_EQ(rows[3][12], updated);
  const base::BBox& box = from_image.box;
  const std::vector<std::string> rounded{
      std::to_string(std::lround(box.x)), std::to_string(std::lround(box.y)),
      std::to_string(std::lround(box.width)), std::to_string(std::lround(box.height))};
  EXPECT_EQ(std::vector<std::string>(rows[3].begin() + 4, rows[3].begin() + 8), rounded);
}

std::string frame_line(const std::string& lines) {
  const std::size_t at = lines.find("[CudaRuntimeBackend] frame=");
  return at == std::string::npos ? "" : lines.substr(at, lines.find('\n', at) - at);
}

TEST_F(BackendReports, TimingLineTellsTheFlagAndWhetherTheFrameTeaches) {
  Config config = tiny_config();
  config.enable_hard_negative_analysis = true;
  config.peak_exclusion_scale = 0.0F;  // the peak's own neighbour is the second peak
  config.peak_distance_ratio = 0.0F;   // and no peak is the close one
  Tracked tracked(config);
  TargetState& state = Access::state(tracked.backend);
  const auto frame = picture(scene(Tracked::start));
  const auto line_of = [&](float distractor_ratio, std::string* status) {
    state.frame_index = 29;
    state.config.distractor_ratio = distractor_ratio;
    return frame_line(stderr_of([&] { *status = tracked.view(frame).status; }));
  };
  std::string status;
  const std::string uncertain = line_of(0.0F, &status);
  EXPECT_EQ(status, "ok_uncertain");
  EXPECT_NE(uncertain.find(" mem=0 flag=uncertain"), std::string::npos) << uncertain;
  state.config.hard_negative_ratio = 0.0F;
  const std::string hard_negative = line_of(kNever, &status);
  EXPECT_EQ(status, "ok_hard_negative");
  EXPECT_NE(hard_negative.find(" mem=1 flag=hard_neg"), std::string::npos) << hard_negative;
}

TEST_F(BackendReports, EqualScalesMergeAndZeroIsSkippedOnBothPaths) {
  Tracked tracked;
  TargetState& state = Access::state(tracked.backend);
  state.config.search_scales = {1.0F, 1.0F, 0.0F};
  const cv::Mat frame = scene(Tracked::start);
  for (const bool on_view : {false, true}) {
    state.frame_index = 29;
    const std::string line =
        frame_line(stderr_of([&] { on_view ? tracked.view(picture(frame)) : tracked.image(frame); }));
    // A second candidate would take its share of the margin: all of it, were it the equal scale.
    EXPECT_NE(line.find(" scale=1.0000 margin=1.000 "), std::string::npos) << line;
  }
}

TEST_F(BackendReports, RecoveryHoldsPrintTheDebugLineAndNoTimingLine) {
  Config config = tiny_config();
  config.prefer_stable_reacquisition = true;
  config.reacquire_confirm_frames = 100;
  Tracked tracked(config);
  TargetState& state = Access::state(tracked.backend);
  state.enter_recovery_mode_();
  const auto frame = picture(scene(Tracked::start));
  Answer answer;
  const std::string early = stderr_of([&] { answer = tracked.view(frame); });
  EXPECT_EQ(answer.status, "ok_reacquire_hold");
  EXPECT_EQ(count_of(early, "[TRACK_DEBUG][ATOM] view frame=1:"), 1) << early;
  state.frame_index = 29;
  const std::string late = stderr_of([&] { answer = tracked.view(frame); });
  EXPECT_EQ(answer.status, "ok_reacquire_hold");
  EXPECT_EQ(frame_line(late), "");
}

TEST_F(BackendReports, ATimeoutPrintsTheScoreOfItsFrameAndLeavesNoTrace) {
  const ostrel_test::TemporaryFolder folder;
  Config config = tiny_config();
  config.reference_trace_path = folder.path("trace.tsv");
  config.prefer_stable_reacquisition = true;
  config.reacquire_max_frames = 1;
  Tracked tracked(config);
  TargetState& state = Access::state(tracked.backend);
  state.recovery_active = true;
  state.recovery_frame_count = 1;
  Answer answer;
  const std::string lines = stderr_of([&] { answer = tracked.view(picture(scene(Tracked::start))); });
  EXPECT_FALSE(answer.ok);
  EXPECT_EQ(answer.status, "reacquire_timeout");
  EXPECT_EQ(answer.score, 0.0F);
  EXPECT_GT(answer.box.width, 0.0F);
  EXPECT_EQ(count_of(lines, "[TRACK_DEBUG][ATOM] view frame=1:"), 1) << lines;
  EXPECT_EQ(lines.find("score=0.000"), std::string::npos) << lines;
  EXPECT_EQ(rows_of(config.reference_trace_path).size(), 2u) << "the header and the start";
}

TEST_F(BackendReports, StoresTheLabelOfTheUpdatedStateAtTheFramesRate) {
  Config config = tiny_config();
  config.search_scales = {1.05F};
  config.learning_rate = 0.3F;
  Tracked tracked(config);
  const TargetState before = Access::state(tracked.backend);
  SampleMemory expected = Access::memory(tracked.backend);
  ASSERT_TRUE(tracked.view(picture(scene(Tracked::start + cv::Point_<int>(20, 0)))).ok);
  const TargetState& after = Access::state(tracked.backend);
  const SampleMemory& memory = Access::memory(tracked.backend);
  const int slot = expected.update_sample_weights_(0.3F, config.sample_memory_size);
  EXPECT_EQ(memory.sample_weights, expected.sample_weights);
  ASSERT_EQ(memory.previous_replace_index, slot);

  ASSERT_NE(after.target_pos, before.target_pos);
  const cv::Point_<float> patch_centre(std::round(before.target_pos.x), std::round(before.target_pos.y));
  const LabelMap label = build_label(after, memory.memory_label_height, memory.memory_label_width,
                                     patch_centre, before.target_scale * 1.05F);
  const auto first = memory.training_labels.begin() +
                     static_cast<std::ptrdiff_t>(slot) * static_cast<std::ptrdiff_t>(label.data.size());
  EXPECT_EQ(std::vector<float>(first, first + static_cast<std::ptrdiff_t>(label.data.size())), label.data);
}

TEST_F(BackendReports, AHardNegativeTrainsWhateverThePeriod) {
  Config config = tiny_config();
  config.enable_hard_negative_analysis = true;
  config.peak_exclusion_scale = 0.0F;
  config.distractor_ratio = kNever;
  config.hard_negative_ratio = 0.0F;
  config.hard_negative_iterations = 2;
  config.max_hard_negative_history = 5;
  Tracked tracked(config);
  const std::string lines = stderr_of([&] { tracked.image(scene(Tracked::start)); });
  const std::regex line(R"(\[train\] job=1 frame=1 reason=hard_negative schedule iter=2 .* cap=5\n)");
  EXPECT_TRUE(std::regex_search(lines, line)) << lines;
}

}  // namespace
}  // namespace track_test
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
