#pragma once

#include <nvtx3/nvToolsExt.h>

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// What a profiler's time line reads, on the thread that does the stage. Stages of the host: the device's work of a
/// stage lies where its launches point to.
namespace range_names {
// A frame and its stages.
inline constexpr char kFrame[] = "ostrel frame";
inline constexpr char kCrops[] = "ostrel crops";
inline constexpr char kUploadPatches[] = "ostrel patch upload";
inline constexpr char kUploadWeights[] = "ostrel weight upload";
inline constexpr char kBackbone[] = "ostrel backbone";
inline constexpr char kClassify[] = "ostrel projection and correlation";
inline constexpr char kCollect[] = "ostrel results to host";
inline constexpr char kUpsample[] = "ostrel upsampling and peaks";
inline constexpr char kDecide[] = "ostrel analysis";
inline constexpr char kLearn[] = "ostrel sample and schedule";
// A start and its stages; the backbone's own ranges lie inside.
inline constexpr char kStart[] = "ostrel start";
inline constexpr char kEngine[] = "ostrel start: engine";
inline constexpr char kTemplate[] = "ostrel start: template";
inline constexpr char kFirstProjection[] = "ostrel start: first projection";
inline constexpr char kFirstFilter[] = "ostrel start: first filter";
inline constexpr char kAugment[] = "ostrel start: augmentation";
inline constexpr char kStartFeatures[] = "ostrel start: features";
inline constexpr char kFirstTraining[] = "ostrel start: first training";
// A training while tracking, on the job's thread.
inline constexpr char kTraining[] = "ostrel training";
// The solvers, wherever they run.
inline constexpr char kJointFit[] = "ostrel joint fit";
inline constexpr char kGaussNewtonStep[] = "ostrel joint fit: Gauss-Newton step";
inline constexpr char kFilterSolve[] = "ostrel filter solve";
}  // namespace range_names

/// A range of the calling thread, from construction to destruction. It allocates nothing, takes no lock and puts
/// nothing on a stream. To be held on the stack, so that the ranges of a thread nest.
class ProfilerRange {
 public:
  explicit ProfilerRange(const char* name) { static_cast<void>(nvtxRangePushA(name)); }
  ~ProfilerRange() { static_cast<void>(nvtxRangePop()); }
  ProfilerRange(const ProfilerRange&) = delete;
  ProfilerRange& operator=(const ProfilerRange&) = delete;
};

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
