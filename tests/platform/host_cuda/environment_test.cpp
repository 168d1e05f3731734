#include <gtest/gtest.h>
#include <host_cuda/control.h>

#include <cstdlib>
#include <string>

namespace {

using namespace ostrel::host_cuda;

std::string environment(const char* variable) {
  const char* value = std::getenv(variable);
  return value != nullptr ? value : "";
}

TEST(HostCudaEnvironment, ChoosesTheStreamModeAtTheStart) {
  const bool deferred = environment("OSTREL_STREAM_MODE") == "deferred";
  EXPECT_EQ(stream_mode(), deferred ? StreamMode::kDeferred : StreamMode::kEager);
}

TEST(HostCudaEnvironment, ChoosesTheOrderOfThreadsAtTheStart) {
  const std::string order = environment("OSTREL_THREAD_ORDER");
  EXPECT_EQ(thread_order(), order == "reverse"    ? ThreadOrder::kReverse
                            : order == "shuffled" ? ThreadOrder::kShuffled
                                                  : ThreadOrder::kForward);
  EXPECT_TRUE(tuned_kernels());
}

TEST(HostCudaEnvironment, ChoosesTheNumberOfCoresAtTheStart) {
  const std::string count = environment("OSTREL_WORKER_COUNT");
  if (count.empty()) {
    EXPECT_GE(worker_count(), 1);
  } else {
    EXPECT_EQ(std::to_string(worker_count()), count);
  }
}

}  // namespace
