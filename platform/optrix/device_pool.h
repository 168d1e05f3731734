// Device memory and events of the library, kept for reuse.
#pragma once

#include <cuda_runtime.h>

#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

namespace optrix::detail {

// A block of device memory with an event to mark when it is written. Returns to the pool with its last owner.
struct PooledBlock {
  void* data = nullptr;
  std::size_t capacity_bytes = 0;
  cudaEvent_t event = nullptr;
};

// The process has one pool and it is never destroyed: pictures may outlive every static object. All work on
// pooled memory goes through the library's one stream, so a block may be handed on while older work on it is
// still queued.
class DevicePool {
 public:
  static DevicePool& instance();

  // A block of at least `bytes`, its content undefined; null with `*status` set when the device refuses.
  std::shared_ptr<PooledBlock> acquire(std::size_t bytes, cudaError_t* status);

  // Gives the idle blocks back to the device.
  void trim();

 private:
  std::unique_ptr<PooledBlock> take_idle(std::size_t bytes);
  void put_back(std::unique_ptr<PooledBlock> block);

  std::mutex mutex_;
  std::vector<std::unique_ptr<PooledBlock>> idle_;
};

// The library's stream, made on first use; null with `*status` set when the device refuses.
cudaStream_t library_stream(cudaError_t* status);

}  // namespace optrix::detail
