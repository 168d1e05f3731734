#include <algorithm>
#include <cmath>

#include "ostrel_plugin/src/algo_log.h"
#include "ostrel_plugin/src/frame_geometry.h"
#include "ostrel_plugin/src/frame_intake.h"
#include "ostrel_plugin/src/ostrel_algo.h"
#include "ostrel_plugin/src/steady_clock.h"
#include "ostrel_plugin/src/text_stream.h"

using ostrel_algo_internal::asLlu;
using ostrel_algo_internal::formatText;
using ostrel_algo_internal::readFiniteMetadataDouble;
using ostrel_algo_internal::steadyNowNs;

namespace {

// How far the view may be off the target direction, as a share of the field of view.
constexpr double kMaxOffCenter = 0.05;

using Keys = optrix::OptrixPicture::BaseMetadata::Keys;

bool readView(const optrix::OptrixPicture::BaseMetadata& metadata, double& pan_deg, double& tilt_deg,
              double& hfov_deg, double& vfov_deg) {
  return readFiniteMetadataDouble(metadata, Keys::kPanDeg, pan_deg) &&
         readFiniteMetadataDouble(metadata, Keys::kTiltDeg, tilt_deg) &&
         readFiniteMetadataDouble(metadata, Keys::kHfovDeg, hfov_deg) &&
         readFiniteMetadataDouble(metadata, Keys::kVfovDeg, vfov_deg);
}

std::int32_t roundToPixel(double value) {
  // The bounds are those of the pixel type: a field of view near zero gives any number.
  return static_cast<std::int32_t>(std::lround(std::clamp(value, -2147483648.0, 2147483647.0)));
}

}  // namespace

bool OstrelAlgo::tryReadViewGeometry_(const Metadata& metadata, double& pan_deg, double& tilt_deg,
                                      double& hfov_deg, double& vfov_deg) {
  if (!readView(metadata, pan_deg, tilt_deg, hfov_deg, vfov_deg)) return false;
  pan_deg = ostrel_algo_internal::normalizeAngle180(pan_deg);
  return hfov_deg > 1e-6 && vfov_deg > 1e-6;
}

// The pan and tilt that would centre the box, by a linear map of the field of view: a target right of the
// centre needs more pan, one below it less tilt.
bool OstrelAlgo::tryBuildPrepositionTarget_(const Metadata& metadata, const BBox& box, int width, int height,
                                            double& pan_deg, double& tilt_deg) {
  if (width < 1 || height < 1 || box.w <= 0 || box.h <= 0) return false;
  double pan_now = 0.0;
  double tilt_now = 0.0;
  double hfov_deg = 0.0;
  double vfov_deg = 0.0;
  if (!readView(metadata, pan_now, tilt_now, hfov_deg, vfov_deg)) return false;
  const double nx = (box.x + box.w * 0.5) / width;
  const double ny = (box.y + box.h * 0.5) / height;
  pan_deg = pan_now + (nx - 0.5) * hfov_deg;
  tilt_deg = tilt_now - (ny - 0.5) * vfov_deg;
  return std::isfinite(pan_deg) && std::isfinite(tilt_deg);
}

bool OstrelAlgo::tryBuildExpectedBBoxLocked_(const Metadata& metadata, int width, int height, BBox& out,
                                             double& dx_norm, double& dy_norm, double& hfov_deg,
                                             double& vfov_deg) const {
  const bool possible = have_preposition_target_ && have_init_view_ && width > 0 && height > 0 &&
                        init_roi_full_.w > 0 && init_roi_full_.h > 0;
  if (!possible) return false;
  double pan_now = 0.0;
  double tilt_now = 0.0;
  if (!tryReadViewGeometry_(metadata, pan_now, tilt_now, hfov_deg, vfov_deg)) return false;
  dx_norm = ostrel_algo_internal::shortestAngleDeltaDeg(pan_now, target_pan_deg_) / hfov_deg;
  dy_norm = (tilt_now - target_tilt_deg_) / vfov_deg;

  const double center_x = (dx_norm + 0.5) * width;
  const double center_y = (dy_norm + 0.5) * height;
  const cv::Size2d size =
      limitExpectedSizeLocked_({std::max(1.0, init_hfov_deg_ / hfov_deg * init_roi_full_.w),
                                std::max(1.0, init_vfov_deg_ / vfov_deg * init_roi_full_.h)});
  const BBox box{roundToPixel(center_x - size.width * 0.5), roundToPixel(center_y - size.height * 0.5),
                 roundToPixel(size.width), roundToPixel(size.height)};
  out = ostrel_algo_internal::fitRectInsidePreserveSize(ostrel_algo_internal::withSizeAtLeastOne(box), width,
                                                        height);
  return true;
}

