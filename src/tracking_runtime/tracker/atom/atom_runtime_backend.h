#pragma once

#include <memory>
#include <opencv2/core.hpp>
#include <string>

#include "tracking_runtime/tracker/atom/native_cpp_backend.h"
#include "tracking_runtime/tracker/base/bbox.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// What the facade needs of a tracker. Operations return false with a word or a text; `status` and `error`
/// may be null. Boxes are in frame pixels. The caller serialises all calls.
class AtomRuntimeBackend {
 public:
  virtual ~AtomRuntimeBackend() = default;
  /// A second start replaces the first. `init_rect` lies inside the image.
  virtual bool initialize(const cv::Mat& image, const cv::Rect_<int>& init_rect, std::string* error) = 0;
  /// True stands also beside a hold word; the box is then the held one.
  virtual bool track(const cv::Mat& image, base::BBox* bbox, float* score, std::string* status) = 0;
  virtual bool track(const std::shared_ptr<optrix::OptrixPicture>& view, float scale_x, float scale_y,
                     int frame_width, int frame_height, base::BBox* bbox, float* score,
                     std::string* status) = 0;
  virtual bool teleport(const base::BBox& expected, base::BBox* bbox, std::string* status) = 0;
  virtual bool zoomChanged(float scale_factor, base::BBox* bbox, std::string* status) = 0;
  /// Takes the record as far as it can without a new start, and corrects `*config` to what is in force. A field
  /// that it refuses shows in `status` and fails nothing.
  virtual bool updateConfig(NativeCppBackend::Config* config, std::string* status) = 0;
  virtual const char* name() const = 0;
};

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
