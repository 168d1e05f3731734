// Frame tracking on a picture in GPU memory: the picture library cuts the patches, no pixel reaches the host.

#include "tracking_runtime/tracker/atom/cuda_runtime_backend.h"
#include "tracking_runtime/tracker/atom/frame_candidate.h"
#include "tracking_runtime/tracker/atom/frame_decision.h"
#include "tracking_runtime/tracker/atom/frame_timings.h"
#include "tracking_runtime/tracker/atom/gpu/profiler_range.h"
#include "tracking_runtime/tracker/atom/optrix_adapter.h"
#include "tracking_runtime/tracker/atom/refuse.h"
#include "tracking_runtime/tracker/atom/view_crops.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

optrix::TensorBatch cut_crops(const optrix::OptrixPicture& view, const std::vector<optrix::AffineCrop>& crops,
                              int side_px, bool* cut) {
  const ProfilerRange range(range_names::kCrops);
  return cut_affine_batch(view, crops, side_px, side_px, cut);
}

}  // namespace

bool CudaRuntimeBackend::track(const std::shared_ptr<optrix::OptrixPicture>& view, float scale_x,
                               float scale_y, int frame_width, int frame_height, base::BBox* bbox,
                               float* score, std::string* status) {
  return track_view_(view, scale_x, scale_y, frame_width, frame_height, bbox, score, status);
}

bool CudaRuntimeBackend::track_view_(const std::shared_ptr<optrix::OptrixPicture>& view, float scale_x,
                                     float scale_y, int frame_width, int frame_height, base::BBox* bbox,
                                     float* score, std::string* status) {
  const ProfilerRange range(range_names::kFrame);
  if (const char* word = refuse_untracked_(bbox, score)) return refuse(word, status);
  if (view == nullptr) return refuse("null_frame_view", status);
  if (!(scale_x > 0.0F) || !(scale_y > 0.0F) || frame_width <= 0 || frame_height <= 0) {
    return refuse("invalid_view_mapping", status);
  }
  image_size = {frame_width, frame_height};
  if (classifier_filter_missing_()) return refuse("classifier_filter_missing", status);

  FrameTimings timings;
  StageClock stage;
  std::vector<float> scales;
  const std::vector<optrix::AffineCrop> crops = view_crops(*this, scale_x, scale_y, &scales);
  bool cut = false;
  const optrix::TensorBatch batch = cut_crops(*view, crops, config.search_size, &cut);
  timings.crop_ms = stage.lap_ms();
  if (!cut || batch.data == nullptr || batch.count != static_cast<int>(crops.size())) {
    return refuse("gpu_affine_crop_failed", status);
  }

  std::vector<cv::Mat> responses;
  std::vector<FeatureMap> features;
  std::string error;
  const bool classified = classify_tensor_batch_on_gpu_(batch, &responses, &features, &timings.gpu, &error);
  timings.feat_ms = stage.lap_ms();
  if (!classified) {
    return refuse(error.empty() ? "gpu_tensor_batch_classify_failed" : error.c_str(), status);
  }
  std::vector<Candidate> candidates = candidates_on_gpu_(scales, nullptr, responses, &features, &timings);
  return finish_frame_(&candidates, kViewPath, &timings, bbox, score, status);
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
