#include "device_memory.h"

#include "status.h"

namespace ostrel::tensorrt_cudnn {
namespace {

class CopyStream {
 public:
  CopyStream() {
    check(cudaStreamCreateWithFlags(&stream_, cudaStreamNonBlocking), "cudaStreamCreateWithFlags");
  }
  ~CopyStream() { static_cast<void>(cudaStreamDestroy(stream_)); }
  CopyStream(const CopyStream&) = delete;
  CopyStream& operator=(const CopyStream&) = delete;
  cudaStream_t get() const { return stream_; }

 private:
  cudaStream_t stream_ = nullptr;
};

}  // namespace

DeviceMemory::DeviceMemory(std::size_t bytes) {
  if (bytes > 0) check(cudaMalloc(&memory_, bytes), "cudaMalloc");
}

// A plain cudaMemcpy of pageable memory may return while the last part is still on its way to the device.
DeviceMemory::DeviceMemory(const void* source, std::size_t bytes) : DeviceMemory(bytes) {
  if (bytes == 0) return;
  const CopyStream stream;
  check(cudaMemcpyAsync(memory_, source, bytes, cudaMemcpyHostToDevice, stream.get()), "cudaMemcpyAsync");
  check(cudaStreamSynchronize(stream.get()), "cudaStreamSynchronize");
}

DeviceMemory::~DeviceMemory() {
  if (memory_ != nullptr) static_cast<void>(cudaFree(memory_));
}

}  // namespace ostrel::tensorrt_cudnn
