#pragma once

#include <host_cuda/control.h>

#include <cstdint>

namespace ostrel_test {

/// Bytes of device memory that live.
inline std::int64_t device_memory_in_use_bytes() {
  return ostrel::host_cuda::counters().live_device_bytes;
}

/// The stand-in counts every byte.
constexpr std::int64_t kDeviceMemorySlack_bytes = 0;

}  // namespace ostrel_test
