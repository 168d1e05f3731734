#pragma once

#include <cstddef>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "tracking_runtime/tracker/atom/gpu/trt_backbone.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// What the tracker asks of its engine.
struct TrtBackboneRequest {
  const std::string& engine_path;
  int search_size = 0;            ///< side of the input where the engine leaves it open
  std::size_t search_scales = 0;  ///< patches of a frame
};

/// Makes the primary worker and the further workers of an engine, and replaces those that exist. With an open
/// batch the primary serves all scales alone; otherwise there are as many workers as scales, at most three.
/// Writes the banner "[CudaRuntimeBackend] TRT backbone ready: ..." to standard error.
///
/// Fails with the words of `find_or_load_trt_engine` and `make_trt_worker`, "failed to create TensorRT parallel
/// worker", or those of `trt_initialisation_failure` for an exception; none leaves. An engine that cannot be
/// loaded changes no worker; every other failure, and an exception at any step, leaves `primary` null. The
/// further workers of an earlier start go once the new primary stands, or with a further worker that fails.
bool make_trt_workers(const TrtBackboneRequest& request, std::unique_ptr<TrtBackbone>* primary,
                      std::vector<std::unique_ptr<TrtBackbone>>* further, std::string* error);

/// "failed to initialize TensorRT backbone: " and the exception's text, or "failed to initialize TensorRT
/// backbone" for one of unknown type.
std::string trt_initialisation_failure(const std::exception_ptr& exception);

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
