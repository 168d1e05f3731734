#include <utility>

#include "tracking_runtime/tracker/atom/cuda_runtime_backend.h"
#include "tracking_runtime/tracker/atom/runtime_backend.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

std::unique_ptr<AtomRuntimeBackend> make_cuda_runtime_backend(NativeCppBackend::Config config) {
  return std::make_unique<CudaRuntimeBackend>(std::move(config));
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
