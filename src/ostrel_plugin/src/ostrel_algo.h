#pragma once

#include <IAlgoPlugin.h>
#include <optrix/optrix_picture.h>

#include <cstdint>
#include <future>
#include <memory>
#include <mutex>
#include <opencv2/core.hpp>
#include <optional>
#include <string>
#include <vector>

#include "ostrel_plugin/src/detection_result.h"
#include "ostrel_plugin/src/ostrel_config.h"
#include "ostrel_plugin/src/tracking_overlays.h"
#include "tracking_runtime/tracker/atom/atom.h"
#include "tracking_runtime/tracker/base/bbox.h"

/// The tracker as the host sees it: one object per tracking channel.
///
/// `init` saves a request and returns at once; the first `update` after it launches a worker thread that
/// builds a complete tracker; the `update` that finds the worker done installs the tracker and tracks its own
/// frame. Every `update` answers with one "detection.v1" output of one box or none; failures are told in
/// `property`, never thrown. Boxes are in full-frame pixels.
///
/// One mutex guards every member. The operations that touch state hold it for their whole length, `update`
/// across the tracker call; the worker never takes it. The destructor waits for running workers.
class OstrelAlgo final : public IAlgoPlugin {
 public:
  using PicturePtr = std::shared_ptr<optrix::OptrixPicture>;
  using Metadata = optrix::OptrixPicture::BaseMetadata;

  OstrelAlgo() = default;
  ~OstrelAlgo() override;
  OstrelAlgo(const OstrelAlgo&) = delete;
  OstrelAlgo& operator=(const OstrelAlgo&) = delete;

  std::vector<AlgoOutput> init(const Pictures& pictures, const BBox& roi, bool* ok) override;
  std::vector<AlgoOutputDeclaration> getOutputDeclarations() const override;
  std::vector<AlgoOutput> update(const Pictures& pictures, bool* ok) override;
  bool isAlive() override;
  std::string getName() const override;
  std::string getUuid() override;
  bool isDynamic() const override;
  void changePerformance(int level) override;
  void enableDebug(bool enabled) override;
  std::string getConfigList() override;
  void setConfig(std::string json) override;
  std::string getPropertyList() override;
  void setProperty(std::string name, std::string value) override;
  std::string property(std::string name) override;

 private:
  friend struct OstrelAlgoTestAccess;

  using TrackerBox = ostrel_tracker::tracking_runtime::tracker::base::BBox;
  using Tracker = ostrel_tracker::tracking_runtime::tracker::atom::ATOM;

  enum class InitPhase : std::int32_t {
    Idle = 0,
    WaitingFirstUpdate = 1,
    WarmingUp = 2,
    WaitingAlignment = 3,
    Ready = 4,
    Failed = 5,
  };

  /// Everything that a start-up worker needs, so that it touches nothing of the object.
  struct AsyncInitRequest {
    std::uint64_t generation = 0;
    PicturePtr picture;
    OstrelConfig config;
    BBox bbox_proc;
    BBox bbox_full;
    std::int32_t source_width = 0;
    std::int32_t source_height = 0;
    std::int32_t tracker_input_width = 0;
    std::int32_t tracker_input_height = 0;
    float scale_x = 1.0F;
    float scale_y = 1.0F;
    float inverse_scale_x = 1.0F;
    float inverse_scale_y = 1.0F;
    bool debug = false;
  };

  struct AsyncInitResult {
    std::uint64_t generation = 0;
    bool ok = false;
    std::string status;
    std::string detail;
    std::unique_ptr<Tracker> tracker;
    BBox bbox_full;
    std::int32_t source_width = 0;
    std::int32_t source_height = 0;
    std::int32_t tracker_input_width = 0;
    std::int32_t tracker_input_height = 0;
    float scale_x = 1.0F;
    float scale_y = 1.0F;
    float inverse_scale_x = 1.0F;
    float inverse_scale_y = 1.0F;
  };

  struct PendingInitWorker {
    std::uint64_t generation = 0;
    std::future<AsyncInitResult> future;
  };

  /// One tracker answer on its way to a published box.
  struct TrackedFrame {
    std::int32_t width = 0;  ///< of the full frame, at least 1
    std::int32_t height = 0;
    bool ok = false;
    TrackerBox proc_box;  ///< processing frame, as the tracker gave it
    TrackerBox full_box;  ///< the same in the full frame
    float score = 0.0F;
    std::string status;
  };

