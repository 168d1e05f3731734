// Long runs on flat memory: ten thousand frames with trainings, holds, losses and corrections, and 200 starts.

#include <gtest/gtest.h>
#include <host_cuda/control.h>
#include <ostrel_scene/scene.h>
#include <trunk_writer.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "support/temporary_folder.h"
#include "tracking_runtime/parameter/atom/resnet18.h"
#include "tracking_runtime/tracker/atom/cuda_runtime_backend.h"
#include "tracking_runtime/tracker/atom/optrix_adapter.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

namespace host_cuda = ostrel::host_cuda;

constexpr int kFrames = 10000;
constexpr int kWarmUpFrames = 2000;
// The allocator's own slack; a leak of one response map a frame would be 30 times as much.
constexpr long kAllowedGrowth_kib = 1024;

long resident_kib() {
  std::ifstream statm("/proc/self/statm");
  long total = 0;
  long resident = 0;
  statm >> total >> resident;
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

std::shared_ptr<optrix::OptrixPicture> picture(const cv::Mat& image) {
  return optrix::OptrixPicture::fromBgr({image.data, image.cols, image.rows, image.step});
}

NativeCppBackend::Config tiny_config(const std::string& engine) {
  NativeCppBackend::Config config = parameter::atom::parameters();
  config.trt_engine_path = engine;
  config.search_size = ostrel::backbone::kTinyInputSize;
  config.search_area_factor = 4.0F;
  config.compressed_dim = 8;
  config.sample_memory_size = 50;
  config.frames_between_learning = 20;
  config.startup_filter_iterations = 10;
  return config;
}

bool write_tiny_trunk(const std::string& path) {
  ostrel::backbone::TrunkOptions trunk;
  trunk.tiny = true;
  return ostrel::backbone::write_trunk(trunk, path);
}

void expect_same_device_handles(const host_cuda::Counters& then, const host_cuda::Counters& now) {
  EXPECT_EQ(now.live_device_allocations, then.live_device_allocations);
  EXPECT_EQ(now.live_device_bytes, then.live_device_bytes);
  EXPECT_EQ(now.live_pinned_bytes, then.live_pinned_bytes);
  EXPECT_EQ(now.live_streams, then.live_streams);
  EXPECT_EQ(now.live_events, then.live_events);
}

/// A corrected target every so often keeps all of tracking, recovery and learning in play.
void correct(CudaRuntimeBackend* backend, const cv::Rect2d& truth) {
  base::BBox box;
  backend->teleport({static_cast<float>(truth.x), static_cast<float>(truth.y),
                     static_cast<float>(truth.width), static_cast<float>(truth.height)},
                    &box, nullptr);
}

TEST(BackendSoak, TenThousandFramesLeaveMemoryFlat) {
  const ostrel_test::TemporaryFolder folder;
  ASSERT_TRUE(write_tiny_trunk(folder.path("tiny.onnx")));
  ostrel_scene::SceneOptions options;
  options.width_px = 160;
  options.height_px = 120;
  options.frames = 100;
  const ostrel_scene::Scene scene(options);
  std::vector<std::shared_ptr<optrix::OptrixPicture>> pictures;
  for (int i = 0; i < options.frames; ++i) pictures.push_back(picture(scene.render(i).image));

  CudaRuntimeBackend backend(tiny_config(folder.path("tiny.onnx")));
  const cv::Rect_<int> start(scene.target_at(0));
  ASSERT_TRUE(backend.initialize(scene.render(0).image, start, nullptr));
  long warm_kib = 0;
  host_cuda::Counters warm;
  for (int i = 0; i < kFrames; ++i) {
    const int frame = i % options.frames;
    if (frame == 0) correct(&backend, scene.target_at(0));
    base::BBox box;
    float score = 0.0F;
    std::string status;
    backend.track(pictures[static_cast<std::size_t>(frame)], 1.0F, 1.0F, options.width_px, options.height_px,
                  &box, &score, &status);
    ASSERT_FALSE(status.empty());
    if (i != kWarmUpFrames) continue;
    warm_kib = resident_kib();
    warm = host_cuda::counters();
  }
  expect_same_device_handles(warm, host_cuda::counters());
  EXPECT_LE(resident_kib() - warm_kib, kAllowedGrowth_kib);
  RecordProperty("resident_growth_kib", static_cast<int>(resident_kib() - warm_kib));
}

TEST(BackendSoak, TwoHundredStartsLeaveMemoryFlat) {
  constexpr int kStarts = 200;
  constexpr int kWarmUpStarts = 40;
  const ostrel_test::TemporaryFolder folder;
  ASSERT_TRUE(write_tiny_trunk(folder.path("tiny.onnx")));
  cv::Mat frame(120, 160, CV_8UC3);
  cv::RNG(3).fill(frame, cv::RNG::UNIFORM, 0, 256);

  CudaRuntimeBackend backend(tiny_config(folder.path("tiny.onnx")));
  long warm_kib = 0;
  host_cuda::Counters warm;
  for (int i = 0; i < kStarts; ++i) {
    const cv::Rect_<int> box(10 + i % 100, 8 + i % 70, 20 + i % 9, 20 + i % 7);
    std::string error;
    ASSERT_TRUE(backend.initialize(frame, box, &error)) << error;
    if (i != kWarmUpStarts) continue;
    warm_kib = resident_kib();
    warm = host_cuda::counters();
  }
  expect_same_device_handles(warm, host_cuda::counters());
  EXPECT_LE(resident_kib() - warm_kib, kAllowedGrowth_kib);
  RecordProperty("resident_growth_kib", static_cast<int>(resident_kib() - warm_kib));
}

}  // namespace
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
