#include "allocations.h"

#include <cstdlib>
#include <cstring>
#include <iterator>

#include "api_call.h"
#include "counter_store.h"
#include "stream_table.h"

namespace ostrel::host_cuda::detail {
namespace {

constexpr std::size_t kAlignment = 256;                        // of cudaMalloc
constexpr std::size_t kDeviceCapacity = std::size_t{8} << 30;  // bytes in all, as on a small embedded board
constexpr int kFreshFill = 0xFF;                               // NaN as floats

std::uintptr_t address_of(const void* pointer) {
  return reinterpret_cast<std::uintptr_t>(pointer);
}

void count_live(MemoryKind kind, std::int64_t allocation_change, std::int64_t byte_change) {
  const bool device = kind == MemoryKind::kDevice;
  count(device ? &Counters::live_device_allocations : &Counters::live_pinned_allocations, allocation_change);
  count(device ? &Counters::live_device_bytes : &Counters::live_pinned_bytes, byte_change);
}

}  // namespace

Allocations& allocations() {
  static Allocations& registry = *new Allocations;
  return registry;
}

cudaError_t Allocations::allocate(MemoryKind kind, void** pointer, std::size_t bytes) {
  if (pointer == nullptr) return cudaErrorInvalidValue;
  *pointer = nullptr;
  if (bytes == 0) return cudaSuccess;
  const std::lock_guard<std::mutex> lock(mutex_);
  if (bytes > kDeviceCapacity - device_bytes_) return cudaErrorMemoryAllocation;
  void* memory = nullptr;
  if (posix_memalign(&memory, kAlignment, bytes) != 0) return cudaErrorMemoryAllocation;
  std::memset(memory, kFreshFill, bytes);
  by_start_.emplace(address_of(memory), Allocation{bytes, kind});
  device_bytes_ += bytes;
  count_live(kind, 1, static_cast<std::int64_t>(bytes));
  *pointer = memory;
  return cudaSuccess;
}

cudaError_t Allocations::take_out(MemoryKind kind, void* pointer) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = by_start_.find(address_of(pointer));
  if (found == by_start_.end() || found->second.kind != kind) return cudaErrorInvalidValue;
  count_live(kind, -1, -static_cast<std::int64_t>(found->second.bytes));
  device_bytes_ -= found->second.bytes;
  by_start_.erase(found);
  return cudaSuccess;
}

void Allocations::free_memory(void* pointer) {
  std::free(pointer);
}

Place Allocations::place_of(const void* pointer, std::size_t bytes) const {
  const std::uintptr_t begin = address_of(pointer);
  const std::uintptr_t end = begin + bytes;
  if (end < begin) return Place::kBroken;
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto after = by_start_.upper_bound(begin);
  if (after != by_start_.begin()) {
    const auto& [start, allocation] = *std::prev(after);
    if (begin < start + allocation.bytes) {
      if (end > start + allocation.bytes) return Place::kBroken;
      return allocation.kind == MemoryKind::kDevice ? Place::kDevice : Place::kPinned;
    }
  }
  if (after != by_start_.end() && end > after->first) return Place::kBroken;
  return Place::kPageable;
}

namespace {

// Out of the registry first, so that a second free of the pointer is refused even while this one waits.
cudaError_t release(MemoryKind kind, void* pointer) {
  if (pointer == nullptr) return cudaSuccess;
  const cudaError_t status = allocations().take_out(kind, pointer);
  if (status != cudaSuccess) return status;
  if (!streams().all_idle()) {
    count(&Counters::frees_while_work_pending);
    streams().wait_for_all();
  }
  Allocations::free_memory(pointer);
  return cudaSuccess;
}

}  // namespace
}  // namespace ostrel::host_cuda::detail

namespace ostrel::host_cuda {

bool is_device_pointer(const void* pointer, std::size_t bytes) {
  return detail::allocations().place_of(pointer, bytes) == detail::Place::kDevice;
}

bool is_pinned_pointer(const void* pointer, std::size_t bytes) {
  return detail::allocations().place_of(pointer, bytes) == detail::Place::kPinned;
}

}  // namespace ostrel::host_cuda

namespace detail = ostrel::host_cuda::detail;
using detail::MemoryKind;

cudaError_t cudaMalloc(void** pointer, std::size_t bytes) {
  return detail::api_call(
      "cudaMalloc", [&] { return detail::allocations().allocate(MemoryKind::kDevice, pointer, bytes); });
}

cudaError_t cudaFree(void* pointer) {
  return detail::api_call("cudaFree", [&] { return detail::release(MemoryKind::kDevice, pointer); });
}

cudaError_t cudaMallocHost(void** pointer, std::size_t bytes) {
  return detail::api_call(
      "cudaMallocHost", [&] { return detail::allocations().allocate(MemoryKind::kPinned, pointer, bytes); });
}

cudaError_t cudaFreeHost(void* pointer) {
  return detail::api_call("cudaFreeHost", [&] { return detail::release(MemoryKind::kPinned, pointer); });
}
