#pragma once

#include <cuda_runtime.h>

#include <cstddef>
#include <cstdio>
#include <initializer_list>
#include <limits>
#include <string>
#include <utility>

#include "tracking_runtime/tracker/atom/gpu/cuda_error.h"

/// Owners of device memory, pinned memory, streams and events. Each is empty at first, owns at most one
/// handle, moves and does not copy; a moved-from owner is empty, and what is moved onto another owner replaces
/// its handle, which is released. None of them throws or synchronises beyond
/// what the CUDA call that it wraps does. A release that fails in a destructor is written to standard error;
/// `reset` hands the status to a caller that can do more with it.

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// Product of sizes, each at least 0, in elements; saturates instead of wrapping, so that an absurd request
/// is refused by the allocation.
inline std::size_t element_count(std::initializer_list<int> sizes) {
  std::size_t count = 1;
  for (const int size : sizes) {
    const std::size_t factor = size < 0 ? 0 : static_cast<std::size_t>(size);
    if (factor == 0) return 0;
    if (count > std::numeric_limits<std::size_t>::max() / factor)
      return std::numeric_limits<std::size_t>::max();
    count *= factor;
  }
  return count;
}

/// What a destructor does with the status of its release. A process that is ending may have lost the driver.
inline void note_release(cudaError_t status, const char* call) noexcept {
  if (status == cudaSuccess || status == cudaErrorCudartUnloading) return;
  std::fprintf(stderr, "[CUDA] %s failed on release: %s\n", call, cudaGetErrorString(status));
}

/// Memory of the device, uninitialised.
struct DeviceMemory {
  static constexpr const char* kReleaseCall = "cudaFree";
  static cudaError_t allocate(void** memory, std::size_t bytes) { return cudaMalloc(memory, bytes); }
  static cudaError_t release(void* memory) { return cudaFree(memory); }
};

/// Page-locked memory of the host, uninitialised.
struct PinnedMemory {
  static constexpr const char* kReleaseCall = "cudaFreeHost";
  static cudaError_t allocate(void** memory, std::size_t bytes) { return cudaMallocHost(memory, bytes); }
  static cudaError_t release(void* memory) { return cudaFreeHost(memory); }
};

/// An array of T in the given kind of memory that grows and never shrinks.
template <typename T, typename Memory>
class CudaBuffer {
 public:
  CudaBuffer() = default;
  ~CudaBuffer() { release(); }
  CudaBuffer(CudaBuffer&& other) noexcept
      : data_(std::exchange(other.data_, nullptr)), bytes_(std::exchange(other.bytes_, 0)) {}
  CudaBuffer& operator=(CudaBuffer&& other) noexcept {
    if (this == &other) return *this;
    release();
    data_ = std::exchange(other.data_, nullptr);
    bytes_ = std::exchange(other.bytes_, 0);
    return *this;
  }
  CudaBuffer(const CudaBuffer&) = delete;
  CudaBuffer& operator=(const CudaBuffer&) = delete;

  T* get() const { return data_; }
  std::size_t bytes() const { return bytes_; }
  explicit operator bool() const { return data_ != nullptr; }

  /// Bytes that `count` elements take; saturates.
  static std::size_t bytes_for(std::size_t count) {
    return count > std::numeric_limits<std::size_t>::max() / sizeof(T)
               ? std::numeric_limits<std::size_t>::max()
               : count * sizeof(T);
  }
  bool holds(std::size_t count) const { return data_ != nullptr && bytes_ >= bytes_for(count); }

  /// The growth policy. A buffer that holds `count` elements stays, with its contents; a smaller one is freed
  /// and allocated anew at exactly that size, and its contents are gone. After a failure the buffer is empty.
  cudaError_t ensure(std::size_t count) {
    if (holds(count)) return cudaSuccess;
    const cudaError_t released = reset();
    if (released != cudaSuccess) return released;
    void* memory = nullptr;
    const cudaError_t status = Memory::allocate(&memory, bytes_for(count));
    if (status != cudaSuccess) return status;
    data_ = static_cast<T*>(memory);
    bytes_ = bytes_for(count);
    return cudaSuccess;
  }

  /// Frees the memory as the destructor does, for owners whose order of release is not that of their fields.
  void release() noexcept { note_release(reset(), Memory::kReleaseCall); }

  /// Frees the memory; the buffer is empty afterwards, whatever the status.
  cudaError_t reset() noexcept {
    bytes_ = 0;
    T* const memory = std::exchange(data_, nullptr);
    return memory == nullptr ? cudaSuccess : Memory::release(memory);
  }

