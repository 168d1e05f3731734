// What many starts leave on the device.
#include <device_memory_in_use.h>

#include "init_fixture.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom::init_test {
namespace {

constexpr int kStarts = 200;
// The engine's cache and the pools of the libraries fill in the first.
constexpr int kStartsBefore = 3;

class ManyStarts : public TrackingStart {
 protected:
  bool start_and_end() {
    CudaRuntimeBackend fresh(config);
    ::testing::internal::CaptureStderr();
    const bool started = fresh.initialize(frame, kBox, &error);
    ::testing::internal::GetCapturedStderr();
    return started;
  }
};

TEST_F(ManyStarts, LeaveNoDeviceMemoryBehind) {
  config.reference_trace_path.clear();
  for (int i = 0; i < kStartsBefore; ++i) ASSERT_TRUE(start_and_end()) << error;
  const std::int64_t before_bytes = ostrel_test::device_memory_in_use_bytes();
  for (int i = 0; i < kStarts; ++i) ASSERT_TRUE(start_and_end()) << error;
  EXPECT_LE(ostrel_test::device_memory_in_use_bytes(), before_bytes + ostrel_test::kDeviceMemorySlack_bytes);
}

}  // namespace
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom::init_test
