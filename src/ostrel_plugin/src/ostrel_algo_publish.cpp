#include <algorithm>

#include "ostrel_plugin/src/algo_log.h"
#include "ostrel_plugin/src/frame_geometry.h"
#include "ostrel_plugin/src/ostrel_algo.h"
#include "ostrel_plugin/src/steady_clock.h"
#include "tracking_runtime/tracker/atom/rounding.h"

using ostrel_algo_internal::asLlu;
using ostrel_algo_internal::fitRectInsidePreserveSize;
using ostrel_algo_internal::formatText;
using ostrel_algo_internal::sameBox;
using ostrel_algo_internal::withSizeAtLeastOne;

namespace {

// First frames that are logged one by one, counted in emitted boxes.
constexpr std::uint64_t kFirstFrames = 11;

// 0 to 1; a NaN gives 0.
float clampScore(float score) {
  return score > 0.0F ? std::min(score, 1.0F) : 0.0F;
}

BBox roundBox(const ostrel_tracker::tracking_runtime::tracker::base::BBox& box) {
  using ostrel_tracker::tracking_runtime::tracker::atom::round_to_int;
  return withSizeAtLeastOne(
      {round_to_int(box.x), round_to_int(box.y), round_to_int(box.width), round_to_int(box.height)});
}

double share(double position, std::int32_t frame_side) {
  return frame_side > 1 ? position / frame_side : position;
}

}  // namespace

void OstrelAlgo::publishLocked_(const TrackedFrame& frame, DetectionResult* published) {
  raw_bbox_ = frame.full_box;
  raw_score_ = frame.score;
  logRawBoxLocked_(frame);
  const BBox clamped = clampRawBoxLocked_(frame);
  BBox shown;
  if (!passOverlaysLocked_(frame, clamped, &shown)) return;
  if (sameBox(shown, clamped)) {
    publishTrackedBoxLocked_(frame, clamped, published);
  } else {
    publishOverlayBoxLocked_(frame, shown, clamped, published);
  }
}

BBox OstrelAlgo::clampRawBoxLocked_(const TrackedFrame& frame) const {
  const BBox raw = roundBox(frame.full_box);
  const BBox clamped = fitRectInsidePreserveSize(raw, frame.width, frame.height);
  if (debug_ && !sameBox(raw, clamped)) {
    writeConsole_(formatText("bbox_clamped raw_i=[%d,%d,%d,%d] clamped=[%d,%d,%d,%d] frame=%dx%d", raw.x,
                             raw.y, raw.w, raw.h, clamped.x, clamped.y, clamped.w, clamped.h, frame.width,
                             frame.height));
  }
  return clamped;
}

// False when the chain takes the frame away. The last box and the liveness stay as they were then.
bool OstrelAlgo::passOverlaysLocked_(const TrackedFrame& frame, const BBox& clamped, BBox* shown) {
  TrackingContext context;
  context.score = raw_score_;
  context.bbox = clamped;
  context.frame_index = ++overlay_frame_index_;
  for (const auto& overlay : overlays_) overlay->process(context);
  if (!context.alive) {
    setRuntimeStatusLocked_("overlay_dead");
    return false;
  }
  if (!context.publish) {
    setRuntimeStatusLocked_("overlay_rejected");
    return false;
  }
  *shown = fitRectInsidePreserveSize(withSizeAtLeastOne(context.bbox), frame.width, frame.height);
  return true;
}

void OstrelAlgo::publishOverlayBoxLocked_(const TrackedFrame& frame, const BBox& shown, const BBox& clamped,
                                          DetectionResult* published) {
  ++track_fail_hold_;
  if (debug_) {
    writeConsole_(formatText("overlay_bbox_hold score=%.3f keep_bbox=[%d,%d,%d,%d] candidate=[%d,%d,%d,%d]",
                             frame.score, shown.x, shown.y, shown.w, shown.h, clamped.x, clamped.y, clamped.w,
                             clamped.h));
  }
  setRuntimeStatusLocked_("overlay_bbox_hold", frame.status);
  emitLocked_(shown, frame.score, frame, published);
}

void OstrelAlgo::publishTrackedBoxLocked_(const TrackedFrame& frame, const BBox& clamped,
                                          DetectionResult* published) {
  logPipelineLocked_(frame, clamped);
  ++track_ok_;
  if (debug_) {
    writeConsole_(formatText("track_ok final=[%d,%d,%d,%d] raw=[%.2f,%.2f,%.2f,%.2f] score=%.3f", clamped.x,
                             clamped.y, clamped.w, clamped.h, raw_bbox_.x, raw_bbox_.y, raw_bbox_.width,
                             raw_bbox_.height, frame.score));
  }
  setRuntimeStatusLocked_("track_ok", frame.status);
  emitLocked_(clamped, frame.score, frame, published);
  refreshTrackingLivenessLocked_(ostrel_algo_internal::steadyNowNs());
}

