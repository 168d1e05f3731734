#pragma once

#include <cuda_runtime.h>

#include <cstdint>
#include <stdexcept>

namespace ostrel_test {

/// Bytes of the device's memory that are taken, by anybody.
inline std::int64_t device_memory_in_use_bytes() {
  std::size_t free_bytes = 0;
  std::size_t total_bytes = 0;
  const cudaError_t status = cudaMemGetInfo(&free_bytes, &total_bytes);
  if (status != cudaSuccess) throw std::runtime_error(cudaGetErrorString(status));
  return static_cast<std::int64_t>(total_bytes - free_bytes);
}

/// The driver hands out memory in blocks of 2 MiB and may keep a few.
constexpr std::int64_t kDeviceMemorySlack_bytes = 8 << 20;

}  // namespace ostrel_test