  /// Where the target has to be by the view of a frame, and how far the view is off, in fields of view.
  struct ExpectedView {
    BBox bbox;
    double dx_norm = 0.0;
    double dy_norm = 0.0;
    double hfov_deg = 0.0;
    double vfov_deg = 0.0;
  };

  // --- Basics (ostrel_algo.cpp)
  static const char* initPhaseName_(InitPhase phase);
  static std::string generateUuid_();
  AlgoOutput makeDetectionsOutput_(const DetectionResult& result) const;
  AlgoOutput makePrepositionOutput_(double pan_deg, double tilt_deg) const;
  void setRuntimeStatusLocked_(const std::string& status, const std::string& detail = {});
  void writeConsole_(const std::string& message) const;
  void writeConsoleAndLog_(const std::string& message) const;
  void takeZoomReferenceLocked_(double hfov_deg, double vfov_deg);
  void dropPrepositionTargetLocked_();

  // --- Configuration (ostrel_algo_config.cpp)
  void refreshConfigCopiesLocked_();
  void maybeDropPrepositionLocked_();
  void maybeUpdateTrackerConfigLocked_();

  // --- Start (ostrel_algo_init.cpp)
  void resetRunLocked_();
  bool acceptStartLocked_(const PicturePtr& picture, const BBox& roi, BBox* bbox_proc);
  void fixFramesLocked_();
  void decidePrepositionLocked_(const Metadata& metadata, const BBox& roi, std::vector<AlgoOutput>* outputs);
  void saveRequestLocked_(const PicturePtr& picture, const BBox& bbox_proc);
  void logInitReturnLocked_(const PicturePtr& picture, const BBox& roi, std::size_t outputs,
                            std::uint64_t entered_ns) const;

  // --- Start-up workers (ostrel_algo_workers.cpp)
  bool maybeLaunchDeferredInitLocked_(const PicturePtr& picture);
  bool launchInitWorkerLocked_();
  static AsyncInitResult runInitWorker_(AsyncInitRequest request);
  static AsyncInitResult prepareResult_(const AsyncInitRequest& request);
  static void logWorkerStart_(const AsyncInitRequest& request);
  static void logWorkerInput_(const AsyncInitRequest& request, const cv::Mat& image);
  void pollInitWorkersLocked_();
  static AsyncInitResult takeResult_(PendingInitWorker* worker);
  void applyInitResultLocked_(AsyncInitResult result);
  void failInitLocked_(const AsyncInitResult& result);
  void installTrackerLocked_(AsyncInitResult result);
  void armUnlessAligningLocked_();
  double warmupMsLocked_(std::uint64_t now_ns) const;
  void joinInitWorkers_();

  // --- Frame loop (ostrel_algo_update.cpp)
  bool readyToTrackLocked_(const PicturePtr& picture);
  bool reachTrackerLocked_(const PicturePtr& picture);
  bool hasTrackerLocked_();
  bool skipLocked_(const char* last_word);
  void trackFrameLocked_(const PicturePtr& picture, DetectionResult* published);
  bool acceptFrameSizeLocked_(const optrix::OptrixPicture& picture, TrackedFrame* frame);
  void callTrackerLocked_(const PicturePtr& picture, TrackedFrame* frame);

  // --- From the tracker's box to the published one (ostrel_algo_publish.cpp)
  void publishLocked_(const TrackedFrame& frame, DetectionResult* published);
  BBox clampRawBoxLocked_(const TrackedFrame& frame) const;
  bool passOverlaysLocked_(const TrackedFrame& frame, const BBox& clamped, BBox* shown);
  void publishOverlayBoxLocked_(const TrackedFrame& frame, const BBox& shown, const BBox& clamped,
                                DetectionResult* published);
  void publishTrackedBoxLocked_(const TrackedFrame& frame, const BBox& clamped, DetectionResult* published);
  void holdOrFailLocked_(const TrackedFrame& frame, DetectionResult* published);
  void emitLocked_(const BBox& box, float score, const TrackedFrame& frame, DetectionResult* published);
  bool isLogFrameLocked_(std::uint64_t frame_number) const;
  void logFirstFramesLocked_(const TrackedFrame& frame) const;
  void logRawBoxLocked_(const TrackedFrame& frame) const;
  void logPipelineLocked_(const TrackedFrame& frame, const BBox& clamped) const;
  void logEmittedLocked_(const TrackedFrame& frame) const;

