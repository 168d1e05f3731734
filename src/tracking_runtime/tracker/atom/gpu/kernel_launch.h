#pragma once

#include <cuda_launch.h>
#include <cuda_runtime.h>

#include <cstddef>
#include <string>

#include "tracking_runtime/tracker/atom/gpu/cuda_error.h"

/// How every kernel of the numerics is launched: blocks of 256 threads in x, one thread per element.

namespace ostrel_tracker::tracking_runtime::tracker::atom {

constexpr int kThreadsPerBlock = 256;

/// Blocks that cover `elements` threads.
inline unsigned blocks_for(int elements) {
  return static_cast<unsigned>((elements + kThreadsPerBlock - 1) / kThreadsPerBlock);
}

/// What a launch is called: the kernel's name, which counters and fault hooks know, and the label of a
/// failure, which is the kernel's name where nothing else is given.
struct LaunchName {
  LaunchName(const char* kernel_name)
      : kernel(kernel_name), label(kernel_name) {}  // NOLINT: a name is a LaunchName
  LaunchName(const char* kernel_name, const char* failure_label)
      : kernel(kernel_name), label(failure_label) {}
  const char* kernel;
  const char* label;
};

/// Enqueues `kernel` over `elements` threads on `stream` and returns without waiting. A launch failure reads
/// the label, ": " and the CUDA text.
template <typename... Parameters, typename... Arguments>
bool launch_over(LaunchName name, void (*kernel)(Parameters...), int elements, std::size_t shared_bytes,
                 cudaStream_t stream, std::string* error, Arguments... arguments) {
  return set_cuda_error(ostrel::launch::launch_kernel(name.kernel, kernel, blocks_for(elements),
                                                      kThreadsPerBlock, shared_bytes, stream, arguments...),
                        name.label, error);
}

/// The same with one block of one thread.
template <typename... Parameters, typename... Arguments>
bool launch_single_thread(LaunchName name, void (*kernel)(Parameters...), cudaStream_t stream,
                          std::string* error, Arguments... arguments) {
  return set_cuda_error(ostrel::launch::launch_kernel(name.kernel, kernel, 1, 1, 0, stream, arguments...),
                        name.label, error);
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
