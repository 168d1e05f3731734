#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <optional>
#include <string>

#include "support/fake_backend.h"
#include "tracking_runtime/parameter/atom/resnet18.h"
#include "tracking_runtime/tracker/atom/atom.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// What the facade keeps to itself.
struct AtomTestAccess {
  static bool initialized(const ATOM& atom) { return atom.initialized_; }
  static const base::BBox& last_bbox(const ATOM& atom) { return atom.last_bbox_; }
  static const NativeCppBackend::Config& config(const ATOM& atom) { return atom.config_; }
  static cv::Size_<float> frame_size(const ATOM& atom) { return {atom.frame_width_, atom.frame_height_}; }
  static void set_frame_size(ATOM* atom, float width, float height) {
    atom->frame_width_ = width;
    atom->frame_height_ = height;
  }
  static void drop_backend(ATOM* atom) { atom->backend_.reset(); }
};

/// Fresh fakes, and an environment that names no engine.
class AtomFixture : public ::testing::Test {
 protected:
  static constexpr const char* kEngineVariable = "OSTREL_TRACKER_ATOM_TRT_ENGINE";

  void SetUp() override {
    const char* engine = std::getenv(kEngineVariable);
    if (engine != nullptr) engine_before_ = engine;
    ::unsetenv(kEngineVariable);
    fakes().reset();
  }
  void TearDown() override {
    fakes().reset();
    if (engine_before_) ::setenv(kEngineVariable, engine_before_->c_str(), 1);
  }

  static ostrel_test::FakeBackends& fakes() { return ostrel_test::FakeBackends::instance(); }
  static ostrel_test::FakeBackendScript seen() { return fakes().snapshot(); }
  static NativeCppBackend::Config config_with_backend(const std::string& word) {
    NativeCppBackend::Config config = parameter::atom::parameters();
    config.runtime_backend = word;
    return config;
  }
  static cv::Mat image(int width = 640, int height = 480) { return cv::Mat::zeros(height, width, CV_8UC3); }
  /// A view that is only ever handed on.
  static std::shared_ptr<optrix::OptrixPicture> view() {
    static int anything = 0;
    return {std::shared_ptr<void>(), reinterpret_cast<optrix::OptrixPicture*>(&anything)};
  }

 private:
  std::optional<std::string> engine_before_;
};

inline void expect_box(const base::BBox& box, float x, float y, float width, float height) {
  EXPECT_EQ(box.x, x);
  EXPECT_EQ(box.y, y);
  EXPECT_EQ(box.width, width);
  EXPECT_EQ(box.height, height);
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
