#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <host_cuda/control.h>
#include <null_stream_watch.h>

#include <fstream>
#include <memory>
#include <opencv2/imgproc.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "support/backend_test_access.h"
#include "support/temporary_folder.h"
#include "tracking_runtime/parameter/atom/resnet18.h"
#include "tracking_runtime/tracker/atom/init_pipeline.h"
#include "trunk_writer.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// Steps of a start one by one, from a state that the steps before would not leave.
struct InitPipelineTestAccess {
  explicit InitPipelineTestAccess(InitPipeline* pipeline) : steps(*pipeline) {}

  void set_raw_sizes(int channels, int height, int width) {
    steps.raw_channels = channels;
    steps.raw_height = height;
    steps.raw_width = width;
  }
  void set_template(const FeatureMap& feature) { steps.template_feature = feature; }
  void add_item(const FeatureMap& feature) { steps.items.push_back({feature, {0.0F, 0.0F}}); }

  void drop_last_label() { steps.labels.pop_back(); }
  void set_dropout_masks(const std::vector<float>& masks) { steps.augmented.dropout_masks = masks; }

  /// Everything before the training set.
  bool prepare() {
    if (!steps.check_arguments() || !steps.start_runtime() || !steps.cut_template_patch()) return false;
    steps.place_target();
    steps.probe_device_template();
    if (!steps.learn_raw_sizes() || !steps.set_up_projection() || !steps.set_up_filter()) return false;
    steps.make_augmented_set();
    return true;
  }
  AugmentedSet& augmented() { return steps.augmented; }
  bool has_device_template() const { return static_cast<bool>(steps.device_template); }
  bool gather_training_set() { return steps.gather_training_set(); }
  bool take_host_path() { return steps.take_host_path(); }
  /// 'd'one, left for the 'h'ost, or 'f'ailed.
  char take_direct_path() {
    switch (steps.take_direct_path()) {
      case InitPipeline::DirectPath::kDone:
        return 'd';
      case InitPipeline::DirectPath::kLeftForHost:
        return 'h';
      default:
        return 'f';
    }
  }
  bool set_up_projection() { return steps.set_up_projection(); }
  bool set_up_filter() { return steps.set_up_filter(); }
  bool gather_raw_items() { return steps.gather_raw_items(); }
  bool make_labels() { return steps.make_labels(); }
  bool add_dropout_items() { return steps.add_dropout_items(); }
  void project_items() { steps.project_items(); }
  bool train_first_filter() { return steps.train_first_filter(); }

  std::size_t item_count() const { return steps.items.size(); }
  const FeatureMap& item(std::size_t index) const { return steps.items[index].feature; }
  const InitTimings& timings() const { return steps.timings; }
  const std::vector<LabelMap>& item_labels() const { return steps.item_labels; }
  const std::vector<FeatureMap>& features() const { return steps.features; }
  const std::vector<LabelMap>& labels() const { return steps.labels; }

 private:
  InitPipeline& steps;
};

namespace init_test {

constexpr int kChannels = 16;  // of the tiny trunk's features, which have 8 x 8 cells
constexpr int kCells = 8;
inline const cv::Rect_<int> kBox{30, 20, 16, 12};

/// Bytes of a tiny trunk with any batch; made once.
inline const std::string& tiny_trunk() {
  static const std::string bytes = [] {
    ostrel::backbone::TrunkOptions options;
    options.tiny = true;
    return ostrel::backbone::trunk_bytes(options);
  }();
  return bytes;
}

/// A frame of 96 x 64 with soft blobs, the same for every test.
inline cv::Mat start_frame() {
  cv::Mat frame(64, 96, CV_8UC3);
  cv::RNG(5).fill(frame, cv::RNG::UNIFORM, 0, 256);
  cv::GaussianBlur(frame, frame, cv::Size(0, 0), 2.0);
  cv::normalize(frame, frame, 0, 255, cv::NORM_MINMAX);
  return frame;
}

using Access = CudaRuntimeBackendTestAccess;

/// A backend on a tiny engine, its trace and what it prints.
class TrackingStart : public ::testing::Test {
 protected:
  TrackingStart() : config(parameter::atom::parameters()) {
    config.trt_engine_path = folder.file("tiny.onnx", tiny_trunk());
    config.reference_trace_path = folder.path("trace.tsv");
    config.search_size = ostrel::backbone::kTinyInputSize;
    config.search_area_factor = 3.0F;
    config.compressed_dim = 8;
    config.startup_filter_iterations = 5;
  }

  void TearDown() override {
    ostrel::host_cuda::clear_faults();
    held.reset();
    null_stream.expect_nothing_new();
  }

  CudaRuntimeBackend& backend() {
    if (held == nullptr) held = std::make_unique<CudaRuntimeBackend>(config);
    return *held;
  }
  TargetState& state() { return Access::state(backend()); }
  SampleMemory& memory() { return Access::memory(backend()); }
  ClassifierState& weights() { return Access::weights(backend()); }

  bool start(const cv::Mat& image, const cv::Rect_<int>& box, std::string* text) {
    ::testing::internal::CaptureStderr();
    const bool started = backend().initialize(image, box, text);
    printed = ::testing::internal::GetCapturedStderr();
    return started;
  }
  bool start(const cv::Rect_<int>& box = kBox) { return start(frame, box, &error); }

  static std::vector<std::string> lines_of(std::istream& text) {
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);) lines.push_back(line);
    return lines;
  }
  /// What was printed about the start itself.
  std::vector<std::string> init_lines() const {
    std::istringstream text(printed);
    std::vector<std::string> lines;
    for (const std::string& line : lines_of(text)) {
      if (line.rfind("[CudaRuntimeBackend] init", 0) == 0 || line.rfind("[TRACK_DEBUG][ATOM] init", 0) == 0) {
        lines.push_back(line);
      }
    }
    return lines;
  }
  /// The last word on the path that the start took.
  std::string path() const {
    const std::string mark = " path=";
    const std::size_t at = printed.find(mark);
    if (at == std::string::npos) return "";
    return printed.substr(at + mark.size(), printed.find('\n', at) - at - mark.size());
  }
  /// Lines of the trace without its header.
  std::vector<std::string> trace_lines() const {
    std::ifstream file(config.reference_trace_path);
    std::vector<std::string> lines = lines_of(file);
    if (!lines.empty()) lines.erase(lines.begin());
    return lines;
  }

  ostrel_test::TemporaryFolder folder;
  NativeCppBackend::Config config;
  cv::Mat frame = start_frame();
  std::string error = "stale";
  std::string printed;

 private:
  std::unique_ptr<CudaRuntimeBackend> held;
  ostrel_test::NullStreamWatch null_stream;
};

}  // namespace init_test
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
