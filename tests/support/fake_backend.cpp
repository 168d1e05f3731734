#include "support/fake_backend.h"

#include <utility>

#include "tracking_runtime/tracker/atom/atom_runtime_backend.h"
#include "tracking_runtime/tracker/atom/runtime_backend.h"

namespace ostrel_test {
namespace {

bool answer(const FakeAnswer& given, base::BBox* bbox, float* score, std::string* text) {
  if (bbox != nullptr) *bbox = given.bbox;
  if (score != nullptr) *score = given.score;
  if (text != nullptr) *text = given.text;
  return given.ok;
}

class FakeBackend final : public atom::AtomRuntimeBackend {
 public:
  explicit FakeBackend(atom::NativeCppBackend::Config config) {
    FakeBackends::instance().set([&](FakeBackendScript& script) {
      ++script.made;
      ++script.alive;
      script.made_with = std::move(config);
    });
  }
  ~FakeBackend() override {
    FakeBackends::instance().set([](FakeBackendScript& script) { --script.alive; });
  }

  bool initialize(const cv::Mat& image, const cv::Rect_<int>& init_rect, std::string* error) override {
    const FakeBackendScript script = called("initialize", [&](FakeBackendScript& record) {
      record.image_size = image.size();
      record.init_rect = init_rect;
    });
    return answer(script.initialize, nullptr, nullptr, error);
  }

  bool track(const cv::Mat& image, base::BBox* bbox, float* score, std::string* status) override {
    const FakeBackendScript script =
        called("track", [&](FakeBackendScript& record) { record.image_size = image.size(); });
    return answer(script.track, bbox, score, status);
  }

  bool track(const std::shared_ptr<optrix::OptrixPicture>& view, float scale_x, float scale_y,
             int frame_width, int frame_height, base::BBox* bbox, float* score,
             std::string* status) override {
    const FakeBackendScript script = called("track_view", [&](FakeBackendScript& record) {
      record.view = view.get();
      record.view_scale = {scale_x, scale_y};
      record.frame_size = {frame_width, frame_height};
    });
    return answer(script.track, bbox, score, status);
  }

  bool teleport(const base::BBox& expected, base::BBox* bbox, std::string* status) override {
    const FakeBackendScript script =
        called("teleport", [&](FakeBackendScript& record) { record.expected = expected; });
    return answer(script.teleport, bbox, nullptr, status);
  }

  bool zoomChanged(float scale_factor, base::BBox* bbox, std::string* status) override {
    const FakeBackendScript script =
        called("zoomChanged", [&](FakeBackendScript& record) { record.scale_factor = scale_factor; });
    return answer(script.zoom_changed, bbox, nullptr, status);
  }

  bool updateConfig(atom::NativeCppBackend::Config* config, std::string* status) override {
    const FakeBackendScript script =
        called("updateConfig", [&](FakeBackendScript& record) { record.updated_with = *config; });
    if (script.correct_config) script.correct_config(config);
    return answer(script.update_config, nullptr, nullptr, status);
  }

  const char* name() const override { return "fake"; }

 private:
  // Notes the call and runs the test's hook outside the lock.
  static FakeBackendScript called(const std::string& operation,
                                  const std::function<void(FakeBackendScript&)>& note) {
    FakeBackends::instance().set([&](FakeBackendScript& script) {
      script.calls.push_back(operation);
      note(script);
    });
    FakeBackendScript script = FakeBackends::instance().snapshot();
    if (script.on_call) script.on_call(operation);
    return script;
  }
};

}  // namespace

FakeBackends& FakeBackends::instance() {
  static FakeBackends backends;
  return backends;
}

void FakeBackends::reset() {
  const std::lock_guard<std::mutex> lock(mutex_);
  const int alive = script_.alive;
  script_ = FakeBackendScript();
  script_.alive = alive;
}

void FakeBackends::set(const std::function<void(FakeBackendScript&)>& change) {
  const std::lock_guard<std::mutex> lock(mutex_);
  change(script_);
}

FakeBackendScript FakeBackends::snapshot() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return script_;
}

}  // namespace ostrel_test

namespace ostrel_tracker::tracking_runtime::tracker::atom {

std::unique_ptr<AtomRuntimeBackend> make_cuda_runtime_backend(NativeCppBackend::Config config) {
  return std::make_unique<ostrel_test::FakeBackend>(std::move(config));
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
