#include <algorithm>
#include <exception>
#include <opencv2/core.hpp>

#include "ostrel_plugin/src/ostrel_algo.h"
#include "ostrel_plugin/src/steady_clock.h"

// The fixed frame of the plug-in: lock, workers, start-up states, tracker, dead check. A frame that has nothing
// to say is no error for the host, so `*ok` is always true and there is always one output.
std::vector<AlgoOutput> OstrelAlgo::update(const Pictures& pictures, bool* ok) {
  const PicturePtr picture = pictures.empty() ? nullptr : pictures.front();
  if (ok != nullptr) *ok = true;
  DetectionResult published;

  const std::lock_guard<std::mutex> lock(mutex_);
  pollInitWorkersLocked_();  // what arrives here can make this very frame the first tracked one
  ++update_calls_;
  if (readyToTrackLocked_(picture)) trackFrameLocked_(picture, &published);
  maybeMarkTrackingDeadLocked_(ostrel_algo_internal::steadyNowNs());
  std::vector<AlgoOutput> outputs;
  outputs.push_back(makeDetectionsOutput_(published));
  return outputs;
}

// True when this frame goes to the tracker. Otherwise the status says why not.
bool OstrelAlgo::readyToTrackLocked_(const PicturePtr& picture) {
  if (!initialized_ && !reachTrackerLocked_(picture)) return false;
  if (!tracker_) return skipLocked_("update_skip_no_tracker_impl");
  if (!tracking_armed_ && !(tryArmTrackingLocked_(picture) && hasTrackerLocked_())) return false;
  if (!picture) return skipLocked_("update_skip_no_frame");
  return true;
}

// Launches a saved start; true when a tracker is there all the same.
bool OstrelAlgo::reachTrackerLocked_(const PicturePtr& picture) {
  if (tracker_ || init_worker_launched_) return skipLocked_("update_skip_not_initialized");
  const bool launched = maybeLaunchDeferredInitLocked_(picture);
  pollInitWorkersLocked_();
  if (launched) return false;  // the launch has set the status
  return initialized_ || skipLocked_("update_skip_not_initialized");
}

bool OstrelAlgo::hasTrackerLocked_() {
  if (!initialized_) return skipLocked_("update_skip_not_initialized");
  return tracker_ || skipLocked_("update_skip_no_tracker_impl");
}

// Always false. A phase that explains the skip outranks the word of the place.
bool OstrelAlgo::skipLocked_(const char* last_word) {
  switch (init_phase_) {
    case InitPhase::WarmingUp:
      setRuntimeStatusLocked_("update_skip_warming_up");
      break;
    case InitPhase::WaitingFirstUpdate:
      setRuntimeStatusLocked_("update_skip_waiting_first_update");
      break;
    case InitPhase::WaitingAlignment:
      setRuntimeStatusLocked_("update_skip_waiting_alignment");
      break;
    default:
      setRuntimeStatusLocked_(last_word);
  }
  return false;
}

void OstrelAlgo::trackFrameLocked_(const PicturePtr& picture, DetectionResult* published) {
  TrackedFrame frame;
  if (!acceptFrameSizeLocked_(*picture, &frame)) return;
  maybeNotifyZoomChangeLocked_(picture->baseMetadata());  // first, so that the tracker sees the step
  callTrackerLocked_(picture, &frame);
  frame_width_ = frame.width;
  frame_height_ = frame.height;
  logFirstFramesLocked_(frame);
  if (frame.ok) {
    publishLocked_(frame, published);
  } else {
    holdOrFailLocked_(frame, published);
  }
}

// The source grows with a frame before the two are compared: a frame larger in both directions passes, with
// the processing frame as it was, and one smaller in some direction is refused.
bool OstrelAlgo::acceptFrameSizeLocked_(const optrix::OptrixPicture& picture, TrackedFrame* frame) {
  frame->width = picture.width();
  frame->height = picture.height();
  if (frame->width > 0 && frame->height > 0) {
    frame_width_ = frame->width;
    frame_height_ = frame->height;
    source_width_ = std::max(source_width_, frame->width);
    source_height_ = std::max(source_height_, frame->height);
    if (source_width_ != frame->width || source_height_ != frame->height) {
      setRuntimeStatusLocked_("update_skip_source_size_changed");
      return false;
    }
  } else {
    frame->width = source_width_;
    frame->height = source_height_;
  }
  frame->width = std::max(frame->width, 1);
  frame->height = std::max(frame->height, 1);
  if (tracker_input_width_ <= 0 || tracker_input_height_ <= 0) {
    setRuntimeStatusLocked_("update_skip_invalid_proc_size");
    return false;
  }
  return true;
}

void OstrelAlgo::callTrackerLocked_(const PicturePtr& picture, TrackedFrame* frame) {
  ostrel_tracker::tracking_runtime::tracker::atom::AtomTrackResult result;
  try {
    result = tracker_->trackViewWithOffset(picture, inverse_scale_x_, inverse_scale_y_, tracker_input_width_,
                                           tracker_input_height_, 0, 0);
  } catch (const cv::Exception& error) {
    result.status = std::string("track_view_cv_exception:") + error.what();
  } catch (const std::exception& error) {
    result.status = std::string("track_view_exception:") + error.what();
  } catch (...) {
    result.status = "track_view_exception";
  }
  frame->ok = result.ok;
  frame->score = result.score;
  frame->status = result.status;
  frame->proc_box = result.bbox;
  frame->full_box = {result.bbox.x * inverse_scale_x_, result.bbox.y * inverse_scale_y_,
                     result.bbox.width * inverse_scale_x_, result.bbox.height * inverse_scale_y_};
}
