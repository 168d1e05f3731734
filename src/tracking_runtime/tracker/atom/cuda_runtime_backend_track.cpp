// Frame tracking on a host image: one patch per search scale, cut on the host.

#include <utility>

#include "tracking_runtime/tracker/atom/cuda_runtime_backend.h"
#include "tracking_runtime/tracker/atom/frame_candidate.h"
#include "tracking_runtime/tracker/atom/frame_decision.h"
#include "tracking_runtime/tracker/atom/frame_timings.h"
#include "tracking_runtime/tracker/atom/gpu/profiler_range.h"
#include "tracking_runtime/tracker/atom/refuse.h"
#include "tracking_runtime/tracker/atom/square_patch.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

/// Patches of the scales above 0 around the target; `kept` takes the scales that gave one.
std::vector<cv::Mat> cut_patches(const TargetState& state, const cv::Mat& image, std::vector<float>* kept) {
  const ProfilerRange range(range_names::kCrops);
  std::vector<cv::Mat> patches;
  for (const float scale : sorted_search_scales(state.config.search_scales)) {
    if (!(scale > 0.0F)) continue;
    cv::Mat patch =
        cut_square_patch(image, state.target_pos, state.target_size.width, state.target_size.height,
                         state.config.search_area_factor * scale, state.config.search_size);
    if (patch.empty()) continue;
    patches.push_back(std::move(patch));
    kept->push_back(scale);
  }
  return patches;
}

}  // namespace

const char* CudaRuntimeBackend::refuse_untracked_(const base::BBox* bbox, const float* score) const {
  if (bbox == nullptr || score == nullptr) return "invalid_track_arguments";
  if (!initialized || !runtime_initialized) return "backend_not_initialized";
  return nullptr;
}

bool CudaRuntimeBackend::classifier_filter_missing_() const {
  const std::lock_guard<std::mutex> lock(state_mutex);
  return weights.filter_weights.empty();
}

std::vector<Candidate> CudaRuntimeBackend::candidates_on_gpu_(const std::vector<float>& scales,
                                                              std::vector<cv::Mat>* patches,
                                                              const std::vector<cv::Mat>& responses,
                                                              std::vector<FeatureMap>* features,
                                                              FrameTimings* timings) const {
  const ProfilerRange range(range_names::kUpsample);
  const StageClock clock;
  std::vector<Candidate> candidates;
  candidates.reserve(scales.size());
  for (std::size_t i = 0; i < scales.size() && i < responses.size(); ++i) {
    std::optional<Candidate> candidate =
        make_candidate(responses[i], scales[i], target_scale, weights.filter_height, weights.filter_width,
                       config.search_size);
    if (!candidate) continue;
    candidate->index = static_cast<int>(i);
    if (patches != nullptr) candidate->patch = std::move((*patches)[i]);
    if (i < features->size() && (*features)[i].defined()) candidate->feature = std::move((*features)[i]);
    candidates.push_back(std::move(*candidate));
  }
  timings->fft_ms += clock.elapsed_ms();
  return candidates;
}

std::vector<Candidate> CudaRuntimeBackend::candidates_on_host_(const std::vector<float>& scales,
                                                               std::vector<cv::Mat>* patches,
                                                               FrameTimings* timings) {
  StageClock clock;
  const std::vector<FeatureMap> features = extract_feature_maps_batched_(*patches);
  timings->feat_ms += clock.lap_ms();
  std::vector<Candidate> candidates;
  for (std::size_t i = 0; i < scales.size() && i < features.size(); ++i) {
    if (!features[i].defined()) continue;
    clock.lap_ms();
    FeatureMap projected = project_feature_(features[i]);
    timings->proj_ms += clock.lap_ms();
    if (!projected.defined()) continue;
    const cv::Mat response = classify_feature_(projected);
    timings->clf_ms += clock.lap_ms();
    std::optional<Candidate> candidate = make_candidate(
        response, scales[i], target_scale, weights.filter_height, weights.filter_width, config.search_size);
    timings->fft_ms += clock.lap_ms();
    if (!candidate) continue;
    candidate->index = static_cast<int>(i);
    candidate->patch = std::move((*patches)[i]);
    candidate->feature = std::move(projected);
    candidates.push_back(std::move(*candidate));
  }
  return candidates;
}

bool CudaRuntimeBackend::track(const cv::Mat& image, base::BBox* bbox, float* score, std::string* status) {
  const ProfilerRange range(range_names::kFrame);
  if (const char* word = refuse_untracked_(bbox, score)) return refuse(word, status);
  if (image.empty()) return refuse("empty_image", status);
  image_size = image.size();
  if (classifier_filter_missing_()) return refuse("classifier_filter_missing", status);

  FrameTimings timings;
  StageClock stage;
  std::vector<float> scales;
  std::vector<cv::Mat> patches = cut_patches(*this, image, &scales);
  timings.crop_ms = stage.lap_ms();

  std::vector<cv::Mat> responses;
  std::vector<FeatureMap> features;
  const bool on_gpu = classify_patches_on_gpu_(patches, &responses, &features, &timings.gpu, nullptr);
  timings.feat_ms = stage.lap_ms();
  std::vector<Candidate> candidates =
      on_gpu ? candidates_on_gpu_(scales, &patches, responses, &features, &timings)
             : candidates_on_host_(scales, &patches, &timings);
  return finish_frame_(&candidates, kHostImagePath, &timings, bbox, score, status);
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
