// The frame call of the real backend: words, order of the refusals, routes, and what a steady frame costs.

#include "tracking_runtime/tracker/atom/track_fixture.h"

#include <cmath>
#include <opencv2/imgproc.hpp>

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace track_test {
namespace {

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

TEST_F(BackendTracking, AViewOfTwiceTheResolutionKeepsFrameCoordinates) {
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
}  // namespace track_test
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
