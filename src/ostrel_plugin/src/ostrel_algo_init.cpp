#include <utility>

#include "ostrel_plugin/src/algo_log.h"
#include "ostrel_plugin/src/frame_geometry.h"
#include "ostrel_plugin/src/frame_intake.h"
#include "ostrel_plugin/src/ostrel_algo.h"
#include "ostrel_plugin/src/steady_clock.h"

using ostrel_algo_internal::asLlu;
using ostrel_algo_internal::elapsedMs;
using ostrel_algo_internal::formatText;
using ostrel_algo_internal::steadyNowNs;

// A complete restart: the run is reset before anything is checked. The old tracker goes here and may make the
// call wait for a training of its own; start-up workers are never waited for.
std::vector<AlgoOutput> OstrelAlgo::init(const Pictures& pictures, const BBox& roi, bool* ok) {
  if (ok != nullptr) *ok = false;
  const std::uint64_t entered_ns = steadyNowNs();
  const PicturePtr picture = pictures.empty() ? nullptr : pictures.front();

  const std::lock_guard<std::mutex> lock(mutex_);
  ++init_generation_;        // from here on every older worker is stale
  pollInitWorkersLocked_();  // drops the finished ones
  resetRunLocked_();

  BBox bbox_proc;
  if (!acceptStartLocked_(picture, roi, &bbox_proc)) return {};

  init_roi_full_ = ostrel_algo_internal::clipToFrame(roi, source_width_, source_height_);
  bbox_ = init_roi_full_;
  const Metadata metadata = picture->baseMetadata();
  have_init_view_ =
      tryReadViewGeometry_(metadata, init_pan_deg_, init_tilt_deg_, init_hfov_deg_, init_vfov_deg_);
  std::vector<AlgoOutput> outputs;
  decidePrepositionLocked_(metadata, roi, &outputs);
  saveRequestLocked_(picture, bbox_proc);
  logInitReturnLocked_(picture, roi, outputs.size(), entered_ns);
  if (ok != nullptr) *ok = true;
  return outputs;
}

void OstrelAlgo::resetRunLocked_() {
  initialized_ = false;
  init_phase_ = InitPhase::Idle;
  pending_init_.reset();

  have_init_view_ = false;
  have_zoom_reference_ = false;
  dropPrepositionTargetLocked_();
  init_pan_deg_ = init_tilt_deg_ = init_hfov_deg_ = init_vfov_deg_ = 0.0;
  zoom_ref_hfov_deg_ = zoom_ref_vfov_deg_ = 0.0;
  debug_frame_counter_ = 0;
  init_roi_full_ = {};
  deferred_init_ = false;
  init_worker_launched_ = false;
  tracking_armed_ = false;
  overlay_frame_index_ = 0;
  overlays_.clear();
  score_ = 0.0F;
  bbox_ = {};
  runtime_detail_.clear();
  alive_ = true;
  raw_bbox_ = {};
  raw_score_ = 0.0F;
  frame_width_ = frame_height_ = 0;
  update_calls_ = track_ok_ = track_fail_ = track_fail_hold_ = 0;
  init_return_ns_ = init_launch_ns_ = last_track_ok_ns_ = 0;

  tracker_.reset();

  source_width_ = source_height_ = 0;
  tracker_input_width_ = tracker_input_height_ = 0;
  scale_x_ = scale_y_ = 1.0F;
  inverse_scale_x_ = inverse_scale_y_ = 1.0F;
  setRuntimeStatusLocked_("init_start");
}

// The order of the tests decides which word a doubly bad call gets.
bool OstrelAlgo::acceptStartLocked_(const PicturePtr& picture, const BBox& roi, BBox* bbox_proc) {
  const auto refuse = [this](const char* word) {
    setRuntimeStatusLocked_(word);
    return false;
  };
  if (roi.w < 1 || roi.h < 1) return refuse("init_fail_invalid_roi");
  if (!picture) return refuse("init_fail_no_frame");
  source_width_ = picture->width();
  source_height_ = picture->height();
  if (source_width_ < 1 || source_height_ < 1) return refuse("init_fail_invalid_source_size");

  fixFramesLocked_();
  *bbox_proc = ostrel_algo_internal::scaleToProcessing(roi, scale_x_, scale_y_, tracker_input_width_,
                                                       tracker_input_height_);
  if (!ostrel_algo_internal::hasPositiveArea(*bbox_proc)) return refuse("init_fail_roi_outside");

  if (debug_) {
    writeConsoleAndLog_(formatText(
        "init_roi raw_full=[%d,%d,%d,%d] scaled=[%d,%d,%d,%d] frame_full=%dx%d "
        "frame_proc=%dx%d scale=[%.4f,%.4f] resize_scale=%.3f",
        roi.x, roi.y, roi.w, roi.h, bbox_proc->x, bbox_proc->y, bbox_proc->w, bbox_proc->h, source_width_,
        source_height_, tracker_input_width_, tracker_input_height_, scale_x_, scale_y_, resize_scale_));
  }
  return true;
}

