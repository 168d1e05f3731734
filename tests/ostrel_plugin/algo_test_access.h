#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "ostrel_plugin/src/ostrel_algo.h"

/// What tests reach inside the plug-in object: states that a host cannot bring about or see, and its static
/// functions.
struct OstrelAlgoTestAccess {
  using Phase = OstrelAlgo::InitPhase;
  using Request = OstrelAlgo::AsyncInitRequest;
  using Result = OstrelAlgo::AsyncInitResult;

  /// Values that no document can set are written here; all others go through `setConfig`.
  static OstrelConfig& config(OstrelAlgo& algo) { return algo.config_; }
  static BBox& bbox(OstrelAlgo& algo) { return algo.bbox_; }
  static bool& initialized(OstrelAlgo& algo) { return algo.initialized_; }
  static bool& armed(OstrelAlgo& algo) { return algo.tracking_armed_; }
  static std::int32_t& sourceWidth(OstrelAlgo& algo) { return algo.source_width_; }
  static std::int32_t& sourceHeight(OstrelAlgo& algo) { return algo.source_height_; }
  static std::int32_t& processingWidth(OstrelAlgo& algo) { return algo.tracker_input_width_; }
  static float& inverseScaleX(OstrelAlgo& algo) { return algo.inverse_scale_x_; }
  static std::uint64_t& lastTrackOkNs(OstrelAlgo& algo) { return algo.last_track_ok_ns_; }
  static std::uint64_t& initReturnNs(OstrelAlgo& algo) { return algo.init_return_ns_; }
  static std::uint64_t& initLaunchNs(OstrelAlgo& algo) { return algo.init_launch_ns_; }
  static std::uint64_t generation(OstrelAlgo& algo) { return algo.init_generation_; }
  static std::uint32_t overlayFrameIndex(OstrelAlgo& algo) { return algo.overlay_frame_index_; }
  static auto& overlays(OstrelAlgo& algo) { return algo.overlays_; }
  static auto& pendingInit(OstrelAlgo& algo) { return algo.pending_init_; }
  static auto& workers(OstrelAlgo& algo) { return algo.init_workers_; }
  static auto& tracker(OstrelAlgo& algo) { return algo.tracker_; }
  static bool haveTarget(OstrelAlgo& algo) { return algo.have_preposition_target_; }
  static bool haveInitView(OstrelAlgo& algo) { return algo.have_init_view_; }
  static bool haveZoomReference(OstrelAlgo& algo) { return algo.have_zoom_reference_; }
  static std::pair<double, double> zoomReference(OstrelAlgo& algo) {
    return {algo.zoom_ref_hfov_deg_, algo.zoom_ref_vfov_deg_};
  }
  static std::pair<double, double> target(OstrelAlgo& algo) {
    return {algo.target_pan_deg_, algo.target_tilt_deg_};
  }
  static std::pair<float, float> scale(OstrelAlgo& algo) { return {algo.scale_x_, algo.scale_y_}; }
  static std::pair<float, float> inverseScale(OstrelAlgo& algo) {
    return {algo.inverse_scale_x_, algo.inverse_scale_y_};
  }

  /// Until every start-up worker has its result; changes nothing.
  static void waitForWorkers(OstrelAlgo& algo) {
    for (auto& worker : algo.init_workers_) worker.future.wait();
  }

  static std::string phaseName(Phase phase) { return OstrelAlgo::initPhaseName_(phase); }
  static Result runWorker(Request request) { return OstrelAlgo::runInitWorker_(std::move(request)); }
  static AlgoOutput detections(const OstrelAlgo& algo, const DetectionResult& result) {
    return algo.makeDetectionsOutput_(result);
  }
  static void setStatus(OstrelAlgo& algo, const std::string& status, const std::string& detail) {
    algo.setRuntimeStatusLocked_(status, detail);
  }
  static bool arm(OstrelAlgo& algo, const OstrelAlgo::PicturePtr& picture) {
    return algo.tryArmTrackingLocked_(picture);
  }
  static bool launch(OstrelAlgo& algo) { return algo.launchInitWorkerLocked_(); }

  static bool readView(const OstrelAlgo::Metadata& metadata, double& pan, double& tilt, double& hfov,
                       double& vfov) {
    return OstrelAlgo::tryReadViewGeometry_(metadata, pan, tilt, hfov, vfov);
  }
  static bool buildTarget(const OstrelAlgo::Metadata& metadata, const BBox& box, int width, int height,
                          double& pan, double& tilt) {
    return OstrelAlgo::tryBuildPrepositionTarget_(metadata, box, width, height, pan, tilt);
  }
  static std::optional<float> zoomFactor(double previous_hfov, double previous_vfov, double hfov,
                                         double vfov) {
    float factor = 0.0F;
    if (!OstrelAlgo::tryComputeZoomScaleFactor_(previous_hfov, previous_vfov, hfov, vfov, factor)) return {};
    return factor;
  }
};
