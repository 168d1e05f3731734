#include "device_pool.h"

#include <algorithm>

namespace optrix::detail {
namespace {

// Enough for the pictures and batches of a few tracking channels; what is beyond goes back to the device.
constexpr std::size_t kMaxIdleBlocks = 16;
// Sizes are rounded up to this, so that pictures and batches of nearly the same size share blocks.
constexpr std::size_t kGranularityBytes = 64 * 1024;

std::size_t rounded_up(std::size_t bytes) {
  return (bytes + kGranularityBytes - 1) / kGranularityBytes * kGranularityBytes;
}

void destroy(const PooledBlock& block) {
  if (block.event != nullptr) static_cast<void>(cudaEventDestroy(block.event));
  if (block.data != nullptr) static_cast<void>(cudaFree(block.data));
}

std::unique_ptr<PooledBlock> make_block(std::size_t bytes, cudaError_t* status) {
  auto block = std::make_unique<PooledBlock>();
  block->capacity_bytes = rounded_up(bytes);
  *status = cudaMalloc(&block->data, block->capacity_bytes);
  if (*status == cudaSuccess) *status = cudaEventCreateWithFlags(&block->event, cudaEventDisableTiming);
  if (*status == cudaSuccess) return block;
  destroy(*block);
  return nullptr;
}

}  // namespace

DevicePool& DevicePool::instance() {
  static DevicePool* const pool = new DevicePool;
  return *pool;
}

std::shared_ptr<PooledBlock> DevicePool::acquire(std::size_t bytes, cudaError_t* status) {
  *status = cudaSuccess;
  std::unique_ptr<PooledBlock> block = take_idle(bytes);
  if (block == nullptr) block = make_block(bytes, status);
  if (block == nullptr) return nullptr;
  return {block.release(),
          [this](PooledBlock* released) { put_back(std::unique_ptr<PooledBlock>(released)); }};
}

// The tightest fit; a block more than twice too large is left for a larger request.
std::unique_ptr<PooledBlock> DevicePool::take_idle(std::size_t bytes) {
  const std::lock_guard<std::mutex> lock(mutex_);
  auto best = idle_.end();
  for (auto it = idle_.begin(); it != idle_.end(); ++it) {
    const std::size_t capacity = (*it)->capacity_bytes;
    if (capacity < bytes || capacity > 2 * rounded_up(bytes)) continue;
    if (best == idle_.end() || capacity < (*best)->capacity_bytes) best = it;
  }
  if (best == idle_.end()) return nullptr;
  std::unique_ptr<PooledBlock> block = std::move(*best);
  idle_.erase(best);
  return block;
}

void DevicePool::put_back(std::unique_ptr<PooledBlock> block) {
  std::unique_ptr<PooledBlock> oldest;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    idle_.push_back(std::move(block));
    if (idle_.size() > kMaxIdleBlocks) {
      oldest = std::move(idle_.front());
      idle_.erase(idle_.begin());
    }
  }
  if (oldest != nullptr) destroy(*oldest);
}

void DevicePool::trim() {
  std::vector<std::unique_ptr<PooledBlock>> idle;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    idle.swap(idle_);
  }
  for (const auto& block : idle) destroy(*block);
}

cudaStream_t library_stream(cudaError_t* status) {
  static std::mutex mutex;
  static cudaStream_t stream = nullptr;
  const std::lock_guard<std::mutex> lock(mutex);
  *status = cudaSuccess;
  if (stream == nullptr) *status = cudaStreamCreateWithFlags(&stream, cudaStreamNonBlocking);
  if (*status != cudaSuccess) stream = nullptr;
  return stream;
}

}  // namespace optrix::detail
