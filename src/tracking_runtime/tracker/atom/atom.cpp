#include "tracking_runtime/tracker/atom/atom.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <utility>

#include "tracking_runtime/tracker/atom/frame_rect.h"
#include "tracking_runtime/tracker/atom/held.h"
#include "tracking_runtime/tracker/atom/refuse.h"
#include "tracking_runtime/tracker/atom/rounding.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

constexpr const char* kEngineVariable = "OSTREL_TRACKER_ATOM_TRT_ENGINE";
constexpr const char* kOkWord = "ok_atom_native_cpp_backend";

AtomInitResult init_failure(const std::string& reason) {
  return {false, 0.0, "initialize failed: " + reason};
}

AtomTrackResult track_failure(const std::string& word) {
  AtomTrackResult result;
  result.status = word;
  return result;
}

NativeCppBackend::Config with_engine_of_environment(NativeCppBackend::Config config) {
  const char* engine = std::getenv(kEngineVariable);
  if (engine != nullptr && *engine != '\0') config.trt_engine_path = engine;
  return config;
}

int ceil_to_int(float value) {
  return truncate_to_int(static_cast<double>(std::ceil(value)));
}

// The stored frame size; when it is unknown, the least frame that holds the box and what was looked at.
cv::Size_<int> frame_size_for(float frame_width, float frame_height, const base::BBox& box,
                              const cv::Size_<int>& image_size) {
  int width = round_to_int(frame_width);
  int height = round_to_int(frame_height);
  if (width < 1 || height < 1) {
    width = std::max(ceil_to_int(box.x + box.width), image_size.width);
    height = std::max(ceil_to_int(box.y + box.height), image_size.height);
  }
  return {std::max(width, 1), std::max(height, 1)};
}

}  // namespace

ATOM::ATOM(NativeCppBackend::Config config) : config_(std::move(config)) {}

AtomInitResult ATOM::initialize(const cv::Mat& image, const base::BBox& init_bbox) {
  const auto start = std::chrono::steady_clock::now();
  AtomInitResult result = start_(image, init_bbox);
  const auto elapsed = std::chrono::steady_clock::now() - start;
  const auto elapsed_us = std::chrono::duration_cast<std::chrono::microseconds>(elapsed).count();
  result.init_time_ms = static_cast<double>(elapsed_us) / 1000.0;
  return result;
}

AtomInitResult ATOM::start_(const cv::Mat& image, const base::BBox& init_bbox) {
  if (image.empty()) return init_failure("empty image");
  if (!is_usable_box(init_bbox)) return init_failure("invalid init bbox");

  initialized_ = false;  // also when the backend throws
  backend_.reset();
  frame_width_ = static_cast<float>(image.cols);
  frame_height_ = static_cast<float>(image.rows);
  const cv::Rect_<int> rect = rounded_rect_in_frame(init_bbox, image.size());
  last_bbox_ = {static_cast<float>(rect.x), static_cast<float>(rect.y), static_cast<float>(rect.width),
                static_cast<float>(rect.height)};

  backend_ = std::make_unique<NativeCppBackend>(with_engine_of_environment(config_));
  std::string text;
  initialized_ = backend_->initialize(image, rect, &text);
  if (!initialized_) return init_failure(text);
  return {true, 0.0, kOkWord};
}

AtomTrackResult ATOM::trackWithOffset(const cv::Mat& image, int offset_x, int offset_y) {
  if (!initialized_) return {};
  if (image.empty()) return track_failure("empty_image");
  if (backend_ == nullptr) return track_failure("missing_backend");
  base::BBox bbox;
  float score = 0.0F;
  std::string text;
  const bool tracked = backend_->track(image, &bbox, &score, &text);
  return finish_track_(tracked, bbox, score, text, offset_x, offset_y, image.size());
}

AtomTrackResult ATOM::trackViewWithOffset(const std::shared_ptr<optrix::OptrixPicture>& view, float scale_x,
                                          float scale_y, int frame_width, int frame_height, int offset_x,
                                          int offset_y) {
  if (!initialized_) return {};
  if (view == nullptr) return track_failure("null_frame_view");
  if (backend_ == nullptr) return track_failure("missing_backend");
  base::BBox bbox;
  float score = 0.0F;
  std::string text;
  const bool tracked =
      backend_->track(view, scale_x, scale_y, frame_width, frame_height, &bbox, &score, &text);
  return finish_track_(tracked, bbox, score, text, offset_x, offset_y, {0, 0});
}

AtomTrackResult ATOM::finish_track_(bool tracked, base::BBox bbox, float score, const std::string& text,
                                    int offset_x, int offset_y, const cv::Size_<int>& image_size) {
  if (!tracked) return track_failure(text.empty() ? "native_cpp_track_failed" : text);
  bbox.x += static_cast<float>(offset_x);
  bbox.y += static_cast<float>(offset_y);
  last_bbox_ = clamp_bbox(bbox, frame_size_for(frame_width_, frame_height_, bbox, image_size));
  AtomTrackResult result;
  result.ok = true;
  result.bbox = last_bbox_;
  result.score = held(score, 0.0F, 1.0F);
  result.status = text.empty() ? kOkWord : text;
  return result;
}

bool ATOM::teleport(const base::BBox& expected, std::string* status) {
  if (!initialized_) return refuse("not_initialized", status);
  if (backend_ == nullptr) return refuse("missing_backend", status);
  if (!is_usable_box(expected)) return refuse("invalid_expected_bbox", status);
  base::BBox bbox;
  if (!backend_->teleport(expected, &bbox, status)) return false;
  last_bbox_ = bbox;
  return true;
}

bool ATOM::zoomChanged(float scale_factor, std::string* status) {
  if (!initialized_) return refuse("not_initialized", status);
  if (backend_ == nullptr) return refuse("missing_backend", status);
  if (!(scale_factor > 0.0F) || !std::isfinite(scale_factor)) return refuse("invalid_scale_factor", status);
  base::BBox bbox;
  if (!backend_->zoomChanged(scale_factor, &bbox, status)) return false;
  last_bbox_ = bbox;
  return true;
}

bool ATOM::updateConfig(NativeCppBackend::Config config, std::string* status) {
  if (backend_ == nullptr) {
    config_ = std::move(config);
    return true;
  }
  if (!backend_->updateConfig(std::move(config), status)) return false;
  config_ = backend_->config();
  return true;
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
