#pragma once

#include <gtest/gtest.h>
#include <host_cuda/control.h>

#include <cstdint>

namespace ostrel_test {

/// Sees what is put on the null stream from its making on.
class NullStreamWatch {
 public:
  void expect_nothing_new() const { EXPECT_EQ(ostrel::host_cuda::counters().null_stream_work, before_); }

 private:
  std::int64_t before_ = ostrel::host_cuda::counters().null_stream_work;
};

}  // namespace ostrel_test
