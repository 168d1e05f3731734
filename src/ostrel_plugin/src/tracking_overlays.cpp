#include "ostrel_plugin/src/tracking_overlays.h"

ScoreTimeoutOverlay::ScoreTimeoutOverlay(const OstrelConfig& config)
    : lost_after_low_score_frames(config.lost_after_low_score_frames),
      lost_score_threshold(config.lost_score_threshold),
      publish_after_confirm_frames(config.publish_after_confirm_frames) {}

void ScoreTimeoutOverlay::process(TrackingContext& context) {
  const bool low = context.score < lost_score_threshold;
  if (publish_after_confirm_frames >= 1) {
    processWithConfirmation(low, context);
  } else {
    processWithoutConfirmation(low, context);
  }
}

void ScoreTimeoutOverlay::processWithConfirmation(bool low, TrackingContext& context) {
  if (waiting_confirm) {
    awaitConfirmation(low, context);
    return;
  }
  if (!low) {
    low_score_count = 0;
    return;
  }
  if (!countLowFrame()) return;
  confirm_count = 0;
  waiting_confirm = true;
  context.publish = false;
}

void ScoreTimeoutOverlay::awaitConfirmation(bool low, TrackingContext& context) {
  confirm_count = low ? 0 : confirm_count + 1;
  if (!low && confirm_count >= publish_after_confirm_frames) {
    reset();
    return;
  }
  context.publish = false;
}

void ScoreTimeoutOverlay::processWithoutConfirmation(bool low, TrackingContext& context) {
  if (!low) {
    low_score_count = 0;
    return;
  }
  if (!countLowFrame()) return;
  context.alive = false;
  context.publish = false;
}

// True when the row of low frames is long enough.
bool ScoreTimeoutOverlay::countLowFrame() {
  ++low_score_count;
  return lost_after_low_score_frames >= 1 && low_score_count >= lost_after_low_score_frames;
}

void ScoreTimeoutOverlay::reset() {
  low_score_count = 0;
  confirm_count = 0;
  waiting_confirm = false;
}

StatusDebouncerOverlay::StatusDebouncerOverlay(const OstrelConfig& config)
    : dead_status_confirm_frames(config.dead_status_confirm_frames) {}

void StatusDebouncerOverlay::process(TrackingContext& context) {
  if (context.alive) {
    dead_count = 0;
    return;
  }
  ++dead_count;
  if (dead_status_confirm_frames > dead_count) {
    context.alive = true;
    context.publish = true;
  }
}

void StatusDebouncerOverlay::reset() {
  dead_count = 0;
}

namespace ostrel_algo_internal {

void rebuildOverlays(std::vector<std::unique_ptr<ITrackingOverlay>>* overlays, const OstrelConfig& config) {
  if (overlays == nullptr) return;
  overlays->clear();
  overlays->push_back(std::make_unique<ScoreTimeoutOverlay>(config));
  overlays->push_back(std::make_unique<StatusDebouncerOverlay>(config));
}

}  // namespace ostrel_algo_internal
