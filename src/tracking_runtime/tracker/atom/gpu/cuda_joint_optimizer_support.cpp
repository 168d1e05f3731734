#include "tracking_runtime/tracker/atom/gpu/cuda_joint_optimizer_support.h"

#include <cstdio>
#include <utility>

namespace ostrel_tracker::tracking_runtime::tracker::atom::detail {
namespace {

using Phase = JointOptPhase;
using Milliseconds = std::array<double, kJointOptPhases>;

constexpr std::array<const char*, kJointOptPhases> kLabels = {
    "joint_opt upload inputs", "joint_opt rhs project",    "joint_opt rhs classify",
    "joint_opt rhs residual",  "joint_opt rhs regularize", "joint_opt rhs filter_grad",
    "joint_opt rhs backprop",  "joint_opt rhs proj_grad",  "joint_opt cg rho",
    "joint_opt cg beta",       "joint_opt cg regularize",  "joint_opt cg project",
    "joint_opt cg classify",   "joint_opt cg jtj",         "joint_opt cg filter_grad",
    "joint_opt cg backprop",   "joint_opt cg proj_grad",   "joint_opt cg pq",
    "joint_opt cg update",     "joint_opt gn apply",       "joint_opt download"};

bool record(cudaEvent_t event, cudaStream_t stream, const char* label, std::string* error) {
  return set_cuda_error(cudaEventRecord(event, stream), label, error);
}

double sum_between(const Milliseconds& t, Phase first, Phase last) {
  double sum = 0.0;
  for (auto phase = static_cast<std::size_t>(first); phase <= static_cast<std::size_t>(last); ++phase) {
    sum += t[phase];
  }
  return sum;
}

void log_summary(const Milliseconds& t, int samples, int gauss_newton_iterations,
                 int conjugate_gradient_iterations) {
  const double upload = sum_between(t, Phase::kUpload, Phase::kUpload);
  const double rhs = sum_between(t, Phase::kRhsProject, Phase::kRhsProjGrad);
  const double cg = sum_between(t, Phase::kCgRho, Phase::kCgUpdate);
  const double apply = sum_between(t, Phase::kApply, Phase::kApply);
  const double download = sum_between(t, Phase::kDownload, Phase::kDownload);
  std::fprintf(stderr,
               "[CudaJointOptimizer] timing summary: samples=%d gn=%d cg=%d total=%.1fms upload=%.1f "
               "rhs=%.1f cg=%.1f apply=%.1f download=%.1f\n",
               samples, gauss_newton_iterations, conjugate_gradient_iterations,
               upload + rhs + cg + apply + download, upload, rhs, cg, apply, download);
}

void log_phases(const Milliseconds& t) {
  const auto ms = [&](Phase phase) { return t[static_cast<std::size_t>(phase)]; };
  std::fprintf(stderr,
               "[CudaJointOptimizer] timing phases: rhs_project=%.1f rhs_classify=%.1f rhs_residual=%.1f "
               "rhs_reg=%.1f rhs_filter_grad=%.1f rhs_backprop=%.1f rhs_proj_grad=%.1f cg_rho=%.1f "
               "cg_beta=%.1f cg_reg=%.1f cg_project=%.1f cg_classify=%.1f cg_jtj=%.1f cg_filter_grad=%.1f "
               "cg_backprop=%.1f cg_proj_grad=%.1f cg_pq=%.1f cg_update=%.1f\n",
               ms(Phase::kRhsProject), ms(Phase::kRhsClassify), ms(Phase::kRhsResidual),
               ms(Phase::kRhsRegularize), ms(Phase::kRhsFilterGrad), ms(Phase::kRhsBackprop),
               ms(Phase::kRhsProjGrad), ms(Phase::kCgRho), ms(Phase::kCgBeta), ms(Phase::kCgRegularize),
               ms(Phase::kCgProject), ms(Phase::kCgClassify), ms(Phase::kCgJtj), ms(Phase::kCgFilterGrad),
               ms(Phase::kCgBackprop), ms(Phase::kCgProjGrad), ms(Phase::kCgPq), ms(Phase::kCgUpdate));
}

}  // namespace

const char* joint_opt_label(JointOptPhase phase) {
  return kLabels[static_cast<std::size_t>(phase)];
}

void destroy_event_range(CudaEventRange* range) {
  release_in_order(range->start, range->stop);
}

bool begin_timed_range(cudaStream_t stream, CudaEventRange* range, const char* label, std::string* error) {
  if (range == nullptr) return true;
  const bool begun = set_cuda_error(range->start.create(), label, error) &&
                     set_cuda_error(range->stop.create(), label, error) &&
                     record(range->start.get(), stream, label, error);
  if (!begun) destroy_event_range(range);
  return begun;
}

bool end_timed_range(JointOptTimingCollector* collector, JointOptPhase phase, cudaStream_t stream,
                     CudaEventRange* range, const char* label, std::string* error) {
  if (range == nullptr) return true;
  if (!record(range->stop.get(), stream, label, error)) {
    destroy_event_range(range);
    return false;
  }
  collector->of(phase).push_back(std::exchange(*range, CudaEventRange{}));
  return true;
}

double sum_event_ranges_ms(const std::vector<CudaEventRange>& ranges) {
  double sum = 0.0;
  for (const CudaEventRange& range : ranges) {
    float elapsed_ms = 0.0F;
    if (range.start && range.stop &&
        set_cuda_error(cudaEventElapsedTime(&elapsed_ms, range.start.get(), range.stop.get()), "", nullptr)) {
      sum += static_cast<double>(elapsed_ms);
    }
  }
  return sum;
}

void log_joint_opt_timings(const JointOptTimingCollector& collector, int samples, int gauss_newton_iterations,
                           int conjugate_gradient_iterations) {
  Milliseconds t{};
  for (std::size_t phase = 0; phase < kJointOptPhases; ++phase) {
    t[phase] = sum_event_ranges_ms(collector.ranges[phase]);
  }
  log_summary(t, samples, gauss_newton_iterations, conjugate_gradient_iterations);
  log_phases(t);
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom::detail
