// The frame call of the real backend on a rendered scene, with a tiny engine: words, order of the refusals,
// lines, trace, learning, and what a steady frame costs.

#include <gtest/gtest.h>
#include <host_cuda/control.h>
#include <trunk_writer.h>

#include <fstream>
#include <functional>
#include <opencv2/imgproc.hpp>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "support/backend_test_access.h"
#include "support/temporary_folder.h"
#include "tracking_runtime/parameter/atom/resnet18.h"
#include "tracking_runtime/tracker/atom/cuda_runtime_backend.h"
#include "tracking_runtime/tracker/atom/optrix_adapter.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

namespace host_cuda = ostrel::host_cuda;
using Access = CudaRuntimeBackendTestAccess;
using Config = NativeCppBackend::Config;

constexpr int kFrameWidth = 160;
constexpr int kFrameHeight = 120;
constexpr int kTargetSide = 24;
constexpr float kNever = 1e9F;
// The tiny engine sees the 96 px of a patch in 8 cells: positions are good to about a cell of 12 px.
constexpr float kCellAndAHalf_px = 18.0F;

/// A grey scene with a bright checkered target at `corner`.
cv::Mat scene(cv::Point_<int> corner) {
  cv::Mat image(kFrameHeight, kFrameWidth, CV_8UC3);
  for (int y = 0; y < image.rows; ++y) {
    for (int x = 0; x < image.cols; ++x) {
      const int noise = (x * 37 + y * 101 + x * y) % 32;
      image.at<cv::Vec3b>(y, x) = cv::Vec3b::all(static_cast<unsigned char>(80 + noise));
    }
  }
  for (int y = 0; y < kTargetSide; ++y) {
    for (int x = 0; x < kTargetSide; ++x) {
      const bool odd = ((x / 6) + (y / 6)) % 2 == 1;
      image.at<cv::Vec3b>(corner.y + y, corner.x + x) =
          odd ? cv::Vec3b(30, 220, 250) : cv::Vec3b(240, 30, 20);
    }
  }
  return image;
}

std::shared_ptr<optrix::OptrixPicture> picture(const cv::Mat& image) {
  return optrix::OptrixPicture::fromBgr({image.data, image.cols, image.rows, image.step},
                                        optrix::PixelFormat::kBgr);
}

const std::string& tiny_engine() {
  static const ostrel_test::TemporaryFolder folder;
  static const std::string path = [] {
    ostrel::backbone::TrunkOptions options;
    options.tiny = true;
    options.seed = 5;
    const std::string file = folder.path("tiny.onnx");
    if (!ostrel::backbone::write_trunk(options, file)) throw std::runtime_error("no engine");
    return file;
  }();
  return path;
}

/// Settings under which every frame with a peak is accepted and stored, and none trains.
Config tiny_config() {
  Config config = parameter::atom::parameters();
  config.trt_engine_path = tiny_engine();
  config.search_size = ostrel::backbone::kTinyInputSize;
  config.search_area_factor = 4.0F;
  config.search_scales = {0.95F, 1.0F, 1.05F};
  config.compressed_dim = 8;
  config.proj_init_method = "pca";  // the same start each time, but for the dropout masks
  config.filter_init_method = "zeros";
  config.sample_memory_size = 20;
  config.filter_regularization = 0.1F;
  config.startup_filter_iterations = 10;
  config.target_not_found_score_threshold = -kNever;
  config.enable_hard_negative_analysis = false;
  config.jump_filter_enabled = false;
  config.prefer_stable_reacquisition = false;
  config.min_update_confidence = 0.0F;
  config.min_update_scale_margin = 0.0F;
  config.frames_between_learning = 1000000;
  return config;
}

struct Answer {
  bool ok = false;
  base::BBox box{-1.0F, -1.0F, -1.0F, -1.0F};
  float score = -1.0F;
  std::string status;
};

class Tracked {
 public:
  explicit Tracked(const Config& config = tiny_config()) : backend(config) {
    std::string error;
    started = backend.initialize(scene(start), {start.x, start.y, kTargetSide, kTargetSide}, &error);
    EXPECT_TRUE(started) << error;
  }

  Answer image(const cv::Mat& frame) {
    Answer answer;
    answer.ok = backend.track(frame, &answer.box, &answer.score, &answer.status);
    return answer;
  }
  Answer view(const std::shared_ptr<optrix::OptrixPicture>& frame, float scale_x = 1.0F, float scale_y = 1.0F,
              int width = kFrameWidth, int height = kFrameHeight) {
    Answer answer;
    answer.ok =
        backend.track(frame, scale_x, scale_y, width, height, &answer.box, &answer.score, &answer.status);
    return answer;
  }

