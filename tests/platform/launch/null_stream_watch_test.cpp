// What the watch sees that the fixtures of device tests hold, on every device.

#include <cublas_v2.h>
#include <gtest/gtest-spi.h>
#include <null_stream_watch.h>

#include <functional>
#include <vector>

#include "platform/host_cuda/host_cuda_test.h"
#include "platform/launch/launch_test_kernels.h"

namespace host_cuda_test {
namespace {

using NullStream = HostCudaTest;

class MatrixProduct {
 public:
  MatrixProduct() { EXPECT_EQ(cublasCreate(&handle_), CUBLAS_STATUS_SUCCESS); }
  ~MatrixProduct() { EXPECT_EQ(cublasDestroy(handle_), CUBLAS_STATUS_SUCCESS); }
  MatrixProduct(const MatrixProduct&) = delete;
  MatrixProduct& operator=(const MatrixProduct&) = delete;

  cudaError_t run(cudaStream_t stream) {
    const float one = 1.0F;
    EXPECT_EQ(cublasSetStream(handle_, stream), CUBLAS_STATUS_SUCCESS);
    const cublasStatus_t status =
        cublasSgemmStridedBatched(handle_, CUBLAS_OP_N, CUBLAS_OP_N, 1, 1, 1, &one, values_.data(), 1, 1,
                                  values_.data() + 1, 1, 1, &one, values_.data() + 2, 1, 1, 1);
    return status == CUBLAS_STATUS_SUCCESS ? cudaSuccess : cudaErrorUnknown;
  }

 private:
  cublasHandle_t handle_ = nullptr;
  DeviceArray<float> values_{std::vector<float>(3, 1.0F)};
};

// Work of every kind that the product puts on streams.
class Work {
 public:
  struct Row {
    const char* name;
    std::function<cudaError_t(cudaStream_t)> put_on;
  };

  std::vector<Row> rows() {
    int* const device = device_.data();
    const int* const pinned = pinned_.data();
    const cudaMemcpyKind up = cudaMemcpyHostToDevice;
    return {
        {"a kernel", [=](cudaStream_t s) { return launch_test::describe_blocks(device, 1, 32, s); }},
        {"a copy", [=](cudaStream_t s) { return cudaMemcpyAsync(device, pinned, 12, up, s); }},
        {"a copy of rows",
         [=](cudaStream_t s) { return cudaMemcpy2DAsync(device, 4, pinned, 4, 4, 3, up, s); }},
        {"a memset", [=](cudaStream_t s) { return cudaMemsetAsync(device, 0, 12, s); }},
        {"a record of an event", [this](cudaStream_t s) { return cudaEventRecord(event_, s); }},
        {"a wait for an event", [this](cudaStream_t s) { return cudaStreamWaitEvent(s, event_, 0); }},
        {"a matrix product", [this](cudaStream_t s) { return product_.run(s); }},
    };
  }

 private:
  DeviceArray<int> device_{3};
  PinnedArray<int> pinned_{3};
  TestEvent event_;
  MatrixProduct product_;
};

TEST_F(NullStream, IsSeenWithEveryKindOfWork) {
  Work work;
  for (const Work::Row& row : work.rows()) {
    SCOPED_TRACE(row.name);
    const ostrel_test::NullStreamWatch watch;
    EXPECT_EQ(row.put_on(nullptr), cudaSuccess);
    EXPECT_EQ(cudaDeviceSynchronize(), cudaSuccess);
    EXPECT_NONFATAL_FAILURE(watch.expect_nothing_new(), "before_");
  }
}

TEST_F(NullStream, IsNotSeenWithWorkOnAnotherStream) {
  Work work;
  const TestStream stream;
  const ostrel_test::NullStreamWatch watch;
  for (const Work::Row& row : work.rows()) EXPECT_EQ(row.put_on(stream), cudaSuccess) << row.name;
  EXPECT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
  watch.expect_nothing_new();
}

}  // namespace
}  // namespace host_cuda_test
