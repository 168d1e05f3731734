#pragma once

#include <IAlgoPlugin.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "ostrel_plugin/src/ostrel_config.h"

/// One frame's answer on its way to the host: every overlay of the chain may change it.
struct TrackingContext {
  float score = 0.0F;
  BBox bbox;            ///< full-frame pixels
  bool alive = true;    ///< false: the target counts as dead in this frame
  bool publish = true;  ///< false: no box in this frame
  std::uint32_t frame_index = 0;
};

/// A publication policy on the tracker's answers.
class ITrackingOverlay {
 public:
  virtual ~ITrackingOverlay() = default;
  virtual void process(TrackingContext& context) = 0;
  /// Forgets what earlier frames said.
  virtual void reset() = 0;
};

/// Hides a target after a row of low scores. With confirmation it comes back after a row of good frames, the
/// last of which is published; without (`publish_after_confirm_frames` 0) the target is declared dead instead.
class ScoreTimeoutOverlay final : public ITrackingOverlay {
 public:
  explicit ScoreTimeoutOverlay(const OstrelConfig& config);
  void process(TrackingContext& context) override;
  void reset() override;

 private:
  void processWithConfirmation(bool low, TrackingContext& context);
  void processWithoutConfirmation(bool low, TrackingContext& context);
  void awaitConfirmation(bool low, TrackingContext& context);
  bool countLowFrame();

  std::int32_t lost_after_low_score_frames;
  float lost_score_threshold;
  std::int32_t publish_after_confirm_frames;
  std::int32_t low_score_count = 0;
  std::int32_t confirm_count = 0;
  bool waiting_confirm = false;
};

/// Lets a dead verdict pass only when it has come in a row of frames; before that the frame is published.
class StatusDebouncerOverlay final : public ITrackingOverlay {
 public:
  explicit StatusDebouncerOverlay(const OstrelConfig& config);
  void process(TrackingContext& context) override;
  void reset() override;

 private:
  std::int32_t dead_status_confirm_frames;
  std::int32_t dead_count = 0;
};

namespace ostrel_algo_internal {

/// Replaces the chain by a fresh one: the score overlay, then the debouncer of its verdicts. Null does nothing.
void rebuildOverlays(std::vector<std::unique_ptr<ITrackingOverlay>>* overlays, const OstrelConfig& config);

}  // namespace ostrel_algo_internal