  static inline const cv::Point_<int> start{60, 40};
  CudaRuntimeBackend backend;
  bool started = false;
};

class BackendTracking : public ::testing::Test {
 protected:
  ~BackendTracking() override { host_cuda::clear_faults(); }
};

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

TEST_F(BackendTracking, RefusesInTheDocumentedOrder) {
  CudaRuntimeBackend fresh(tiny_config());
  base::BBox box;
  float score = 0.0F;
  std::string status;
  EXPECT_FALSE(fresh.track(cv::Mat(), nullptr, &score, &status));
  EXPECT_EQ(status, "invalid_track_arguments");
  EXPECT_FALSE(fresh.track(cv::Mat(), &box, nullptr, &status));
  EXPECT_EQ(status, "invalid_track_arguments");
  EXPECT_FALSE(fresh.track(cv::Mat(), &box, &score, &status));
  EXPECT_EQ(status, "backend_not_initialized");
  EXPECT_FALSE(fresh.track(nullptr, 0.0F, 0.0F, 0, 0, nullptr, &score, &status));
  EXPECT_EQ(status, "invalid_track_arguments");
  EXPECT_FALSE(fresh.track(nullptr, 0.0F, 0.0F, 0, 0, &box, &score, &status));
  EXPECT_EQ(status, "backend_not_initialized");
  EXPECT_FALSE(fresh.track(nullptr, 0.0F, 0.0F, 0, 0, &box, &score, nullptr));

  Tracked tracked;
  EXPECT_EQ(tracked.image(cv::Mat()).status, "empty_image");
  EXPECT_EQ(tracked.view(nullptr, 0.0F).status, "null_frame_view");
  const auto view = picture(scene(Tracked::start));
  EXPECT_EQ(tracked.view(view, 0.0F).status, "invalid_view_mapping");
  EXPECT_EQ(tracked.view(view, 1.0F, -1.0F).status, "invalid_view_mapping");
  EXPECT_EQ(tracked.view(view, 1.0F, 1.0F, 0).status, "invalid_view_mapping");
  EXPECT_EQ(tracked.view(view, 1.0F, 1.0F, 10, 0).status, "invalid_view_mapping");
  EXPECT_EQ(tracked.view(view, std::nanf("")).status, "invalid_view_mapping");
  EXPECT_EQ(Access::state(tracked.backend).frame_index, 0);
  EXPECT_TRUE(tracked.view(view).ok);
}

TEST_F(BackendTracking, NeedsAClassifierFilter) {
  Tracked tracked;
  Access::weights(tracked.backend).filter_weights.clear();
  const cv::Mat frame(50, 70, CV_8UC3, cv::Scalar::all(9));
  const Answer answer = tracked.image(frame);
  EXPECT_FALSE(answer.ok);
  EXPECT_EQ(answer.status, "classifier_filter_missing");
  EXPECT_EQ(Access::state(tracked.backend).image_size, frame.size());
  EXPECT_EQ(tracked.view(picture(frame), 1.0F, 1.0F, 71, 51).status, "classifier_filter_missing");
  EXPECT_EQ(Access::state(tracked.backend).image_size, cv::Size(71, 51));
  EXPECT_EQ(Access::state(tracked.backend).frame_index, 0);
}

TEST_F(BackendTracking, FollowsAMovingTargetOnBothPaths) {
  for (const bool on_view : {false, true}) {
    Tracked tracked;
    for (int step = 1; step <= 8; ++step) {
      const cv::Point_<int> corner = Tracked::start + cv::Point_<int>(4 * step, 2 * step);
      const cv::Mat frame = scene(corner);
      const Answer answer = on_view ? tracked.view(picture(frame)) : tracked.image(frame);
      ASSERT_TRUE(answer.ok) << answer.status;
      EXPECT_EQ(answer.status, on_view ? "ok" : "ok_native_cpp_backend");
      EXPECT_NEAR(answer.box.x + answer.box.width / 2, static_cast<float>(corner.x) + 12.0F, kCellAndAHalf_px)
          << step;
      EXPECT_NEAR(answer.box.y + answer.box.height / 2, static_cast<float>(corner.y) + 12.0F,
                  kCellAndAHalf_px)
          << step;
    }
  }
}

TEST_F(BackendTracking, BothPathsReadTheSamePixels) {
  Tracked tracked;
  const TargetState before = Access::state(tracked.backend);
  const cv::Mat frame = scene(Tracked::start + cv::Point_<int>(4, 2));
  const Answer from_image = tracked.image(frame);
  Access::state(tracked.backend) = before;
  const Answer from_view = tracked.view(picture(frame));
  ASSERT_TRUE(from_image.ok && from_view.ok);
  // The two resamplers treat a reduction alike; bytes against floats leave a grey level between them.
  EXPECT_NEAR(from_image.box.x, from_view.box.x, 1.5F);
  EXPECT_NEAR(from_image.box.y, from_view.box.y, 1.5F);
}

