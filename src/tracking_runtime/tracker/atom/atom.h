#pragma once

#include <memory>
#include <opencv2/core.hpp>
#include <string>

#include "tracking_runtime/tracker/atom/native_cpp_backend.h"
#include "tracking_runtime/tracker/base/bbox.h"

namespace optrix {
class OptrixPicture;
}

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// What a start came to.
struct AtomInitResult {
  bool ok = false;
  double init_time_ms = 0.0;  ///< whole microseconds inside `initialize`, divided by 1000
  std::string message;        ///< "ok_atom_native_cpp_backend", or a text that begins "initialize failed: "
};

/// What a frame came to. `ok` may stand beside a hold word: the box is then the held one.
struct AtomTrackResult {
  bool ok = false;
  base::BBox bbox;     ///< in frame pixels, inside the frame
  float score = 0.0F;  ///< 0 to 1
  std::string status = "not_initialized";
};

/// The whole surface of the tracker, one object per target: validates arguments, keeps the frame size and the
/// last box, and folds what the backend says into one result with a status word. Bad input never reaches the
/// backend. Boxes are in pixels of the frame that started the tracker. Holds no lock: the caller serialises
/// all calls. Status pointers may be null everywhere.
class ATOM {
 public:
  explicit ATOM(NativeCppBackend::Config config);

  /// Builds a backend and starts it on the box. The environment variable OSTREL_TRACKER_ATOM_TRT_ENGINE, when
  /// set and not empty, replaces the engine path of this start. Loads the engine and trains: takes long. A
  /// failure beyond the checks of the arguments leaves the tracker not initialised.
  AtomInitResult initialize(const cv::Mat& image, const base::BBox& init_bbox);

  AtomTrackResult track(const cv::Mat& image) { return trackWithOffset(image, 0, 0); }
  /// Tracks in an image whose top-left pixel lies at the offset in the frame.
  AtomTrackResult trackWithOffset(const cv::Mat& image, int offset_x, int offset_y);
  /// Tracks in a picture of the device. Scales are view pixels per frame pixel; the frame size is that of the
  /// frame in whose coordinates the target is kept.
  AtomTrackResult trackViewWithOffset(const std::shared_ptr<optrix::OptrixPicture>& view, float scale_x,
                                      float scale_y, int frame_width, int frame_height, int offset_x,
                                      int offset_y);

  /// Moves the target to a box that the caller knows better.
  bool teleport(const base::BBox& expected, std::string* status);
  /// The camera zoomed by this factor.
  bool zoomChanged(float scale_factor, std::string* status);
  /// Takes new settings: before a start as they are, afterwards as far as the backend can without a new
  /// start.
  bool updateConfig(NativeCppBackend::Config config, std::string* status);

 private:
  friend struct AtomTestAccess;

  AtomInitResult start_(const cv::Mat& image, const base::BBox& init_bbox);
  AtomTrackResult finish_track_(bool tracked, base::BBox bbox, float score, const std::string& text,
                                int offset_x, int offset_y, const cv::Size_<int>& image_size);

  NativeCppBackend::Config config_;
  bool initialized_ = false;
  float frame_width_ = 0.0F;
  float frame_height_ = 0.0F;
  std::unique_ptr<NativeCppBackend> backend_;
  base::BBox last_bbox_;
};

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
