#include <gtest/gtest.h>
#include <host_cuda/control.h>

namespace ostrel::host_cuda {
namespace {

bool is_memory_of(const void* pointer, cudaMemoryType type) {
  cudaPointerAttributes attributes{};
  return cudaPointerGetAttributes(&attributes, pointer) == cudaSuccess && attributes.type == type;
}

// GoogleTest's macro for this returns from the function that it stands in; the exception, which GoogleTest takes for a
// part that was reported, leaves the test's body from any depth.
[[noreturn]] void skip(const std::string& reason) {
  [&reason] { GTEST_SKIP() << reason; }();
  throw ::testing::AssertionException(
      ::testing::TestPartResult(::testing::TestPartResult::kSkip, __FILE__, __LINE__, reason.c_str()));
}

}  // namespace

void needs_the_stand_in(const char* call) {
  skip(std::string("only the stand-in has ") + call + "()");
}

bool is_device_pointer(const void* pointer, std::size_t /*bytes*/) {
  return is_memory_of(pointer, cudaMemoryTypeDevice);
}

bool is_pinned_pointer(const void* pointer, std::size_t /*bytes*/) {
  return is_memory_of(pointer, cudaMemoryTypeHost);
}

}  // namespace ostrel::host_cuda
