#pragma once

#include <cstdint>

namespace ostrel::host_cuda::detail {

// A number that was never given out before, for a handle of any kind; small ones stay free for CUDA's own.
std::uintptr_t next_handle_number();

// Handles are never used twice, so that a stale one, or one of another kind, is always known.
template <typename Handle>
Handle new_handle() {
  return reinterpret_cast<Handle>(next_handle_number());  // NOLINT(performance-no-int-to-ptr): never followed
}

}  // namespace ostrel::host_cuda::detail
