#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "tracking_runtime/tracker/atom/native_cpp_backend.h"
#include "tracking_runtime/tracker/base/bbox.h"

/// A runtime backend without a GPU. A test program that links `ostrel_fake_backend` gets it wherever the real
/// one would stand: behind the facade, and behind the plug-in object above it.

namespace ostrel_test {

namespace atom = ostrel_tracker::tracking_runtime::tracker::atom;
namespace base = ostrel_tracker::tracking_runtime::tracker::base;

/// What one operation answers. A false answer still writes its text; a box and score are written with either.
struct FakeAnswer {
  bool ok = true;
  std::string text;
  base::BBox bbox{10.0F, 20.0F, 30.0F, 40.0F};
  float score = 0.9F;
};

/// What the fake backends of this process answer, and what they were asked.
struct FakeBackendScript {
  FakeAnswer initialize;
  FakeAnswer track;
  FakeAnswer teleport;
  FakeAnswer zoom_changed;
  FakeAnswer update_config;
  /// Runs inside every operation, named "initialize", "track", "track_view", "teleport", "zoomChanged" or
  /// "updateConfig", on the thread that called it; may block or throw.
  std::function<void(const std::string& operation)> on_call;
  /// Corrects the record that `updateConfig` takes, as a backend does with fields that it refuses.
  std::function<void(atom::NativeCppBackend::Config*)> correct_config;

  std::vector<std::string> calls;  ///< the operations, in order
  int made = 0;
  int alive = 0;
  atom::NativeCppBackend::Config made_with;     ///< of the backend made last
  atom::NativeCppBackend::Config updated_with;  ///< of the last `updateConfig`, before any correction
  cv::Size_<int> image_size;                    ///< of the last image
  cv::Rect_<int> init_rect;                     ///< of the last `initialize`
  base::BBox expected;                          ///< of the last `teleport`
  float scale_factor = 0.0F;                    ///< of the last `zoomChanged`
  const void* view = nullptr;                   ///< of the last view, as are the next three
  cv::Point_<float> view_scale{0.0F, 0.0F};
  cv::Size_<int> frame_size;
};

/// The script behind a mutex, since starts run on threads of their own.
class FakeBackends {
 public:
  /// The process's own.
  static FakeBackends& instance();

  /// Back to the defaults; counts of living backends stay.
  void reset();
  void set(const std::function<void(FakeBackendScript&)>& change);
  FakeBackendScript snapshot() const;

 private:
  mutable std::mutex mutex_;
  FakeBackendScript script_;
};

}  // namespace ostrel_test
