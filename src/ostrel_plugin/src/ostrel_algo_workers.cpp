#include <chrono>
#include <exception>
#include <utility>

#include "ostrel_plugin/src/algo_log.h"
#include "ostrel_plugin/src/frame_intake.h"
#include "ostrel_plugin/src/ostrel_algo.h"
#include "ostrel_plugin/src/steady_clock.h"
#include "ostrel_plugin/src/tracker_runtime_config.h"

using ostrel_algo_internal::asLlu;
using ostrel_algo_internal::elapsedMs;
using ostrel_algo_internal::formatText;
using ostrel_algo_internal::steadyNowNs;
using ostrel_algo_internal::writeLogInfo;
using ostrel_algo_internal::writeLogWarning;

namespace {

constexpr const char* kInputPath = "direct_nv12";

ostrel_tracker::tracking_runtime::tracker::base::BBox asTrackerBox(const BBox& box) {
  return {static_cast<float>(box.x), static_cast<float>(box.y), static_cast<float>(box.w),
          static_cast<float>(box.h)};
}

}  // namespace

bool OstrelAlgo::maybeLaunchDeferredInitLocked_(const PicturePtr& picture) {
  if (!deferred_init_ || init_worker_launched_ || initialized_ || tracker_) return false;
  if (!picture) {
    init_phase_ = InitPhase::WaitingFirstUpdate;
    setRuntimeStatusLocked_("wait_first_update_no_frame");
    return false;  // still deferred: the next frame tries again
  }
  if (!pending_init_ || !pending_init_->picture) {
    deferred_init_ = false;
    init_phase_ = InitPhase::Failed;
    setRuntimeStatusLocked_("init_fail_missing_saved_init_frame");
    return false;
  }
  deferred_init_ = false;
  bbox_ = pending_init_->bbox_full;
  if (debug_) {
    const BBox& full = pending_init_->bbox_full;
    const BBox& proc = pending_init_->bbox_proc;
    writeLogInfo(formatText(
        "[TRACK_FLOW][OT] deferred_init_launch steady_ns=%llu generation=%llu update_pic_ptr=%p "
        "update_pic_ts=%llu init_pic_ptr=%p init_pic_ts=%llu bbox_full=[%d,%d,%d,%d] bbox_proc=[%d,%d,%d,%d]",
        asLlu(steadyNowNs()), asLlu(pending_init_->generation), static_cast<const void*>(picture.get()),
        asLlu(picture->getTimestamp()), static_cast<const void*>(pending_init_->picture.get()),
        asLlu(pending_init_->picture->getTimestamp()), full.x, full.y, full.w, full.h, proc.x, proc.y, proc.w,
        proc.h));
  }
  return launchInitWorkerLocked_();
}

bool OstrelAlgo::launchInitWorkerLocked_() {
  if (init_worker_launched_) return true;
  if (!pending_init_) return false;
  init_launch_ns_ = steadyNowNs();
  if (debug_) {
    const double since_ms = init_return_ns_ == 0 ? -1.0 : elapsedMs(init_return_ns_, init_launch_ns_);
    writeLogInfo(formatText(
        "[TRACK_FLOW][OT] launch_init_worker steady_ns=%llu generation=%llu pic_ptr=%p pic_ts=%llu "
        "since_init_return_ms=%.3f",
        asLlu(init_launch_ns_), asLlu(pending_init_->generation),
        static_cast<const void*>(pending_init_->picture.get()),
        asLlu(pending_init_->picture ? pending_init_->picture->getTimestamp() : 0), since_ms));
  }
  try {
    const std::uint64_t generation = pending_init_->generation;
    init_workers_.reserve(init_workers_.size() + 1);  // a future dropped by a failed append would block
    std::future<AsyncInitResult> future =
        std::async(std::launch::async, &OstrelAlgo::runInitWorker_, std::move(*pending_init_));
    pending_init_.reset();
    init_workers_.push_back({generation, std::move(future)});
  } catch (const std::exception& error) {
    pending_init_.reset();
    init_phase_ = InitPhase::Failed;
    setRuntimeStatusLocked_("init_async_launch_fail", error.what());
    return false;
  }
  init_phase_ = InitPhase::WarmingUp;
  init_worker_launched_ = true;
  setRuntimeStatusLocked_("init_warmup_started");
  return true;
}