TEST_F(BackendTracking, AViewOfHalfTheResolutionKeepsFrameCoordinates) {
  Tracked tracked;
  cv::Mat doubled;
  cv::resize(scene(Tracked::start), doubled, {}, 2.0, 2.0, cv::INTER_NEAREST);
  const Answer answer = tracked.view(picture(doubled), 2.0F, 2.0F);
  ASSERT_TRUE(answer.ok) << answer.status;
  EXPECT_NEAR(answer.box.x, static_cast<float>(Tracked::start.x), kCellAndAHalf_px);
  EXPECT_NEAR(answer.box.width, static_cast<float>(kTargetSide), 3.0F);
}

TEST_F(BackendTracking, AFailedCropLeavesEverythingAsItWas) {
  Tracked tracked;
  const Answer answer = tracked.view(optrix::OptrixPicture::withoutPixels(kFrameWidth, kFrameHeight));
  EXPECT_FALSE(answer.ok);
  EXPECT_EQ(answer.status, "gpu_affine_crop_failed");
  EXPECT_EQ(answer.score, -1.0F);
  EXPECT_EQ(Access::state(tracked.backend).frame_index, 0);
  EXPECT_TRUE(tracked.view(picture(scene(Tracked::start))).ok);
}

TEST_F(BackendTracking, AShortBatchIsAFailedCrop) {
  Tracked tracked;
  host_cuda::answer_call("getAffineBatchFloat32", 1, {2});
  EXPECT_EQ(tracked.view(picture(scene(Tracked::start))).status, "gpu_affine_crop_failed");
}

TEST_F(BackendTracking, WithoutAScaleAboveZeroTheLibraryDecides) {
  Config config = tiny_config();
  Tracked tracked(config);
  Access::state(tracked.backend).config.search_scales = {0.0F, -1.0F};
  EXPECT_EQ(tracked.view(picture(scene(Tracked::start))).status, "gpu_affine_crop_failed");
  EXPECT_EQ(Access::state(tracked.backend).frame_index, 0);
  EXPECT_EQ(tracked.image(scene(Tracked::start)).status, "no_valid_candidate");
  EXPECT_EQ(Access::state(tracked.backend).frame_index, 1);
}

TEST_F(BackendTracking, TheViewPathAnswersWithTheClassifiersText) {
  Tracked tracked;
  host_cuda::fail_call("enqueueV3", 1, 1);
  const Answer answer = tracked.view(picture(scene(Tracked::start)));
  EXPECT_FALSE(answer.ok);
  EXPECT_EQ(answer.status, "TensorRT enqueue failed for TensorBatch classify path");
  EXPECT_EQ(Access::state(tracked.backend).frame_index, 0);
  EXPECT_TRUE(tracked.view(picture(scene(Tracked::start))).ok);
}

TEST_F(BackendTracking, TheImagePathFallsBackToTheHostRoute) {
  Tracked tracked;
  const TargetState before = Access::state(tracked.backend);
  const cv::Mat frame = scene(Tracked::start + cv::Point_<int>(4, 0));
  const Answer direct = tracked.image(frame);
  Access::state(tracked.backend) = before;
  host_cuda::fail_call("classify_kernel", 1, cudaErrorLaunchFailure);
  const Answer fallen_back = tracked.image(frame);
  ASSERT_TRUE(direct.ok && fallen_back.ok) << fallen_back.status;
  EXPECT_EQ(fallen_back.status, "ok_native_cpp_backend");
  EXPECT_NEAR(direct.box.x, fallen_back.box.x, 0.05F);
  EXPECT_NEAR(direct.score, fallen_back.score, 1e-3F);
}

TEST_F(BackendTracking, WithoutAnyRouteThereIsNoCandidate) {
  Tracked tracked;
  host_cuda::fail_every_call("enqueueV3", 1);
  const Answer answer = tracked.image(scene(Tracked::start));
  EXPECT_FALSE(answer.ok);
  EXPECT_EQ(answer.status, "no_valid_candidate");
  EXPECT_EQ(Access::state(tracked.backend).frame_index, 1);
}

