#include <gtest/gtest.h>
#include <host_cuda/control.h>

#include <cstdlib>
#include <string>

namespace {

using namespace ostrel::host_cuda;

TEST(HostCudaEnvironment, ChoosesTheStreamModeAtTheStart) {
  const char* value = std::getenv("OSTREL_STREAM_MODE");
  const bool deferred = value != nullptr && std::string(value) == "deferred";
  EXPECT_EQ(stream_mode(), deferred ? StreamMode::kDeferred : StreamMode::kEager);
}

TEST(HostCudaEnvironment, RunsThreadsForwardWithTunedFormsWithoutBeingAsked) {
  EXPECT_EQ(thread_order(), ThreadOrder::kForward);
  EXPECT_TRUE(tuned_kernels());
  EXPECT_GE(worker_count(), 1);
}

}  // namespace