OstrelAlgo::AsyncInitResult OstrelAlgo::prepareResult_(const AsyncInitRequest& request) {
  AsyncInitResult result;
  result.generation = request.generation;
  result.status = "init_async_fail";
  result.bbox_full = request.bbox_full;
  result.source_width = request.source_width;
  result.source_height = request.source_height;
  result.tracker_input_width = request.tracker_input_width;
  result.tracker_input_height = request.tracker_input_height;
  result.scale_x = request.scale_x;
  result.scale_y = request.scale_y;
  result.inverse_scale_x = request.inverse_scale_x;
  result.inverse_scale_y = request.inverse_scale_y;
  return result;
}

// Runs on the worker's thread and owns its request. What it throws reaches the poll through the future.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
OstrelAlgo::AsyncInitResult OstrelAlgo::runInitWorker_(AsyncInitRequest request) {
  const std::uint64_t started_ns = steadyNowNs();
  AsyncInitResult result = prepareResult_(request);
  if (!request.picture) {
    result.detail = "missing init picture";
    return result;
  }
  if (request.debug) logWorkerStart_(request);

  const cv::Mat image = ostrel_algo_internal::buildBgrFromOptrixTensor(
      request.picture, request.tracker_input_width, request.tracker_input_height);
  if (image.empty()) {
    result.detail = "direct_nv12_init_frame";
    return result;
  }
  if (request.debug) logWorkerInput_(request, image);

  auto tracker = std::make_unique<Tracker>(ostrel_algo_internal::buildTrackerRuntimeConfig(request.config));
  const auto started = tracker->initialize(image, asTrackerBox(request.bbox_proc));
  result.detail = started.message;
  if (!started.ok) return result;

  result.ok = true;
  result.status = "init_ok";
  result.tracker = std::move(tracker);
  if (request.debug) {
    const std::uint64_t now_ns = steadyNowNs();
    writeLogInfo(formatText(
        "[TRACK_FLOW][OT] worker_done steady_ns=%llu generation=%llu ok=1 elapsed_ms=%.3f message=%s",
        asLlu(now_ns), asLlu(request.generation), elapsedMs(started_ns, now_ns), started.message.c_str()));
  }
  return result;
}

void OstrelAlgo::logWorkerStart_(const AsyncInitRequest& request) {
  writeLogInfo(formatText(
      "[TRACK_FLOW][OT] worker_start steady_ns=%llu generation=%llu pic_ptr=%p pic_ts=%llu init_cg=%d "
      "init_gn=%d search_factor=%.3f",
      asLlu(steadyNowNs()), asLlu(request.generation), static_cast<const void*>(request.picture.get()),
      asLlu(request.picture->getTimestamp()), request.config.startup_filter_iterations,
      request.config.startup_box_refinement_iterations, request.config.search_area_factor));
}

void OstrelAlgo::logWorkerInput_(const AsyncInitRequest& request, const cv::Mat& image) {
  const BBox& full = request.bbox_full;
  const BBox& proc = request.bbox_proc;
  writeLogInfo(formatText("tracking_input_path=%s frame_proc=%dx%d frame_full=%dx%d", kInputPath, image.cols,
                          image.rows, request.source_width, request.source_height));
  writeLogWarning(formatText(
      "[TRACK_DEBUG] init: roi_full_px=[%d,%d,%d,%d] -> scaled_proc=[%d,%d,%d,%d] frame_full=%dx%d "
      "frame_proc=%dx%d scale=[%.4f,%.4f]",
      full.x, full.y, full.w, full.h, proc.x, proc.y, proc.w, proc.h, request.source_width,
      request.source_height, image.cols, image.rows, request.scale_x, request.scale_y));
  writeLogWarning(
      formatText("[TRACK_DEBUG] init: after fitRect=[%d,%d,%d,%d]", proc.x, proc.y, proc.w, proc.h));
}

void OstrelAlgo::pollInitWorkersLocked_() {
  for (auto worker = init_workers_.begin(); worker != init_workers_.end();) {
    if (!worker->future.valid()) {
      worker = init_workers_.erase(worker);
      continue;
    }
    if (worker->future.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
      ++worker;
      continue;
    }
    AsyncInitResult result = takeResult_(&*worker);
    worker = init_workers_.erase(worker);
    applyInitResultLocked_(std::move(result));
  }
}