TEST_F(BackendTracking, AHoldPublishesTheStateWithScoreZero) {
  Config config = tiny_config();
  config.target_not_found_score_threshold = kNever;
  Tracked tracked(config);
  const Answer answer = tracked.view(picture(scene(Tracked::start + cv::Point_<int>(10, 10))));
  EXPECT_TRUE(answer.ok);
  EXPECT_EQ(answer.status, "ok_low_confidence_hold");
  EXPECT_EQ(answer.score, 0.0F);
  EXPECT_EQ(answer.box.x, static_cast<float>(Tracked::start.x) - 0.5F);
}

TEST_F(BackendTracking, StoresOneSampleAnAcceptedFrame) {
  Tracked tracked;
  const int before = Access::memory(tracked.backend).num_stored_samples;
  tracked.view(picture(scene(Tracked::start)));
  tracked.image(scene(Tracked::start));
  EXPECT_EQ(Access::memory(tracked.backend).num_stored_samples, before + 2);
  Access::state(tracked.backend).config.enable_online_update = false;
  tracked.view(picture(scene(Tracked::start)));
  EXPECT_EQ(Access::memory(tracked.backend).num_stored_samples, before + 2);
}

TEST_F(BackendTracking, SchedulesTrainingByItsPeriod) {
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

TEST_F(BackendTracking, DebugLineOfTheViewPathStopsAfterTenFrames) {
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

TEST_F(BackendTracking, HoldsAndTheImagePathPrintNoDebugLine) {
  Tracked tracked;
  EXPECT_EQ(count_of(stderr_of([&] { tracked.image(scene(Tracked::start)); }), "[TRACK_DEBUG]"), 0);
  Access::state(tracked.backend).config.target_not_found_score_threshold = kNever;
  EXPECT_EQ(count_of(stderr_of([&] { tracked.view(picture(scene(Tracked::start))); }), "[TRACK_DEBUG]"), 0);
  Access::state(tracked.backend).config.target_not_found_score_threshold = -kNever;
  Access::state(tracked.backend).config.jump_filter_enabled = true;
  Access::state(tracked.backend).config.jump_min_score = 1.0F;
  EXPECT_EQ(count_of(stderr_of([&] { tracked.view(picture(scene(Tracked::start))); }), "[TRACK_DEBUG]"), 0);
}

TEST_F(BackendTracking, TimingLineComesEveryThirtiethAcceptedFrame) {
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

TEST_F(BackendTracking, TracesEachDecision) {
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

TEST_F(BackendTracking, ViewAndImageTraceDifferInBoxAndScale) {
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
  tracked.image(scene(Tracked::start));
  const auto rows = rows_of(config.reference_trace_path);
  ASSERT_EQ(rows.size(), 4u);
  EXPECT_EQ(rows[2][12], as_text(before.target_scale));
  EXPECT_EQ(rows[2][4], std::to_string(state_box.x));
  EXPECT_EQ(rows[2][11], "1.25");
  EXPECT_EQ(rows[3][12], updated);
}

TEST_F(BackendTracking, ASteadyFrameAllocatesNoDeviceMemoryAndWaitsOncePerResult) {
  Tracked tracked;
  const auto frame = picture(scene(Tracked::start));
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(tracked.view(frame).ok);
  host_cuda::reset_counters();
  ASSERT_TRUE(tracked.view(frame).ok);
  const host_cuda::Counters counters = host_cuda::counters();
  EXPECT_EQ(counters.calls_of("cudaMalloc"), 0);
  EXPECT_EQ(counters.calls_of("cudaMallocHost"), 0);
  EXPECT_EQ(counters.calls_of("cudaMemcpy"), 0);
  EXPECT_EQ(counters.null_stream_work, 0);
  EXPECT_EQ(counters.synchronisations, 4);  // the responses once, each of three projected samples once
}

TEST_F(BackendTracking, BrokenPixelsNeverBreakTheTracker) {
  Tracked tracked;
  TargetState& state = Access::state(tracked.backend);
  state.target_pos = {std::nanf(""), 1e20F};
  EXPECT_EQ(tracked.image(scene(Tracked::start)).status, "no_valid_candidate");
  tracked.view(picture(scene(Tracked::start)));  // any answer, and no crash
  SUCCEED();
}

TEST_F(BackendTracking, FramesOfAnySizeAreTaken) {
  Tracked tracked;
  for (const cv::Size_<int> size : {cv::Size_<int>(1, 1), {2, 3}, {7, 500}, {501, 3}, {161, 119}}) {
    const cv::Mat frame(size, CV_8UC3, cv::Scalar::all(90));
    EXPECT_TRUE(tracked.image(frame).ok) << size.width;
    EXPECT_TRUE(tracked.view(picture(frame), 1.0F, 1.0F, size.width, size.height).ok) << size.width;
  }
  EXPECT_TRUE(tracked.view(picture(scene(Tracked::start))).ok);
}

}  // namespace
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
