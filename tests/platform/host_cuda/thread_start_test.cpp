#include <cerrno>
#include <future>
#include <system_error>
#include <thread>

#include "platform/host_cuda/host_cuda_test.h"

namespace host_cuda_test {
namespace {

using ThreadStart = HostCudaTest;

TEST_F(ThreadStart, CanBeMadeToFail) {
  fail_call("pthread_create", 2, EAGAIN);
  EXPECT_EQ(std::async(std::launch::async, [] { return 1; }).get(), 1);
  try {
    std::async(std::launch::async, [] { return 2; }).get();
    ADD_FAILURE() << "the second thread started";
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code(), std::errc::resource_unavailable_try_again);
  }
  EXPECT_EQ(std::async(std::launch::async, [] { return 3; }).get(), 3);
}

TEST_F(ThreadStart, FailsForPlainThreadsToo) {
  fail_call("pthread_create", 1, EAGAIN);
  EXPECT_THROW(std::thread([] {}).join(), std::system_error);
}

TEST_F(ThreadStart, IsCounted) {
  std::thread([] {}).join();
  std::async(std::launch::async, [] {}).get();
  EXPECT_EQ(counters().calls_of("pthread_create"), 2);
}

using DeferredThreadStart = DeferredStreamTest;

TEST_F(DeferredThreadStart, OfTheStreamsOwnThreadsIsOutOfReach) {
  fail_every_call("pthread_create", EAGAIN);
  const TestStream stream;
  bool done = false;
  ASSERT_EQ(enqueue(stream, "mark", [&done] { done = true; }), cudaSuccess);
  ASSERT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
  EXPECT_TRUE(done);
  EXPECT_EQ(counters().calls_of("pthread_create"), 0);
}

}  // namespace
}  // namespace host_cuda_test