OstrelAlgo::AsyncInitResult OstrelAlgo::takeResult_(PendingInitWorker* worker) {
  AsyncInitResult result;
  result.status = "init_async_exception";
  try {
    return worker->future.get();
  } catch (const std::exception& error) {
    result.detail = error.what();
  } catch (...) {
    result.detail = "unknown exception";
  }
  result.generation = worker->generation;
  return result;
}

// The only place where a worker's result may touch the object, behind the comparison of generations.
void OstrelAlgo::applyInitResultLocked_(AsyncInitResult result) {
  if (result.generation != init_generation_) {
    if (debug_) {
      writeConsole_(formatText("drop_stale_init_result generation=%llu current=%llu status=%s",
                               asLlu(result.generation), asLlu(init_generation_), result.status.c_str()));
    }
    return;
  }
  if (result.ok && result.tracker) {
    installTrackerLocked_(std::move(result));
  } else {
    failInitLocked_(result);
  }
}

void OstrelAlgo::failInitLocked_(const AsyncInitResult& result) {
  tracker_.reset();
  initialized_ = false;
  init_phase_ = InitPhase::Failed;
  tracking_armed_ = false;
  if (debug_) {
    const std::uint64_t now_ns = steadyNowNs();
    writeLogInfo(
        formatText("[TRACK_FLOW][OT] init_worker_result steady_ns=%llu generation=%llu ok=0 "
                   "status=%s detail=%s warmup_ms=%.3f",
                   asLlu(now_ns), asLlu(result.generation), result.status.c_str(), result.detail.c_str(),
                   warmupMsLocked_(now_ns)));
  }
  setRuntimeStatusLocked_(result.status.empty() ? "init_async_fail" : result.status, result.detail);
}

void OstrelAlgo::installTrackerLocked_(AsyncInitResult result) {
  tracker_ = std::move(result.tracker);
  initialized_ = true;
  armUnlessAligningLocked_();
  bbox_ = result.bbox_full;
  source_width_ = result.source_width;
  source_height_ = result.source_height;
  tracker_input_width_ = result.tracker_input_width;
  tracker_input_height_ = result.tracker_input_height;
  scale_x_ = result.scale_x;
  scale_y_ = result.scale_y;
  inverse_scale_x_ = result.inverse_scale_x;
  inverse_scale_y_ = result.inverse_scale_y;
  ostrel_algo_internal::rebuildOverlays(&overlays_, config_);
  if (tracking_armed_ && have_init_view_) takeZoomReferenceLocked_(init_hfov_deg_, init_vfov_deg_);
  if (debug_) {
    const std::uint64_t now_ns = steadyNowNs();
    writeLogInfo(
        formatText("[TRACK_FLOW][OT] init_worker_result steady_ns=%llu generation=%llu ok=1 "
                   "status=%s detail=%s warmup_ms=%.3f tracking_armed=%d",
                   asLlu(now_ns), asLlu(result.generation), result.status.c_str(), result.detail.c_str(),
                   warmupMsLocked_(now_ns), tracking_armed_ ? 1 : 0));
  }
  setRuntimeStatusLocked_(result.status.empty() ? "init_ok" : result.status, result.detail);
}

void OstrelAlgo::armUnlessAligningLocked_() {
  if (config_.preposition_enabled && have_preposition_target_) {
    tracking_armed_ = false;
    init_phase_ = InitPhase::WaitingAlignment;
    return;
  }
  dropPrepositionTargetLocked_();
  init_phase_ = InitPhase::Ready;
  tracking_armed_ = true;
  refreshTrackingLivenessLocked_(steadyNowNs());
}

double OstrelAlgo::warmupMsLocked_(std::uint64_t now_ns) const {
  return init_launch_ns_ == 0 ? -1.0 : elapsedMs(init_launch_ns_, now_ns);
}

// The lock is held only to take the list: the wait must not block a call that is still under way.
void OstrelAlgo::joinInitWorkers_() {
  std::vector<PendingInitWorker> workers;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    workers.swap(init_workers_);
  }
  for (PendingInitWorker& worker : workers) {
    if (!worker.future.valid()) continue;
    worker.future.wait();
    takeResult_(&worker);  // no failure of one worker stops the others
  }
}
