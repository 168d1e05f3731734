#include <cublas_v2.h>

#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/host_cuda/host_cuda_test.h"

namespace host_cuda_test {
namespace {

using ErrorTexts = HostCudaTest;

TEST_F(ErrorTexts, AreThoseOfCuda) {
  const std::vector<std::pair<int, std::string>> texts = {
      {0, "no error"},
      {1, "invalid argument"},
      {2, "out of memory"},
      {3, "initialization error"},
      {4, "driver shutting down"},
      {9, "invalid configuration argument"},
      {12, "invalid pitch argument"},
      {17, "invalid device pointer"},
      {21, "invalid copy direction for memcpy"},
      {35, "CUDA driver version is insufficient for CUDA runtime version"},
      {46, "CUDA-capable device(s) is/are busy or unavailable"},
      {98, "invalid device function"},
      {100, "no CUDA-capable device is detected"},
      {101, "invalid device ordinal"},
      {400, "invalid resource handle"},
      {600, "device not ready"},
      {700, "an illegal memory access was encountered"},
      {701, "too many resources requested for launch"},
      {702, "the launch timed out and was terminated"},
      {716, "misaligned address"},
      {719, "unspecified launch failure"},
      {800, "operation not permitted"},
      {801, "operation not supported"},
      {999, "unknown error"},
      {998, "unrecognized error code"},
  };
  for (const auto& [status, text] : texts)
    EXPECT_EQ(cudaGetErrorString(static_cast<cudaError_t>(status)), text);
}

TEST_F(ErrorTexts, AreThoseOfCublas) {
  const std::vector<std::pair<int, std::string>> texts = {
      {0, "success"},
      {1, "the library was not initialized"},
      {3, "the resource allocation failed"},
      {7, "an unsupported value or parameter was passed to the function"},
      {8, "the function requires an architectural feature absent from the device"},
      {11, "an access to GPU memory space failed"},
      {13, "the function failed to launch on the GPU"},
      {14, "an internal operation failed"},
      {15, "the requested functionality is not supported"},
      {16, "the license check failed"},
      {2, "unrecognized status"},
  };
  for (const auto& [status, text] : texts) {
    EXPECT_EQ(cublasGetStatusString(static_cast<cublasStatus_t>(status)), text);
  }
}

TEST_F(ErrorTexts, LastErrorStaysUntilItIsTaken) {
  int device = 0;
  EXPECT_EQ(cudaSetDevice(5), cudaErrorInvalidDevice);
  EXPECT_EQ(cudaGetDevice(&device), cudaSuccess) << "a success does not hide an earlier failure";
  EXPECT_EQ(cudaPeekAtLastError(), cudaErrorInvalidDevice);
  EXPECT_EQ(cudaGetLastError(), cudaErrorInvalidDevice);
  EXPECT_EQ(cudaPeekAtLastError(), cudaSuccess);
}

TEST_F(ErrorTexts, LastErrorBelongsToItsThread) {
  EXPECT_EQ(cudaSetDevice(5), cudaErrorInvalidDevice);
  cudaError_t other = cudaErrorUnknown;
  std::thread([&other] { other = cudaGetLastError(); }).join();
  EXPECT_EQ(other, cudaSuccess);
  EXPECT_EQ(cudaGetLastError(), cudaErrorInvalidDevice);
}

}  // namespace
}  // namespace host_cuda_test
