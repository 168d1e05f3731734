#pragma once

#include <cuda_runtime.h>
#include <gtest/gtest.h>
#include <host_cuda/control.h>
#include <null_stream_watch.h>

#include <memory>
#include <string>
#include <vector>

#include "support/strided_engine.h"
#include "support/temporary_folder.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_projection_classifier.h"
#include "tracking_runtime/tracker/atom/gpu/trt_engine_cache.h"
#include "tracking_runtime/tracker/atom/gpu/trt_worker_set.h"

namespace ostrel_test {

namespace atom = ostrel_tracker::tracking_runtime::tracker::atom;
namespace host_cuda = ostrel::host_cuda;
using ostrel_tracker::tracking_runtime::tracker::atom::FeatureMap;
using ostrel_tracker::tracking_runtime::tracker::atom::TrtBackbone;

/// Engines in a folder of their own, so that each test has cache entries of its own, and the workers of one.
class EngineTest : public ::testing::Test {
 protected:
  void TearDown() override {
    host_cuda::clear_faults();
    trt_workers.clear();
    trt.reset();
    null_stream_.expect_nothing_new();
  }

  /// Under a name of its own: what a path once held stays cached.
  std::string write_engine(const StridedEngine& engine) {
    return folder.file(std::to_string(++engines_) + ".engine", engine.bytes());
  }

  /// The workers of an engine; what is written to standard error is kept in `banner`.
  bool start(const std::string& path, std::size_t scales, int search_size = 32) {
    error.clear();
    ::testing::internal::CaptureStderr();
    const bool made = atom::make_trt_workers({path, search_size, scales}, &trt, &trt_workers, &error);
    banner = ::testing::internal::GetCapturedStderr();
    return made;
  }
  bool start(const StridedEngine& engine, std::size_t scales) { return start(write_engine(engine), scales); }

  TemporaryFolder folder;
  std::unique_ptr<TrtBackbone> trt;
  std::vector<std::unique_ptr<TrtBackbone>> trt_workers;
  std::string error;
  std::string banner;

 private:
  int engines_ = 0;
  NullStreamWatch null_stream_;
};

inline std::vector<cv::Mat> random_patches(std::size_t count, std::uint32_t seed = 1, int side = 32) {
  std::vector<cv::Mat> patches;
  for (std::size_t i = 0; i < count; ++i) {
    patches.push_back(random_patch(side, side, seed + static_cast<std::uint32_t>(i)));
  }
  return patches;
}

}  // namespace ostrel_test
