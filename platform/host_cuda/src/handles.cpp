#include "handles.h"

#include <atomic>

namespace ostrel::host_cuda::detail {

std::uintptr_t next_handle_number() {
  static std::atomic<std::uintptr_t> last{0x1000};
  constexpr std::uintptr_t kStep = 16;
  return last += kStep;
}

}  // namespace ostrel::host_cuda::detail
