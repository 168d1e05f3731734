// The main function of tests that need a GPU: without one the whole program says so and is skipped.
#include <cuda_runtime.h>
#include <gmock/gmock.h>

#include <cstdio>

namespace {

// What ctest takes for 'skipped'.
constexpr int kSkipped = 77;

}  // namespace

int main(int argc, char** argv) {
  int devices = 0;  // asked first: the parameters of some tests are pictures
  const cudaError_t status = cudaGetDeviceCount(&devices);
  if (status != cudaSuccess || devices == 0) {
    std::printf("skipped: no GPU here (%s)\n", cudaGetErrorString(status));
    return kSkipped;
  }
  ::testing::InitGoogleMock(&argc, argv);
  return RUN_ALL_TESTS();
}
