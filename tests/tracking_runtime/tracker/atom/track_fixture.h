// The real backend, started on a rendered scene with a tiny engine.

#pragma once

#include <gtest/gtest.h>
#include <host_cuda/control.h>
#include <null_stream_watch.h>
#include <trunk_writer.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "support/backend_test_access.h"
#include "support/temporary_folder.h"
#include "tracking_runtime/parameter/atom/resnet18.h"
#include "tracking_runtime/tracker/atom/cuda_runtime_backend.h"
#include "tracking_runtime/tracker/atom/optrix_adapter.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace track_test {

namespace host_cuda = ostrel::host_cuda;
using Access = CudaRuntimeBackendTestAccess;
using Config = NativeCppBackend::Config;

inline constexpr int kFrameWidth = 160;
inline constexpr int kFrameHeight = 120;
inline constexpr int kTargetSide = 24;
inline constexpr float kNever = 1e9F;
// The tiny engine sees the 96 px of a patch in 8 cells: positions are good to about a cell of 12 px.
inline constexpr float kCellAndAHalf_px = 18.0F;

/// A grey scene with a bright checkered target at `corner`.
inline cv::Mat scene(cv::Point_<int> corner) {
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

inline std::shared_ptr<optrix::OptrixPicture> picture(const cv::Mat& image) {
  return optrix::OptrixPicture::fromBgr({image.data, image.cols, image.rows, image.step},
                                        optrix::PixelFormat::kBgr);
}

inline const std::string& tiny_engine() {
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
inline Config tiny_config() {
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
  void TearDown() override { null_stream_.expect_nothing_new(); }

 private:
  ostrel_test::NullStreamWatch null_stream_;
};

}  // namespace track_test
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
