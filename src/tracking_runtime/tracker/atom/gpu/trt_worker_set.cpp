#include "tracking_runtime/tracker/atom/gpu/trt_worker_set.h"

#include <algorithm>
#include <cstdio>
#include <limits>
#include <utility>

#include "tracking_runtime/tracker/atom/gpu/trt_engine_cache.h"
#include "tracking_runtime/tracker/atom/refuse.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

constexpr std::size_t kMaxFurtherWorkers = 2;

int clamp_to_int(std::int64_t value) {
  return static_cast<int>(std::min<std::int64_t>(value, std::numeric_limits<int>::max()));
}

/// Batch and input size from the engine's declared shape, and from the request where the engine leaves them
/// open.
TrtWorkerSpec settle_sizes(std::shared_ptr<TrtEngineCacheEntry> entry, const TrtBackboneRequest& request) {
  const nvinfer1::Dims shape = entry->engine->getTensorShape(entry->input_name.c_str());
  const bool four_dimensional = shape.nbDims == 4;
  TrtWorkerSpec spec;
  spec.entry = std::move(entry);
  spec.height = spec.width = std::max(request.search_size, 1);
  spec.dynamic_batch = four_dimensional && shape.d[0] < 0;
  spec.dynamic_spatial = !four_dimensional || shape.d[2] < 0 || shape.d[3] < 0;
  if (!four_dimensional) return spec;
  const auto scales = static_cast<std::int64_t>(std::max<std::size_t>(request.search_scales, 1));
  spec.batch = clamp_to_int(shape.d[0] >= 1 ? shape.d[0] : scales);
  if (shape.d[2] > 0) spec.height = clamp_to_int(shape.d[2]);
  if (shape.d[3] > 0) spec.width = clamp_to_int(shape.d[3]);
  return spec;
}

/// One launch of an open batch serves all scales; otherwise a worker per scale, up to the cap.
std::size_t further_worker_count(const TrtBackbone& primary, std::size_t search_scales) {
  if (primary.dynamic_batch && primary.max_batch >= 2) return 0;
  return search_scales < 2 ? 0 : std::min(search_scales - 1, kMaxFurtherWorkers);
}

void print_banner(const std::string& path, const char* outcome, const TrtBackbone& primary,
                  std::size_t workers) {
  std::fprintf(stderr,
               "[CudaRuntimeBackend] TRT backbone ready: %s\n"
               "  cache=%s\n"
               "  input=[%d,3,%d,%d] dynamic_batch=%d workers=%zu\n"
               "  out0=%s [%d,%d,%d,%d]  out1=%s [%d,%d,%d,%d]\n",
               path.c_str(), outcome, primary.max_batch, primary.input_height, primary.input_width,
               primary.dynamic_batch ? 1 : 0, workers, primary.out0_name.c_str(), primary.max_batch,
               primary.out0_channels, primary.out0_height, primary.out0_width, primary.out1_name.c_str(),
               primary.max_batch, primary.out1_channels, primary.out1_height, primary.out1_width);
}

bool make_workers(const TrtBackboneRequest& request, std::unique_ptr<TrtBackbone>* primary,
                  std::vector<std::unique_ptr<TrtBackbone>>* further, std::string* error) {
  TrtEngineLookup lookup = find_or_load_trt_engine(request.engine_path, error);
  if (!lookup.entry) return false;
  const TrtWorkerSpec spec = settle_sizes(std::move(lookup.entry), request);
  const auto make_worker = [&spec](std::string* text) { return make_trt_worker(spec, text); };

  *primary = make_worker(error);
  if (!*primary) return false;
  further->clear();
  const std::size_t count = further_worker_count(**primary, request.search_scales);
  while (further->size() < count) {
    std::string text;
    std::unique_ptr<TrtBackbone> worker = make_worker(&text);
    if (!worker) {
      primary->reset();
      further->clear();
      return refuse(text.empty() ? "failed to create TensorRT parallel worker" : text, error);
    }
    further->push_back(std::move(worker));
  }
  print_banner(request.engine_path, lookup.outcome, **primary, 1 + further->size());
  return true;
}

}  // namespace

bool make_trt_workers(const TrtBackboneRequest& request, std::unique_ptr<TrtBackbone>* primary,
                      std::vector<std::unique_ptr<TrtBackbone>>* further, std::string* error) {
  try {
    return make_workers(request, primary, further, error);
  } catch (...) {
    primary->reset();
    if (error != nullptr) *error = trt_initialisation_failure(std::current_exception());
    return false;
  }
}

std::string trt_initialisation_failure(const std::exception_ptr& exception) {
  constexpr const char* kText = "failed to initialize TensorRT backbone";
  try {
    std::rethrow_exception(exception);
  } catch (const std::exception& known) {
    return std::string(kText) + ": " + known.what();
  } catch (...) {
    return kText;
  }
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