  // --- Gimbal alignment (ostrel_algo_alignment.cpp)
  static bool tryReadViewGeometry_(const Metadata& metadata, double& pan_deg, double& tilt_deg,
                                   double& hfov_deg, double& vfov_deg);
  static bool tryBuildPrepositionTarget_(const Metadata& metadata, const BBox& box, int width, int height,
                                         double& pan_deg, double& tilt_deg);
  bool tryBuildExpectedBBoxLocked_(const Metadata& metadata, int width, int height, BBox& out,
                                   double& dx_norm, double& dy_norm, double& hfov_deg,
                                   double& vfov_deg) const;
  cv::Size2d limitExpectedSizeLocked_(const cv::Size2d& raw) const;
  bool tryArmTrackingLocked_(const PicturePtr& picture);
  bool armWithoutTargetLocked_();
  bool tryReachAlignmentLocked_(const optrix::OptrixPicture& picture, ExpectedView* view);
  bool teleportLocked_(const PicturePtr& picture, const ExpectedView& view);

  // --- Zoom and liveness (ostrel_algo_watchers.cpp)
  static bool tryComputeZoomScaleFactor_(double previous_hfov, double previous_vfov, double hfov, double vfov,
                                         float& factor);
  void maybeNotifyZoomChangeLocked_(const Metadata& metadata);
  void notifyZoomChangeLocked_(float factor, double hfov_deg, double vfov_deg);
  void refreshTrackingLivenessLocked_(std::uint64_t now_ns);
  void maybeMarkTrackingDeadLocked_(std::uint64_t now_ns);

  std::mutex mutex_;
  OstrelConfig config_;
  bool debug_ = false;
  bool initialized_ = false;  ///< a tracker of a successful worker is installed
  bool alive_ = true;         ///< false once the dead timeout fired
  InitPhase init_phase_ = InitPhase::Idle;
  std::int32_t class_id_ = -1;
  std::int32_t tracker_id_ = 0;
  std::string class_name_ = "OstrelTracking";
  float resize_scale_ = 1.0F;
  std::int32_t tracker_input_width_ = 0;  ///< processing frame
  std::int32_t tracker_input_height_ = 0;
  std::int32_t source_width_ = 0;  ///< full frame
  std::int32_t source_height_ = 0;
  float scale_x_ = 1.0F;  ///< full to processing
  float scale_y_ = 1.0F;
  float inverse_scale_x_ = 1.0F;  ///< processing to full
  float inverse_scale_y_ = 1.0F;
  std::string uuid_;
  std::uint64_t debug_frame_counter_ = 0;  ///< boxes emitted since `init`
  std::int32_t debug_log_period_ = 5;
  float score_ = 0.0F;  ///< of the last emitted box
  BBox bbox_;           ///< last emitted box, or the start box
  std::string runtime_status_ = "idle";
  std::string runtime_detail_;
  TrackerBox raw_bbox_;  ///< last good tracker box, full-frame pixels
  float raw_score_ = 0.0F;
  std::int32_t frame_width_ = 0;  ///< of the last frame
  std::int32_t frame_height_ = 0;
  std::uint64_t update_calls_ = 0;
  std::uint64_t track_ok_ = 0;
  std::uint64_t track_fail_ = 0;
  std::uint64_t track_fail_hold_ = 0;
  std::uint64_t init_generation_ = 0;  ///< counts `init` calls, never reset
  std::uint64_t init_return_ns_ = 0;
  std::uint64_t init_launch_ns_ = 0;
  std::uint64_t last_track_ok_ns_ = 0;  ///< last refresh of liveness
  std::optional<AsyncInitRequest> pending_init_;
  std::vector<PendingInitWorker> init_workers_;
  BBox init_roi_full_;  ///< the start region, clipped to the frame
  bool deferred_init_ = false;
  bool init_worker_launched_ = false;  ///< cleared only by `init`
  bool tracking_armed_ = false;
  bool have_preposition_target_ = false;
  bool have_init_view_ = false;
  bool have_zoom_reference_ = false;
  double target_pan_deg_ = 0.0;
  double target_tilt_deg_ = 0.0;
  double init_pan_deg_ = 0.0;
  double init_tilt_deg_ = 0.0;
  double init_hfov_deg_ = 0.0;
  double init_vfov_deg_ = 0.0;
  double zoom_ref_hfov_deg_ = 0.0;
  double zoom_ref_vfov_deg_ = 0.0;
  std::unique_ptr<Tracker> tracker_;
  std::vector<std::unique_ptr<ITrackingOverlay>> overlays_;
  std::uint32_t overlay_frame_index_ = 0;
};
