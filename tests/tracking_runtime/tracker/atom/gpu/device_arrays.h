#pragma once

#include <cuda_runtime.h>

#include <cstddef>
#include <cstdint>
#include <random>
#include <stdexcept>
#include <vector>

#include "tracking_runtime/tracker/atom/gpu/cuda_handles.h"

/// Device arrays and streams for tests of the numerics. A CUDA failure throws, which fails the test.

namespace ostrel_test {

namespace atom = ostrel_tracker::tracking_runtime::tracker::atom;

inline void require(cudaError_t status) {
  if (status != cudaSuccess) throw std::runtime_error(cudaGetErrorString(status));
}

/// A non-blocking stream.
class TestStream {
 public:
  TestStream() { require(stream_.create_with_flags(cudaStreamNonBlocking)); }
  cudaStream_t get() const { return stream_.get(); }
  void wait() const { require(cudaStreamSynchronize(stream_.get())); }

 private:
  atom::CudaStream stream_;
};

/// A device array that starts with the given values.
template <typename T>
class DeviceArray {
 public:
  explicit DeviceArray(const std::vector<T>& values) : size_(values.size()) {
    require(buffer_.ensure(size_));
    require(cudaMemcpy(buffer_.get(), values.data(), size_ * sizeof(T), cudaMemcpyHostToDevice));
    require(cudaStreamSynchronize(nullptr));  // for work on any stream
  }
  /// `count` copies of `value`.
  DeviceArray(std::size_t count, T value) : DeviceArray(std::vector<T>(count, value)) {}

  T* get() const { return buffer_.get(); }

  /// Waits for `stream` and copies the values to the host.
  std::vector<T> read(const TestStream& stream) const {
    stream.wait();
    std::vector<T> values(size_);
    require(cudaMemcpy(values.data(), buffer_.get(), size_ * sizeof(T), cudaMemcpyDeviceToHost));
    return values;
  }

 private:
  atom::DeviceBuffer<T> buffer_;
  std::size_t size_;
};

/// Uniform values between `low` and `high`, the same for the same seed.
inline std::vector<float> random_values(std::size_t count, std::uint32_t seed, float low = -1.0F,
                                        float high = 1.0F) {
  std::mt19937 generator(seed);
  std::uniform_real_distribution<float> distribution(low, high);
  std::vector<float> values(count);
  for (float& value : values) value = distribution(generator);
  return values;
}

}  // namespace ostrel_test
