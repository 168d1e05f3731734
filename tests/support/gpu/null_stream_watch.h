#pragma once

#include <gtest/gtest.h>

#include <cstdint>

namespace ostrel_test {

/// Kernels, copies, memsets, events and matrix products that this process has put on a default stream so far, the named
/// blocking `cudaMemcpy` aside.
std::int64_t null_stream_work();

/// Sees what is put on the null stream from its making on, by the program and by the libraries that it loads. What
/// cuDNN launches is out of sight; tests/platform/tensorrt_cudnn watches the stream that it is given.
class NullStreamWatch {
 public:
  void expect_nothing_new() const { EXPECT_EQ(null_stream_work(), before_); }

 private:
  std::int64_t before_ = null_stream_work();
};

}  // namespace ostrel_test