// A lost target stays on the screen at its last place, with a zero score, until something else ends the run.
void OstrelAlgo::holdOrFailLocked_(const TrackedFrame& frame, DetectionResult* published) {
  if (bbox_.w <= 0 || bbox_.h <= 0) {
    ++track_fail_;
    if (debug_) {
      writeConsole_(formatText("track_fail reason=%s raw_score=%.3f", frame.status.c_str(), raw_score_));
    }
    setRuntimeStatusLocked_("track_fail", frame.status);
    return;
  }
  ++track_fail_hold_;
  if (debug_) {
    writeConsole_(formatText("track_fail_hold reason=%s keep_bbox=[%d,%d,%d,%d] raw_score=%.3f",
                             frame.status.c_str(), bbox_.x, bbox_.y, bbox_.w, bbox_.h, raw_score_));
  }
  setRuntimeStatusLocked_("track_fail_hold", frame.status);
  const BBox held = fitRectInsidePreserveSize(withSizeAtLeastOne(bbox_), frame.width, frame.height);
  emitLocked_(held, 0.0F, frame, published);
}

void OstrelAlgo::emitLocked_(const BBox& box, float score, const TrackedFrame& frame,
                             DetectionResult* published) {
  DetectionResult::Det det;
  det.bbox = box;
  det.class_id = class_id_;
  det.class_name = class_name_;
  det.tracker_id = tracker_id_;
  det.score = clampScore(score);
  published->detections.push_back(det);
  bbox_ = box;
  score_ = det.score;
  ++debug_frame_counter_;
  logEmittedLocked_(frame);
}

bool OstrelAlgo::isLogFrameLocked_(std::uint64_t frame_number) const {
  if (!debug_) return false;
  return debug_log_period_ <= 1 || frame_number % static_cast<std::uint64_t>(debug_log_period_) == 0;
}

void OstrelAlgo::logFirstFramesLocked_(const TrackedFrame& frame) const {
  if (!debug_ || debug_frame_counter_ >= kFirstFrames) return;
  const TrackerBox& proc = frame.proc_box;
  const TrackerBox& full = frame.full_box;
  ostrel_algo_internal::writeLogWarning(formatText(
      "[TRACK_DEBUG] frame=%llu: bbox_proc=[%.1f,%.1f,%.1f,%.1f] → bbox_full=[%.1f,%.1f,%.1f,%.1f] "
      "scale=[%.4f,%.4f] ok=%d score=%.3f",
      asLlu(debug_frame_counter_), proc.x, proc.y, proc.width, proc.height, full.x, full.y, full.width,
      full.height, inverse_scale_x_, inverse_scale_y_, frame.ok ? 1 : 0, frame.score));
}

void OstrelAlgo::logRawBoxLocked_(const TrackedFrame& frame) const {
  const std::uint64_t frame_number = debug_frame_counter_ + 1;
  if (!isLogFrameLocked_(frame_number)) return;
  writeConsole_(formatText(
      "raw_tracker_bbox frame=%llu x=%.2f y=%.2f w=%.2f h=%.2f raw_score=%.3f status=%s fw=%d fh=%d",
      asLlu(frame_number), raw_bbox_.x, raw_bbox_.y, raw_bbox_.width, raw_bbox_.height, raw_score_,
      frame.status.c_str(), frame.width, frame.height));
}

void OstrelAlgo::logPipelineLocked_(const TrackedFrame& frame, const BBox& clamped) const {
  const std::uint64_t frame_number = debug_frame_counter_ + 1;
  if (!isLogFrameLocked_(frame_number)) return;
  const TrackerBox& proc = frame.proc_box;
  writeConsoleAndLog_(formatText(
      "bbox_pipeline frame=%llu proc=[%.2f,%.2f,%.2f,%.2f] raw_full=[%.2f,%.2f,%.2f,%.2f] "
      "final=[%d,%d,%d,%d] scale=[%.6f,%.6f] proc_frame=%dx%d full_frame=%dx%d status=%s",
      asLlu(frame_number), proc.x, proc.y, proc.width, proc.height, raw_bbox_.x, raw_bbox_.y, raw_bbox_.width,
      raw_bbox_.height, clamped.x, clamped.y, clamped.w, clamped.h, inverse_scale_x_, inverse_scale_y_,
      tracker_input_width_, tracker_input_height_, frame.width, frame.height, frame.status.c_str()));
}

void OstrelAlgo::logEmittedLocked_(const TrackedFrame& frame) const {
  if (!isLogFrameLocked_(debug_frame_counter_)) return;
  const double center_x = bbox_.x + bbox_.w * 0.5;
  const double center_y = bbox_.y + bbox_.h * 0.5;
  writeConsoleAndLog_(formatText(
      "emit_bbox frame=%llu x=%d y=%d w=%d h=%d cx=%.1f cy=%.1f nx=%.4f ny=%.4f score=%.3f raw_score=%.3f "
      "status=%s detail=%s stats(ok=%llu fail=%llu hold=%llu) class_id=%d tracker_id=%d",
      asLlu(debug_frame_counter_), bbox_.x, bbox_.y, bbox_.w, bbox_.h, center_x, center_y,
      share(center_x, frame.width), share(center_y, frame.height), score_, raw_score_,
      runtime_status_.c_str(), runtime_detail_.c_str(), asLlu(track_ok_), asLlu(track_fail_),
      asLlu(track_fail_hold_), class_id_, tracker_id_));
}
