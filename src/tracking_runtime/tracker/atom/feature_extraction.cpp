#include "tracking_runtime/tracker/atom/feature_extraction.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "tracking_runtime/tracker/atom/gpu/trt_forward.h"
#include "tracking_runtime/tracker/atom/refuse.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

using Workers = std::vector<TrtBackbone*>;

/// Appends each sample of a batch as a map of its own.
void append_samples(const FeatureMap& batch, std::vector<FeatureMap>* maps) {
  const auto stride = static_cast<std::ptrdiff_t>(batch.sample_stride());
  for (int i = 0; i < batch.samples; ++i) {
    const auto first = batch.data.begin() + i * stride;
    maps->push_back({1, batch.channels, batch.height, batch.width, {first, first + stride}});
  }
}

/// Empty when a chunk fails.
std::vector<FeatureMap> extract_in_batches(TrtBackbone* primary, const std::vector<cv::Mat>& patches) {
  std::vector<FeatureMap> maps;
  maps.reserve(patches.size());
  const auto capacity = static_cast<std::size_t>(primary->max_batch);
  for (std::size_t offset = 0; offset < patches.size(); offset += capacity) {
    const std::size_t count = std::min(capacity, patches.size() - offset);
    std::string error;
    FeatureMap chunk = run_trt_forward_batched(primary, PatchRange(&patches[offset], count), &error);
    if (!chunk.defined() || static_cast<std::size_t>(chunk.samples) != count) {
      std::fprintf(stderr, "[CudaRuntimeBackend] TRT batched forward failed at offset %zu: %s\n", offset,
                   error.c_str());
      return {};
    }
    if (count == 1) {
      maps.push_back(std::move(chunk));
    } else {
      append_samples(chunk, &maps);
    }
  }
  return maps;
}

bool launch_group(const Workers& workers, PatchRange group, std::size_t offset) {
  for (std::size_t i = 0; i < group.count; ++i) {
    std::string error;
    if (launch_trt_worker_forward(workers[i], group.first[i], &error)) continue;
    std::fprintf(stderr, "[CudaRuntimeBackend] TRT parallel forward launch failed at offset %zu: %s\n",
                 offset, error.c_str());
    return false;
  }
  return true;
}

bool collect_group(const Workers& workers, std::size_t count, std::size_t offset,
                   std::vector<FeatureMap>* maps) {
  for (std::size_t i = 0; i < count; ++i) {
    std::string error;
    maps->emplace_back();
    if (collect_trt_worker_forward(workers[i], &maps->back(), &error)) continue;
    std::fprintf(stderr, "[CudaRuntimeBackend] TRT parallel forward copy failed at offset %zu: %s\n", offset,
                 error.c_str());
    return false;
  }
  return true;
}

/// Empty when a group fails.
std::vector<FeatureMap> extract_side_by_side(const Workers& workers, const std::vector<cv::Mat>& patches) {
  std::vector<FeatureMap> maps;
  maps.reserve(patches.size());
  for (std::size_t offset = 0; offset < patches.size(); offset += workers.size()) {
    const std::size_t count = std::min(workers.size(), patches.size() - offset);
    if (!launch_group(workers, PatchRange(&patches[offset], count), offset) ||
        !collect_group(workers, count, offset, &maps)) {
      return {};
    }
  }
  return maps;
}

/// Stops at the first failure; the entries from there on stay undefined.
std::vector<FeatureMap> extract_one_by_one(TrtBackbone* primary, const std::vector<cv::Mat>& patches) {
  std::vector<FeatureMap> maps(patches.size());
  for (std::size_t i = 0; i < patches.size(); ++i) {
    std::string error;
    if (extract_feature_map(primary, patches[i], &maps[i], &error) && maps[i].defined()) continue;
    std::fprintf(stderr, "[CudaRuntimeBackend] TRT forward failed at batch index %zu: %s\n", i,
                 error.c_str());
    break;
  }
  return maps;
}

bool is_complete(const std::vector<FeatureMap>& maps, std::size_t count) {
  return maps.size() == count &&
         std::all_of(maps.begin(), maps.end(), [](const FeatureMap& map) { return map.defined(); });
}

}  // namespace

bool extract_feature_map(TrtBackbone* primary, const cv::Mat& patch, FeatureMap* out, std::string* error) {
  if (out == nullptr) return refuse("null output feature map", error);
  if (primary == nullptr || !primary->ready) return refuse("TensorRT backbone is not ready", error);
  std::string text;
  *out = run_trt_forward(primary, patch, &text);
  if (out->defined()) return true;
  return refuse(text.empty() ? "TensorRT forward failed in extract_feature_map_" : text, error);
}

std::vector<FeatureMap> extract_feature_maps(const std::unique_ptr<TrtBackbone>& primary,
                                             const std::vector<std::unique_ptr<TrtBackbone>>& further,
                                             const std::vector<cv::Mat>& patches) {
  if (patches.empty()) return {};
  if (primary == nullptr || !primary->ready) return extract_one_by_one(primary.get(), patches);
  if (primary->max_batch > 1) {
    std::vector<FeatureMap> maps = extract_in_batches(primary.get(), patches);
    if (is_complete(maps, patches.size())) return maps;
  }
  const Workers workers = ready_trt_workers(primary, further);
  if (workers.size() >= 2) {
    std::vector<FeatureMap> maps = extract_side_by_side(workers, patches);
    if (is_complete(maps, patches.size())) return maps;
  }
  return extract_one_by_one(primary.get(), patches);
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
