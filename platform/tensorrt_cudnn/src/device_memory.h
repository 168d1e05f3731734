// Memory of the device with one owner.
#pragma once

#include <cstddef>
#include <utility>

namespace ostrel::tensorrt_cudnn {

class DeviceMemory {
 public:
  DeviceMemory() = default;
  // Uninitialised; zero bytes allocate nothing. Throws ModelError.
  explicit DeviceMemory(std::size_t bytes);
  // A copy of host memory that is whole before the constructor returns, for work on any stream. Throws ModelError.
  DeviceMemory(const void* source, std::size_t bytes);
  // Waits for the device's work, as cudaFree does.
  ~DeviceMemory();
  DeviceMemory(DeviceMemory&& other) noexcept : memory_(std::exchange(other.memory_, nullptr)) {}
  DeviceMemory& operator=(DeviceMemory&& other) noexcept {
    std::swap(memory_, other.memory_);
    return *this;
  }
  DeviceMemory(const DeviceMemory&) = delete;
  DeviceMemory& operator=(const DeviceMemory&) = delete;

  // `offset` in bytes.
  void* at(std::size_t offset) const { return static_cast<char*>(memory_) + offset; }

 private:
  void* memory_ = nullptr;
};

}  // namespace ostrel::tensorrt_cudnn