void OstrelAlgo::fixFramesLocked_() {
  const auto frame = ostrel_algo_internal::makeProcessingFrame(source_width_, source_height_, resize_scale_);
  tracker_input_width_ = frame.width;
  tracker_input_height_ = frame.height;
  scale_x_ = frame.scale_x;
  scale_y_ = frame.scale_y;
  inverse_scale_x_ = frame.inverse_scale_x;
  inverse_scale_y_ = frame.inverse_scale_y;
}

// A gimbal target is made only when both the configuration and the platform ask for it.
void OstrelAlgo::decidePrepositionLocked_(const Metadata& metadata, const BBox& roi,
                                          std::vector<AlgoOutput>* outputs) {
  bool follow_me = false;
  const bool present =
      ostrel_algo_internal::readMetadataFlag(metadata, Metadata::Keys::kFollowMeEnabledCommand, follow_me);
  if (!config_.preposition_enabled || !present || !follow_me) {
    if (!debug_) return;
    writeConsole_(
        formatText("init_preposition_disabled config_enabled=%d follow_me_enabled_command=%s "
                   "value=%d roi=[%d,%d,%d,%d]",
                   config_.preposition_enabled ? 1 : 0, present ? "present" : "missing", follow_me ? 1 : 0,
                   init_roi_full_.x, init_roi_full_.y, init_roi_full_.w, init_roi_full_.h));
    return;
  }
  double pan_deg = 0.0;
  double tilt_deg = 0.0;
  if (!tryBuildPrepositionTarget_(metadata, roi, source_width_, source_height_, pan_deg, tilt_deg)) return;
  have_preposition_target_ = true;
  target_pan_deg_ = pan_deg;
  target_tilt_deg_ = tilt_deg;
  outputs->push_back(makePrepositionOutput_(pan_deg, tilt_deg));
}

void OstrelAlgo::saveRequestLocked_(const PicturePtr& picture, const BBox& bbox_proc) {
  AsyncInitRequest request;
  request.generation = init_generation_;
  request.picture = picture;
  request.config = config_;
  request.bbox_proc = bbox_proc;
  request.bbox_full = bbox_;
  request.source_width = source_width_;
  request.source_height = source_height_;
  request.tracker_input_width = tracker_input_width_;
  request.tracker_input_height = tracker_input_height_;
  request.scale_x = scale_x_;
  request.scale_y = scale_y_;
  request.inverse_scale_x = inverse_scale_x_;
  request.inverse_scale_y = inverse_scale_y_;
  request.debug = debug_;
  pending_init_ = std::move(request);

  deferred_init_ = true;
  init_phase_ = have_preposition_target_ ? InitPhase::WaitingAlignment : InitPhase::WaitingFirstUpdate;
  init_return_ns_ = steadyNowNs();
  setRuntimeStatusLocked_(have_preposition_target_ ? "init_deferred_waiting_alignment"
                                                   : "init_deferred_waiting_update");
}

void OstrelAlgo::logInitReturnLocked_(const PicturePtr& picture, const BBox& roi, std::size_t outputs,
                                      std::uint64_t entered_ns) const {
  if (!debug_) return;
  const std::uint64_t now_ns = steadyNowNs();
  ostrel_algo_internal::writeLogInfo(formatText(
      "[TRACK_FLOW][OT] init_return steady_ns=%llu enter_to_return_ms=%.3f pic_ptr=%p pic_ts=%llu "
      "roi=[%d,%d,%d,%d] outputs=%zu have_target=%d deferred_init=%d target_pan=%.3f target_tilt=%.3f "
      "init_cg=%d init_gn=%d search_factor=%.3f",
      asLlu(now_ns), elapsedMs(entered_ns, now_ns), static_cast<const void*>(picture.get()),
      asLlu(picture->getTimestamp()), roi.x, roi.y, roi.w, roi.h, outputs, have_preposition_target_ ? 1 : 0,
      deferred_init_ ? 1 : 0, target_pan_deg_, target_tilt_deg_, config_.startup_filter_iterations,
      config_.startup_box_refinement_iterations, config_.search_area_factor));
}
