#include "host_cuda/launch.h"

#include <climits>

#include "allocations.h"
#include "api_call.h"
#include "counter_store.h"
#include "stream_table.h"

namespace ostrel::host_cuda::detail {
namespace {

constexpr unsigned kMaxBlockThreads = 1024;
constexpr unsigned kMaxGridBlocks = INT_MAX;
constexpr std::size_t kMaxDynamicShared = 48 * 1024;  // without an opt-in of the kernel

cudaError_t check_shape(const KernelShape& shape) {
  if (shape.grid == 0 || shape.grid > kMaxGridBlocks) return cudaErrorInvalidConfiguration;
  if (shape.block == 0 || shape.block > kMaxBlockThreads) return cudaErrorInvalidConfiguration;
  return shape.shared_bytes > kMaxDynamicShared ? cudaErrorInvalidValue : cudaSuccess;
}

// A kernel can reach device and pinned memory. One past the end of a buffer is a fair argument for an empty
// range; the byte before it then tells where it belongs.
bool reachable(const void* pointer) {
  const auto place_of = [](const void* address) { return allocations().place_of(address, 1); };
  if (pointer == nullptr || place_of(pointer) != Place::kPageable) return true;
  return place_of(static_cast<const unsigned char*>(pointer) - 1) != Place::kPageable;
}

cudaError_t check_pointers(const void* const* pointers, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    if (!reachable(pointers[i])) return cudaErrorIllegalAddress;
  }
  return cudaSuccess;
}

cudaError_t checked_launch(const KernelShape& shape, const void* const* pointers, std::size_t pointer_count,
                           const Work& work) {
  const int kernel_fault = take_fault_uncounted(shape.name);
  if (kernel_fault != 0) return static_cast<cudaError_t>(kernel_fault);
  const cudaError_t shape_status = check_shape(shape);
  if (shape_status != cudaSuccess) return shape_status;
  const auto stream = streams().find(shape.stream);
  if (stream == nullptr) return cudaErrorInvalidResourceHandle;
  const cudaError_t pointer_status = check_pointers(pointers, pointer_count);
  if (pointer_status != cudaSuccess) return pointer_status;
  count_launch(shape.name);
  if (shape.stream == nullptr) count(&Counters::null_stream_work);
  streams().submit(*stream, work);
  return cudaSuccess;
}

}  // namespace

cudaError_t launch(const KernelShape& shape, const void* const* pointers, std::size_t pointer_count,
                   const Work& work) {
  api_call("cudaLaunchKernel", [&] { return checked_launch(shape, pointers, pointer_count, work); });
  return cudaGetLastError();
}

}  // namespace ostrel::host_cuda::detail
