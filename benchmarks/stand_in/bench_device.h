// What benchmarks ask of the device that they measure.
#pragma once

#include <host_cuda/control.h>

#include <cstdint>

namespace ostrel_bench {

/// Whether kernels run in their tuned host form (the default) or in the plain form.
inline void set_tuned_kernels(bool enabled) {
  ostrel::host_cuda::set_tuned_kernels(enabled);
}

/// Matrix products that fill the device.
inline int parallel_products() {
  return ostrel::host_cuda::worker_count();
}

/// The 16-bit floats that networks may run in.
constexpr const char* kShortFloats = "bfloat16";

/// Allocations of device memory since its making.
class DeviceAllocations {
 public:
  DeviceAllocations() { ostrel::host_cuda::reset_counters(); }
  double count() const { return static_cast<double>(ostrel::host_cuda::counters().calls_of("cudaMalloc")); }
};

}  // namespace ostrel_bench
