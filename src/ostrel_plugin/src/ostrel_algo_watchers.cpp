#include <cmath>

#include "ostrel_plugin/src/algo_log.h"
#include "ostrel_plugin/src/ostrel_algo.h"
#include "ostrel_plugin/src/steady_clock.h"
#include "ostrel_plugin/src/text_stream.h"

using ostrel_algo_internal::asLlu;
using ostrel_algo_internal::formatText;
using ostrel_algo_internal::steadyNowNs;

namespace {

// Relative change of the field of view from frame to frame that counts as a zoom step.
constexpr float kZoomStep = 0.02F;

bool isUsableFov(double fov_deg) {
  return std::isfinite(fov_deg) && fov_deg > 1e-6;
}

}  // namespace

// The geometric mean of the two zoom ratios: a narrowing field of view gives a factor above 1.
bool OstrelAlgo::tryComputeZoomScaleFactor_(double previous_hfov, double previous_vfov, double hfov,
                                            double vfov, float& factor) {
  if (!isUsableFov(previous_hfov) || !isUsableFov(previous_vfov) || !isUsableFov(hfov) ||
      !isUsableFov(vfov)) {
    return false;
  }
  const double product = (previous_hfov / hfov) * (previous_vfov / vfov);
  if (!(product > 1e-12)) return false;
  factor = static_cast<float>(std::sqrt(product));
  return std::isfinite(factor) && factor > 1e-6F;
}

// Compares two frames that follow each other, not a frame with the last notified zoom: the reference moves on
// in every case, and a failed notice is not repeated.
void OstrelAlgo::maybeNotifyZoomChangeLocked_(const Metadata& metadata) {
  if (!tracking_armed_ || !initialized_ || !tracker_) return;
  double pan_deg = 0.0;
  double tilt_deg = 0.0;
  double hfov_deg = 0.0;
  double vfov_deg = 0.0;
  if (!tryReadViewGeometry_(metadata, pan_deg, tilt_deg, hfov_deg, vfov_deg)) return;
  float factor = 1.0F;
  const bool stepped =
      have_zoom_reference_ &&
      tryComputeZoomScaleFactor_(zoom_ref_hfov_deg_, zoom_ref_vfov_deg_, hfov_deg, vfov_deg, factor) &&
      std::abs(factor - 1.0F) > kZoomStep;
  if (stepped) notifyZoomChangeLocked_(factor, hfov_deg, vfov_deg);
  takeZoomReferenceLocked_(hfov_deg, vfov_deg);
}

void OstrelAlgo::notifyZoomChangeLocked_(float factor, double hfov_deg, double vfov_deg) {
  std::string status;
  const bool done = tracker_->zoomChanged(factor, &status);
  if (!debug_) return;
  if (done && status.empty()) status = "zoom_changed_ok";
  const char* event = done ? "zoom_changed" : "zoom_changed_failed";
  ostrel_algo_internal::writeLogInfo(
      formatText("[TRACK_FLOW][OT] %s steady_ns=%llu scale_factor=%.5f hfov_prev=%.3f hfov_now=%.3f "
                 "vfov_prev=%.3f vfov_now=%.3f status=%s",
                 event, asLlu(steadyNowNs()), factor, zoom_ref_hfov_deg_, hfov_deg, zoom_ref_vfov_deg_,
                 vfov_deg, status.c_str()));
  writeConsole_(formatText("%s factor=%.4f status=%s", event, factor, status.c_str()));
}

void OstrelAlgo::refreshTrackingLivenessLocked_(std::uint64_t now_ns) {
  last_track_ok_ns_ = now_ns != 0 ? now_ns : steadyNowNs();
}

void OstrelAlgo::maybeMarkTrackingDeadLocked_(std::uint64_t now_ns) {
  if (!alive_ || !tracking_armed_ || !(config_.dead_timeout_s > 0.0F)) return;
  if (now_ns == 0) now_ns = steadyNowNs();
  if (last_track_ok_ns_ == 0) {
    last_track_ok_ns_ = now_ns;  // nothing has set the time: it counts from the first check
    return;
  }
  const double elapsed_s = static_cast<double>(now_ns - last_track_ok_ns_) / 1e9;
  if (config_.dead_timeout_s > elapsed_s) return;
  alive_ = false;
  const std::string last_status = runtime_status_;
  std::ostringstream detail = ostrel_algo_internal::plainStream();
  detail << "elapsed_s=" << elapsed_s << " timeout_s=" << config_.dead_timeout_s
         << " last_status=" << last_status;
  setRuntimeStatusLocked_("tracking_dead_timeout", detail.str());
  if (debug_) {
    ostrel_algo_internal::writeLogWarning(
        formatText("[TRACK_FLOW][OT] tracking_declared_dead steady_ns=%llu elapsed_s=%.3f timeout_s=%.3f "
                   "last_status=%s",
                   asLlu(now_ns), elapsed_s, config_.dead_timeout_s, last_status.c_str()));
  }
}
