#pragma once

#include <gtest/gtest.h>
#include <host_cuda/control.h>
#include <null_stream_watch.h>

#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "support/backend_test_access.h"
#include "tracking_runtime/parameter/atom/resnet18.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// A backend with a filter and, by `fill`, samples of 2 x 3 x 4; its engine is never loaded. Standard error is
/// read through `printed`.
class TrainingFixture : public ::testing::Test {
 protected:
  using Access = CudaRuntimeBackendTestAccess;

  static constexpr int kChannels = 2;
  static constexpr int kHeight = 3;
  static constexpr int kWidth = 4;
  static constexpr int kCapacity = 6;

  TrainingFixture() : backend_(std::make_unique<CudaRuntimeBackend>(config())) {
    ClassifierState& weights = Access::weights(*backend_);
    weights.filter_weights.assign(kChannels * 2 * 2, 0.05F);
    weights.filter_channels = kChannels;
    weights.filter_height = 2;
    weights.filter_width = 2;
    weights.filter_version = 7;
  }
  ~TrainingFixture() override { ostrel::host_cuda::clear_faults(); }
  void TearDown() override { null_stream_.expect_nothing_new(); }

  static NativeCppBackend::Config config() {
    NativeCppBackend::Config config = parameter::atom::parameters();
    config.sample_memory_size = kCapacity;
    return config;
  }

  /// A sample with a bright spot that its label wants, both moved by `shift`.
  static FeatureMap feature(int shift) {
    FeatureMap map{1, kChannels, kHeight, kWidth, std::vector<float>(kChannels * kHeight * kWidth)};
    for (std::size_t i = 0; i < map.data.size(); ++i) {
      map.data[i] = static_cast<float>((i * 7 + static_cast<std::size_t>(shift) * 5) % 11) / 11.0F;
    }
    return map;
  }
  static LabelMap label(int shift) {
    LabelMap map{1, kHeight, kWidth, std::vector<float>(kHeight * kWidth)};
    map.data[static_cast<std::size_t>(shift) % map.data.size()] = 1.0F;
    return map;
  }
  void fill(int samples) {
    std::vector<FeatureMap> features;
    std::vector<LabelMap> labels;
    for (int i = 0; i < samples; ++i) {
      features.push_back(feature(i));
      labels.push_back(label(i));
    }
    ASSERT_TRUE(Access::batch_init_memory(*backend_, features, labels));
  }

  std::vector<float> filter() const {
    const std::lock_guard<std::mutex> lock(Access::state_mutex(*backend_));
    return Access::weights(*backend_).filter_weights;
  }
  std::uint64_t filter_version() const {
    const std::lock_guard<std::mutex> lock(Access::state_mutex(*backend_));
    return Access::weights(*backend_).filter_version;
  }

  void schedule(int iterations, int cap, const char* reason, int frame) {
    Access::train_filter_async(*backend_, iterations, cap, reason, frame);
  }
  /// Lets the job end without collecting it.
  void wait_for_job() {
    if (Access::training_future(*backend_).valid()) Access::training_future(*backend_).wait();
  }
  /// Leaves a job behind that ended with this exception.
  template <typename Exception>
  void leave_failed_job(const Exception& exception) {
    std::promise<void> promise;
    promise.set_exception(std::make_exception_ptr(exception));
    Access::training_future(*backend_) = promise.get_future();
  }

  /// The lines that `action` writes to standard error, times replaced by "T".
  template <typename Action>
  static std::vector<std::string> printed(Action&& action) {
    ::testing::internal::CaptureStderr();
    std::forward<Action>(action)();
    std::istringstream text(::testing::internal::GetCapturedStderr());
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);) {
      const std::size_t time = line.find(" elapsed=");
      if (time != std::string::npos) line = line.substr(0, time) + check_elapsed(line.substr(time));
      lines.push_back(line);
    }
    return lines;
  }

  std::unique_ptr<CudaRuntimeBackend> backend_;

 private:
  static std::string check_elapsed(const std::string& text) {
    double elapsed_ms = -1.0;
    int end = 0;
    std::sscanf(text.c_str(), " elapsed=%lfms%n", &elapsed_ms, &end);
    const bool one_decimal = text.size() > 4 && text[text.size() - 4] == '.';
    return elapsed_ms >= 0.0 && one_decimal && end == static_cast<int>(text.size()) ? " elapsed=T" : text;
  }

  ostrel_test::NullStreamWatch null_stream_;
};

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
