// A long run: ten thousand frames with trainings, holds, losses and corrections, on flat memory.

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

/// A corrected target every so often keeps all of tracking, recovery and learning in play.
void correct(CudaRuntimeBackend* backend, const cv::Rect2d& truth) {
  base::BBox box;
  backend->teleport({static_cast<float>(truth.x), static_cast<float>(truth.y),
                     static_cast<float>(truth.width), static_cast<float>(truth.height)},
                    &box, nullptr);
}

TEST(BackendSoak, TenThousandFramesLeaveMemoryFlat) {
  const ostrel_test::TemporaryFolder folder;
  ostrel::backbone::TrunkOptions trunk;
  trunk.tiny = true;
  ASSERT_TRUE(ostrel::backbone::write_trunk(trunk, folder.path("tiny.onnx")));
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
  const host_cuda::Counters end = host_cuda::counters();
  EXPECT_EQ(end.live_device_bytes, warm.live_device_bytes);
  EXPECT_EQ(end.live_pinned_bytes, warm.live_pinned_bytes);
  EXPECT_EQ(end.live_streams, warm.live_streams);
  EXPECT_EQ(end.live_events, warm.live_events);
  EXPECT_LE(resident_kib() - warm_kib, kAllowedGrowth_kib);
  RecordProperty("resident_growth_kib", static_cast<int>(resident_kib() - warm_kib));
}

}  // namespace
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