cv::Size2d OstrelAlgo::limitExpectedSizeLocked_(const cv::Size2d& raw) const {
  const double min_ratio = config_.min_ratio_from_initial_size;
  const double max_ratio = config_.max_ratio_from_initial_size;
  const auto limit = [&](double reference, double value) {
    return ostrel_algo_internal::clampSizeFromReference(reference, value, min_ratio, max_ratio);
  };
  const cv::Size2d limited(limit(init_roi_full_.w, raw.width), limit(init_roi_full_.h, raw.height));
  const bool changed =
      std::abs(limited.width - raw.width) > 1e-6 || std::abs(limited.height - raw.height) > 1e-6;
  if (debug_ && changed) {
    writeConsole_(
        formatText("preposition_expected_bbox_clamped raw=(%.2f,%.2f) clamped=(%.2f,%.2f) "
                   "ref=(%d,%d) scale_limits=[%.3f,%.3f]",
                   raw.width, raw.height, limited.width, limited.height, init_roi_full_.w, init_roi_full_.h,
                   min_ratio, max_ratio));
  }
  return limited;
}

// True when `update` may go on to the tracker with this frame.
bool OstrelAlgo::tryArmTrackingLocked_(const PicturePtr& picture) {
  if (tracking_armed_) return true;
  if (!initialized_ || !tracker_) return false;
  if (!config_.preposition_enabled || !have_preposition_target_) return armWithoutTargetLocked_();
  if (!picture) {
    setRuntimeStatusLocked_("wait_alignment_no_frame");
    return false;
  }
  ExpectedView view;
  return tryReachAlignmentLocked_(*picture, &view) && teleportLocked_(picture, view);
}

bool OstrelAlgo::armWithoutTargetLocked_() {
  init_phase_ = InitPhase::Ready;
  tracking_armed_ = true;
  have_preposition_target_ = false;
  if (have_init_view_) takeZoomReferenceLocked_(init_hfov_deg_, init_vfov_deg_);
  return true;
}

bool OstrelAlgo::tryReachAlignmentLocked_(const optrix::OptrixPicture& picture, ExpectedView* view) {
  const int width = picture.width();
  const int height = picture.height();
  const bool resized =
      (source_width_ > 0 && source_width_ != width) || (source_height_ > 0 && source_height_ != height);
  if (resized) {
    setRuntimeStatusLocked_("wait_alignment_source_size_changed");
    return false;
  }
  if (!tryBuildExpectedBBoxLocked_(picture.baseMetadata(), width, height, view->bbox, view->dx_norm,
                                   view->dy_norm, view->hfov_deg, view->vfov_deg)) {
    setRuntimeStatusLocked_("wait_alignment_metadata");
    return false;
  }
  if (std::abs(view->dx_norm) > kMaxOffCenter || std::abs(view->dy_norm) > kMaxOffCenter) {
    std::ostringstream detail = ostrel_algo_internal::plainStream();
    detail << "dx_norm=" << view->dx_norm << " dy_norm=" << view->dy_norm;
    setRuntimeStatusLocked_("wait_alignment", detail.str());
    return false;
  }
  return true;
}

// The tracker was trained before the camera moved: it is set to where the same target has to be now.
bool OstrelAlgo::teleportLocked_(const PicturePtr& picture, const ExpectedView& view) {
  const BBox& full = view.bbox;
  const BBox proc = ostrel_algo_internal::scaleToProcessing(full, scale_x_, scale_y_, tracker_input_width_,
                                                            tracker_input_height_);
  const TrackerBox expected{static_cast<float>(proc.x), static_cast<float>(proc.y),
                            static_cast<float>(proc.w), static_cast<float>(proc.h)};
  std::string status;
  if (!tracker_->teleport(expected, &status)) {
    if (debug_) {
      ostrel_algo_internal::writeLogInfo(formatText(
          "[TRACK_FLOW][OT] teleport_failed steady_ns=%llu pic_ptr=%p pic_ts=%llu bbox_full=[%d,%d,%d,%d] "
          "bbox_proc=[%d,%d,%d,%d] status=%s",
          asLlu(steadyNowNs()), static_cast<const void*>(picture.get()), asLlu(picture->getTimestamp()),
          full.x, full.y, full.w, full.h, proc.x, proc.y, proc.w, proc.h, status.c_str()));
    }
    setRuntimeStatusLocked_("teleport_failed", status);
    return false;
  }
  tracking_armed_ = true;
  refreshTrackingLivenessLocked_(steadyNowNs());
  init_phase_ = InitPhase::Ready;
  bbox_ = full;
  takeZoomReferenceLocked_(view.hfov_deg, view.vfov_deg);
  if (debug_) {
    ostrel_algo_internal::writeLogInfo(formatText(
        "[TRACK_FLOW][OT] tracking_armed steady_ns=%llu pic_ptr=%p pic_ts=%llu bbox_full=[%d,%d,%d,%d] "
        "dx_norm=%.5f dy_norm=%.5f hfov=%.3f vfov=%.3f",
        asLlu(steadyNowNs()), static_cast<const void*>(picture.get()), asLlu(picture->getTimestamp()), full.x,
        full.y, full.w, full.h, view.dx_norm, view.dy_norm, view.hfov_deg, view.vfov_deg));
  }
  setRuntimeStatusLocked_("teleport_ok", status);
  return true;
}
