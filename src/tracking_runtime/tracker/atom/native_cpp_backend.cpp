#include "tracking_runtime/tracker/atom/native_cpp_backend.h"

#include <utility>

#include "tracking_runtime/tracker/atom/refuse.h"
#include "tracking_runtime/tracker/atom/runtime_backend.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

constexpr const char* kDefaultBackendName = "cuda";

std::string joined(const std::string& first, const std::string& second) {
  if (first.empty() || second.empty()) return first + second;
  return first + "; " + second;
}

std::string name_or_default(std::string name) {
  return name.empty() ? kDefaultBackendName : name;
}

}  // namespace

NativeCppBackend::NativeCppBackend(Config config)
    : config_(std::move(config)), backend_name_(normalize_backend_name(config_.runtime_backend)) {
  backend_ = create_runtime_backend(config_);
  backend_name_ = name_or_default(backend_name_);
}

NativeCppBackend::~NativeCppBackend() = default;

bool NativeCppBackend::initialize(const cv::Mat& image, const cv::Rect_<int>& init_rect, std::string* error) {
  if (backend_ == nullptr) return refuse("unsupported ATOM runtime backend: " + backend_name_, error);
  return backend_->initialize(image, init_rect, error);
}

bool NativeCppBackend::track(const cv::Mat& image, base::BBox* bbox, float* score, std::string* status) {
  if (backend_ == nullptr) return refuse("unsupported_backend_" + backend_name_, status);
  return backend_->track(image, bbox, score, status);
}

bool NativeCppBackend::track(const std::shared_ptr<optrix::OptrixPicture>& view, float scale_x, float scale_y,
                             int frame_width, int frame_height, base::BBox* bbox, float* score,
                             std::string* status) {
  if (backend_ == nullptr) return refuse("unsupported_backend_" + backend_name_, status);
  return backend_->track(view, scale_x, scale_y, frame_width, frame_height, bbox, score, status);
}

bool NativeCppBackend::teleport(const base::BBox& expected, base::BBox* bbox, std::string* status) {
  if (backend_ == nullptr) return refuse("unsupported_backend_" + backend_name_, status);
  return backend_->teleport(expected, bbox, status);
}

bool NativeCppBackend::zoomChanged(float scale_factor, base::BBox* bbox, std::string* status) {
  if (backend_ == nullptr) return refuse("unsupported_backend_" + backend_name_, status);
  return backend_->zoomChanged(scale_factor, bbox, status);
}

bool NativeCppBackend::updateConfig(Config config, std::string* status) {
  std::string note;
  const std::string wanted = normalize_backend_name(config.runtime_backend);
  if (!wanted.empty() && wanted != backend_name_) {
    note = "runtime_backend requires reinit";
    config.runtime_backend = config_.runtime_backend;
  }
  if (backend_ == nullptr) {
    config_ = std::move(config);
    backend_name_ = name_or_default(normalize_backend_name(config_.runtime_backend));
    backend_ = create_runtime_backend(config_);
    if (status != nullptr) *status = note;
    return backend_ != nullptr;
  }
  std::string text;
  const bool taken = backend_->updateConfig(&config, &text);
  if (taken) config_ = std::move(config);
  if (status != nullptr) *status = taken ? joined(note, text) : text;
  return taken;
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
