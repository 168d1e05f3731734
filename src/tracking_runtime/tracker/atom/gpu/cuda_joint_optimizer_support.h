#pragma once

#include <cuda_runtime.h>

#include <array>
#include <string>
#include <vector>

#include "tracking_runtime/tracker/atom/gpu/cuda_handles.h"

/// Stage timings of a joint optimisation, by pairs of events on its stream.

namespace ostrel_tracker::tracking_runtime::tracker::atom::detail {

/// Two events around a stage; null until it begins, and after it was handed over.
struct CudaEventRange {
  CudaEvent start;
  CudaEvent stop;
};

/// The stages of a fit, in the order of their first appearance.
enum class JointOptPhase : int {
  kUpload,
  kRhsProject,
  kRhsClassify,
  kRhsResidual,
  kRhsRegularize,
  kRhsFilterGrad,
  kRhsBackprop,
  kRhsProjGrad,
  kCgRho,
  kCgBeta,
  kCgRegularize,
  kCgProject,
  kCgClassify,
  kCgJtj,
  kCgFilterGrad,
  kCgBackprop,
  kCgProjGrad,
  kCgPq,
  kCgUpdate,
  kApply,
  kDownload
};
constexpr std::size_t kJointOptPhases = 21;

/// What a stage's failed event calls are labelled with.
const char* joint_opt_label(JointOptPhase phase);

/// The finished ranges of one fit by stage. Its end destroys their events.
struct JointOptTimingCollector {
  std::array<std::vector<CudaEventRange>, kJointOptPhases> ranges;

  const std::vector<CudaEventRange>& of(JointOptPhase phase) const {
    return ranges[static_cast<std::size_t>(phase)];
  }
  std::vector<CudaEventRange>& of(JointOptPhase phase) { return ranges[static_cast<std::size_t>(phase)]; }
};

/// Destroys both events; the range is null afterwards.
void destroy_event_range(CudaEventRange* range);

/// Makes both events and records `start`. Nothing to do for a null range. A failure reads the label, ": " and
/// the CUDA text, and leaves the range null.
bool begin_timed_range(cudaStream_t stream, CudaEventRange* range, const char* label, std::string* error);

/// Records `stop` and hands the range to the collector, which leaves it null. A failure reads as above and
/// destroys both events. Nothing to do for a null range.
bool end_timed_range(JointOptTimingCollector* collector, JointOptPhase phase, cudaStream_t stream,
                     CudaEventRange* range, const char* label, std::string* error);

/// Milliseconds of all ranges together, without those whose time cannot be told: an event is null, or has not
/// happened.
double sum_event_ranges_ms(const std::vector<CudaEventRange>& ranges);

/// Writes the two lines of a fit to standard error. Times are those between event pairs; gaps between stages
/// are left out.
void log_joint_opt_timings(const JointOptTimingCollector& collector, int samples, int gauss_newton_iterations,
                           int conjugate_gradient_iterations);

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom::detail
