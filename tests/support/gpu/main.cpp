// The main function of tests that need a GPU: without one the whole program says so and is skipped.
#include <cuda_runtime.h>
#include <gmock/gmock.h>

#include <cstdio>

namespace {

// What ctest takes for 'skipped'.
constexpr int kSkipped = 77;

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleMock(&argc, argv);
  if (::testing::GTEST_FLAG(list_tests)) return RUN_ALL_TESTS();
  int devices = 0;
  const cudaError_t status = cudaGetDeviceCount(&devices);
  if (status != cudaSuccess || devices == 0) {
    std::printf("skipped: no GPU here (%s)\n", cudaGetErrorString(status));
    return kSkipped;
  }
  return RUN_ALL_TESTS();
}
