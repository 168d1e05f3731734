#pragma once

#include "tracking_runtime/tracker/atom/gpu/trt_backbone.h"
#include "tracking_runtime/tracker/atom/stage_clock.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// Milliseconds of the stages of one frame, for the periodic timing line. `frame` starts with the cutting of
/// the patches.
struct FrameTimings {
  StageClock frame;
  double crop_ms = 0.0;  ///< cutting the patches
  double feat_ms = 0.0;  ///< classification, or extraction on the host route
  GpuTrackTimings gpu;
  double proj_ms = 0.0;   ///< host route only, sum over candidates
  double clf_ms = 0.0;    ///< host route only, sum over candidates
  double fft_ms = 0.0;    ///< upsampling and peak, sum over candidates
  double train_ms = 0.0;  ///< scheduling a training
};

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
