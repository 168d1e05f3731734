#include <cuda_runtime.h>
#include <gtest/gtest.h>

#include <numeric>
#include <vector>

#include "platform/launch/launch_test_kernels.h"

namespace {

template <typename T>
class DeviceArray {
 public:
  explicit DeviceArray(std::size_t count) : count_(count) {
    EXPECT_EQ(cudaMalloc(&data_, count * sizeof(T)), cudaSuccess);
  }
  explicit DeviceArray(const std::vector<T>& values) : DeviceArray(values.size()) {
    EXPECT_EQ(cudaMemcpy(data_, values.data(), count_ * sizeof(T), cudaMemcpyHostToDevice), cudaSuccess);
  }
  ~DeviceArray() { EXPECT_EQ(cudaFree(data_), cudaSuccess); }
  DeviceArray(const DeviceArray&) = delete;
  DeviceArray& operator=(const DeviceArray&) = delete;

  T* data() const { return data_; }
  std::vector<T> on_host() const {
    std::vector<T> values(count_);
    EXPECT_EQ(cudaMemcpy(values.data(), data_, count_ * sizeof(T), cudaMemcpyDeviceToHost), cudaSuccess);
    return values;
  }

 private:
  std::size_t count_;
  T* data_ = nullptr;
};

std::vector<float> ramp(int n) {
  std::vector<float> values(static_cast<std::size_t>(n));
  std::iota(values.begin(), values.end(), 1.0F);
  return values;
}

TEST(Launch, RunsEveryThreadOnceAndStopsAtTheEnd) {
  const int n = 1000;
  const DeviceArray<float> source(ramp(n));
  const DeviceArray<float> target(static_cast<std::size_t>(n));
  ASSERT_EQ(launch_test::scale(source.data(), 3.0F, target.data(), n, 256, nullptr), cudaSuccess);
  ASSERT_EQ(cudaDeviceSynchronize(), cudaSuccess);
  const std::vector<float> result = target.on_host();
  for (int t = 0; t < n; ++t)
    EXPECT_EQ(result[static_cast<std::size_t>(t)], 3.0F * static_cast<float>(t + 1));
}

TEST(Launch, SumsThroughStaticSharedMemoryAndAtomicAdd) {
  const int n = 10000;
  const DeviceArray<float> source(ramp(n));
  const DeviceArray<double> out(std::vector<double>{0.5});
  ASSERT_EQ(launch_test::sum(source.data(), n, out.data(), 7, nullptr), cudaSuccess);
  ASSERT_EQ(cudaDeviceSynchronize(), cudaSuccess);
  EXPECT_EQ(out.on_host()[0], 0.5 + n * (n + 1) / 2.0);
}

}  // namespace