 private:
  T* data_ = nullptr;
  std::size_t bytes_ = 0;
};

template <typename T>
using DeviceBuffer = CudaBuffer<T, DeviceMemory>;
template <typename T>
using PinnedBuffer = CudaBuffer<T, PinnedMemory>;

/// One buffer of a group, the elements that it must hold, and the label of its allocation in error texts.
template <typename Buffer>
struct GroupMember {
  Buffer& buffer;
  std::size_t count;
  const char* label;
};
template <typename Buffer>
GroupMember(Buffer&, std::size_t, const char*) -> GroupMember<Buffer>;

/// Buffers that grow together: when each member holds enough, all stay with their contents; when one is
/// missing or too small, all are freed and allocated anew in the order given. A failure frees the whole group
/// and reads the member's label, ": " and the CUDA text. A buffer that grows alone is a group of one.
template <typename... Buffers>
bool ensure_group(std::string* error, GroupMember<Buffers>... members) {
  if ((members.buffer.holds(members.count) && ...)) return true;
  bool released = true;
  const auto release = [&](auto& member) {
    released = set_cuda_error(member.buffer.reset(), member.label, error) && released;
  };
  const auto allocate = [&](auto& member) {
    return set_cuda_error(member.buffer.ensure(member.count), member.label, error);
  };
  (release(members), ...);
  if (released && (allocate(members) && ...)) return true;
  (members.buffer.reset(), ...);
  return false;
}

/// A CUDA stream.
class CudaStream {
 public:
  CudaStream() = default;
  ~CudaStream() { release(); }
  CudaStream(CudaStream&& other) noexcept : stream_(std::exchange(other.stream_, nullptr)) {}
  CudaStream& operator=(CudaStream&& other) noexcept {
    if (this == &other) return *this;
    release();
    stream_ = std::exchange(other.stream_, nullptr);
    return *this;
  }
  CudaStream(const CudaStream&) = delete;
  CudaStream& operator=(const CudaStream&) = delete;

  cudaStream_t get() const { return stream_; }
  explicit operator bool() const { return stream_ != nullptr; }

  /// Makes the stream; one that is owned already is destroyed first.
  cudaError_t create_with_flags(unsigned int flags) {
    const cudaError_t released = reset();
    return released != cudaSuccess ? released : cudaStreamCreateWithFlags(&stream_, flags);
  }
  cudaError_t create_with_priority(unsigned int flags, int priority) {
    const cudaError_t released = reset();
    return released != cudaSuccess ? released : cudaStreamCreateWithPriority(&stream_, flags, priority);
  }

  void release() noexcept { note_release(reset(), "cudaStreamDestroy"); }

  /// Destroys the stream; work that is queued on it still runs.
  cudaError_t reset() noexcept {
    cudaStream_t const stream = std::exchange(stream_, nullptr);
    return stream == nullptr ? cudaSuccess : cudaStreamDestroy(stream);
  }

 private:
  cudaStream_t stream_ = nullptr;
};

/// A CUDA event.
class CudaEvent {
 public:
  CudaEvent() = default;
  ~CudaEvent() { release(); }
  CudaEvent(CudaEvent&& other) noexcept : event_(std::exchange(other.event_, nullptr)) {}
  CudaEvent& operator=(CudaEvent&& other) noexcept {
    if (this == &other) return *this;
    release();
    event_ = std::exchange(other.event_, nullptr);
    return *this;
  }
  CudaEvent(const CudaEvent&) = delete;
  CudaEvent& operator=(const CudaEvent&) = delete;

  cudaEvent_t get() const { return event_; }
  explicit operator bool() const { return event_ != nullptr; }

  /// Makes an event that keeps the time; one that is owned already is destroyed first.
  cudaError_t create() {
    const cudaError_t released = reset();
    return released != cudaSuccess ? released : cudaEventCreate(&event_);
  }
  cudaError_t create_with_flags(unsigned int flags) {
    const cudaError_t released = reset();
    return released != cudaSuccess ? released : cudaEventCreateWithFlags(&event_, flags);
  }

  void release() noexcept { note_release(reset(), "cudaEventDestroy"); }

  /// Destroys the event; a recording that is pending still completes.
  cudaError_t reset() noexcept {
    cudaEvent_t const event = std::exchange(event_, nullptr);
    return event == nullptr ? cudaSuccess : cudaEventDestroy(event);
  }

 private:
  cudaEvent_t event_ = nullptr;
};

/// Releases owners in the order given.
template <typename... Owners>
void release_in_order(Owners&... owners) noexcept {
  (owners.release(), ...);
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
