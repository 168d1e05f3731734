// From the candidates of a frame to its answer, for both pixel sources: decide, learn, trace, report.

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "tracking_runtime/tracker/atom/cuda_runtime_backend.h"
#include "tracking_runtime/tracker/atom/frame_candidate.h"
#include "tracking_runtime/tracker/atom/frame_decision.h"
#include "tracking_runtime/tracker/atom/frame_timings.h"
#include "tracking_runtime/tracker/atom/gpu/profiler_range.h"
#include "tracking_runtime/tracker/atom/rounding.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

constexpr int kTimingLinePeriod_frames = 30;
constexpr int kDebugLineFrames = 10;

const char* flag_name(FrameFlag flag) {
  if (flag == FrameFlag::kHardNegative) return "hard_neg";
  return flag == FrameFlag::kUncertain ? "uncertain" : "ok";
}

void print_view_debug_line(const TargetState& state, const FrameDecision& decision) {
  const base::BBox& box = *decision.bbox;
  std::fprintf(stderr,
               "[TRACK_DEBUG][ATOM] view frame=%llu: center=(%.1f,%.1f) size=(%.1f,%.1f) → "
               "bbox_proc=[%.1f,%.1f,%.1f,%.1f] score=%.3f flag=%d\n",
               static_cast<unsigned long long>(state.frame_index), static_cast<double>(state.target_pos.x),
               static_cast<double>(state.target_pos.y), static_cast<double>(state.target_size.width),
               static_cast<double>(state.target_size.height), static_cast<double>(box.x),
               static_cast<double>(box.y), static_cast<double>(box.width), static_cast<double>(box.height),
               static_cast<double>(decision.computed_score), static_cast<int>(decision.flag));
}

void print_timing_line(int frame_index, const FrameDecision& decision, const FrameTimings& timings) {
  const GpuTrackTimings& gpu = timings.gpu;
  const double gpu_ms = static_cast<double>(gpu.upload_u8_ms) + static_cast<double>(gpu.preprocess_cuda_ms) +
                        static_cast<double>(gpu.upload_weights_gpu_ms) +
                        static_cast<double>(gpu.trt_wait_ms) + static_cast<double>(gpu.d2h_response_ms) +
                        static_cast<double>(gpu.d2h_projected_ms);
  std::fprintf(
      stderr,
      "[CudaRuntimeBackend] frame=%d total=%.1fms crop=%.1f feat=%.1f upload_u8=%.1f preprocess_cuda=%.1f "
      "upload_weights_gpu=%.1f trt_wait=%.1f d2h_response=%.1f d2h_projected=%.1f feat_other=%.1f proj=%.1f "
      "clf=%.1f fft=%.1f train=%.1f | score=%.3f raw=%.3f max2=%.3f scale=%.4f margin=%.3f jump_norm=%.1f "
      "jump_hold=%d mem=%d flag=%s\n",
      frame_index, timings.frame.elapsed_ms(), timings.crop_ms, timings.feat_ms,
      static_cast<double>(gpu.upload_u8_ms), static_cast<double>(gpu.preprocess_cuda_ms),
      static_cast<double>(gpu.upload_weights_gpu_ms), static_cast<double>(gpu.trt_wait_ms),
      static_cast<double>(gpu.d2h_response_ms), static_cast<double>(gpu.d2h_projected_ms),
      std::max(timings.feat_ms - gpu_ms, 0.0), timings.proj_ms, timings.clf_ms, timings.fft_ms,
      timings.train_ms, static_cast<double>(decision.score), static_cast<double>(decision.raw),
      static_cast<double>(decision.max2), static_cast<double>(decision.best_scale),
      static_cast<double>(decision.scale_margin), static_cast<double>(decision.motion), 0,
      decision.qualifies ? 1 : 0, flag_name(decision.flag));
}

FrameDecision decide(TargetState* state, std::vector<Candidate>* candidates, const FramePath& path) {
  const ProfilerRange range(range_names::kDecide);
  return decide_frame(state, candidates, path);
}

cv::Rect_<int> rounded(const base::BBox& box) {
  return {round_to_int(box.x), round_to_int(box.y), std::max(round_to_int(box.width), 1),
          std::max(round_to_int(box.height), 1)};
}

}  // namespace

bool CudaRuntimeBackend::finish_frame_(std::vector<Candidate>* candidates, const FramePath& path,
                                       FrameTimings* timings, base::BBox* bbox, float* score,
                                       std::string* status) {
  const FrameDecision decision = decide(this, candidates, path);
  if (decision.bbox) {
    *bbox = *decision.bbox;
    *score = decision.score;
  }
  if (path.is_view && decision.state_updated && frame_index <= kDebugLineFrames) {
    print_view_debug_line(*this, decision);
  }
  if (decision.store) {
    learn_from_frame_(decision, (*candidates)[static_cast<std::size_t>(decision.best)], timings);
  }
  if (decision.accepted && frame_index % kTimingLinePeriod_frames == 0) {
    print_timing_line(frame_index, decision, *timings);
  }
  if (status != nullptr) *status = decision.status;
  trace_frame_(decision, path);
  return decision.ok;
}

void CudaRuntimeBackend::learn_from_frame_(const FrameDecision& decision, const Candidate& best,
                                           FrameTimings* timings) {
  const ProfilerRange range(range_names::kLearn);
  const LabelMap label = build_label_for_sample_(best.feature, decision.sample_pos, decision.sample_scale);
  if (!label.defined()) return;
  static_cast<void>(store_training_sample_(best.feature, label, decision.rate));
  if (!decision.training) return;
  const StageClock clock;
  train_filter_async_(decision.training->iterations, decision.training->sample_cap, decision.training->reason,
                      frame_index);
  timings->train_ms = clock.elapsed_ms();
}

void CudaRuntimeBackend::trace_frame_(const FrameDecision& decision, const FramePath& path) {
  if (trace_writer == nullptr || decision.trace_event == nullptr) return;
  const bool published = decision.accepted && !path.is_view;
  const cv::Rect_<int> box = published ? rounded(*decision.bbox) : bbox_from_state_(image_size);
  const float scale = decision.accepted && path.is_view ? decision.frame_target_scale : target_scale;
  trace_writer->log(decision.trace_event, frame_index, name(), decision.status, box, decision.score,
                    decision.raw, decision.max2, decision.best_scale, scale);
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
