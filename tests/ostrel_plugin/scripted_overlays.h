#pragma once

#include <vector>

#include "ostrel_plugin/src/tracking_overlays.h"

/// Overlays that tests put into the chain.

namespace ostrel_test {

/// Moves and widens the box by some pixels.
struct ShiftOverlay : ITrackingOverlay {
  ShiftOverlay(std::int32_t right_px, std::int32_t wider_px) : right_px_(right_px), wider_px_(wider_px) {}
  void process(TrackingContext& context) override {
    context.bbox.x += right_px_;
    context.bbox.w += wider_px_;
  }
  void reset() override {}
  std::int32_t right_px_;
  std::int32_t wider_px_;
};

/// Says the same of every frame.
struct VerdictOverlay : ITrackingOverlay {
  VerdictOverlay(bool alive, bool publish) : alive_(alive), publish_(publish) {}
  void process(TrackingContext& context) override {
    context.alive = alive_;
    context.publish = publish_;
  }
  void reset() override {}
  bool alive_;
  bool publish_;
};

/// Records what the chain is handed.
struct SpyOverlay : ITrackingOverlay {
  explicit SpyOverlay(std::vector<TrackingContext>* seen) : seen_(seen) {}
  void process(TrackingContext& context) override { seen_->push_back(context); }
  void reset() override {}
  std::vector<TrackingContext>* seen_;
};

}  // namespace ostrel_test
