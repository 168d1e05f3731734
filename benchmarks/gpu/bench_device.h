// What benchmarks ask of the device that they measure.
#pragma once

#include <cuda_runtime.h>

#include <limits>

namespace ostrel_bench {

/// A device has one form of each kernel.
inline void set_tuned_kernels(bool /*enabled*/) {}

/// Matrix products that fill the device: a batch beside each other, of 512 x 512.
inline int parallel_products() {
  return 32;
}

/// The 16-bit floats that networks may run in.
constexpr const char* kShortFloats = "float16";

/// A device does not count.
class DeviceAllocations {
 public:
  static double count() { return std::numeric_limits<double>::quiet_NaN(); }
};

}  // namespace ostrel_bench
