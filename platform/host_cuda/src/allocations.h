#pragma once

#include <cuda_runtime.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>

namespace ostrel::host_cuda::detail {

enum class MemoryKind { kDevice, kPinned };

// Where a range of addresses lies. kBroken: partly in an allocation and partly beside it.
enum class Place { kPageable, kPinned, kDevice, kBroken };

// Every live allocation of cudaMalloc and cudaMallocHost. Ranges are exact, so that the address sanitizer
// sees an access one byte past the end.
class Allocations {
 public:
  // Fills the memory with 0xFF. Zero bytes give a null pointer and success.
  cudaError_t allocate(MemoryKind kind, void** pointer, std::size_t bytes);

  // Takes the allocation out of the registry; the caller frees the memory with free_memory() once it is
  // unused.
  cudaError_t take_out(MemoryKind kind, void* pointer);
  static void free_memory(void* pointer);

  Place place_of(const void* pointer, std::size_t bytes) const;

 private:
  struct Allocation {
    std::size_t bytes;
    MemoryKind kind;
  };

  mutable std::mutex mutex_;
  std::map<std::uintptr_t, Allocation> by_start_;
  std::size_t device_bytes_ = 0;
};

Allocations& allocations();

}  // namespace ostrel::host_cuda::detail
