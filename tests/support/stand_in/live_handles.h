#pragma once

#include <gtest/gtest.h>
#include <host_cuda/control.h>

namespace ostrel_test {

/// Every allocation, stream and event has been given back.
inline void expect_nothing_alive() {
  const ostrel::host_cuda::Counters left = ostrel::host_cuda::counters();
  EXPECT_EQ(left.live_device_allocations, 0);
  EXPECT_EQ(left.live_device_bytes, 0);
  EXPECT_EQ(left.live_pinned_allocations, 0);
  EXPECT_EQ(left.live_pinned_bytes, 0);
  EXPECT_EQ(left.live_streams, 0);
  EXPECT_EQ(left.live_events, 0);
}

}  // namespace ostrel_test
