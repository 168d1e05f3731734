// What tests ask of the CUDA stand-in, where a real device runs instead. A device can neither be told to fail nor to
// count: a test that asks for that ends there as skipped, with the name of what it asked for. What a device does anyway
// (streams that are queues, the one form and order that its kernels have) may be asked for and changes nothing. The same
// test bodies so serve both devices.
#pragma once

#include <cuda_runtime.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace ostrel::host_cuda {

// Ends the running test as skipped.
[[noreturn]] void needs_the_stand_in(const char* call);

template <typename Status>
void fail_call(const char* /*name*/, int /*n*/, Status /*status*/) {
  needs_the_stand_in("fail_call");
}
template <typename Status>
void fail_every_call(const char* /*name*/, Status /*status*/) {
  needs_the_stand_in("fail_every_call");
}
inline void answer_call(const char* /*name*/, int /*n*/, const std::vector<std::int64_t>& /*values*/) {
  needs_the_stand_in("answer_call");
}
// Nothing was told to fail.
inline void clear_faults() {}

struct Counters {
  std::int64_t live_device_allocations = 0;
  std::int64_t live_device_bytes = 0;
  std::int64_t live_pinned_allocations = 0;
  std::int64_t live_pinned_bytes = 0;
  std::int64_t live_streams = 0;
  std::int64_t live_events = 0;
  std::map<std::string, std::int64_t> calls;
  std::map<std::string, std::int64_t> launches;
  std::map<std::string, std::int64_t> enqueued;
  std::int64_t synchronisations = 0;
  std::int64_t blocking_copies = 0;
  std::int64_t null_stream_work = 0;
  std::int64_t frees_while_work_pending = 0;

  std::int64_t calls_of(const std::string& /*name*/) const { return 0; }
  std::int64_t launches_of(const std::string& /*name*/) const { return 0; }
};

inline Counters counters() {
  needs_the_stand_in("counters");
}
// Nothing was counted.
inline void reset_counters() {}
inline void start_trace() {
  needs_the_stand_in("start_trace");
}
inline std::vector<std::string> stop_trace() {
  needs_the_stand_in("stop_trace");
}

// Streams of a device are queues.
enum class StreamMode { kEager, kDeferred };
inline StreamMode stream_mode() {
  return StreamMode::kDeferred;
}
inline bool set_stream_mode(StreamMode mode) {
  if (mode != stream_mode()) needs_the_stand_in("set_stream_mode");
  return true;
}

// Threads of a device run in its own order.
enum class ThreadOrder { kForward, kReverse, kShuffled };
inline ThreadOrder thread_order() {
  return ThreadOrder::kForward;
}
inline void set_thread_order(ThreadOrder order) {
  if (order != thread_order()) needs_the_stand_in("set_thread_order");
}
// Kernels of a device have one form, the plain one.
inline bool tuned_kernels() {
  return false;
}
inline void set_tuned_kernels(bool enabled) {
  if (enabled) needs_the_stand_in("set_tuned_kernels");
}
// No launch uses cores of the host.
inline int worker_count() {
  return 0;
}
inline void set_worker_count(int /*count*/) {}

template <typename Work>
cudaError_t enqueue(cudaStream_t /*stream*/, const char* /*name*/, Work&& /*work*/) {
  needs_the_stand_in("enqueue");
}

// By the runtime's own word; it knows no sizes.
bool is_device_pointer(const void* pointer, std::size_t bytes);
bool is_pinned_pointer(const void* pointer, std::size_t bytes);

}  // namespace ostrel::host_cuda
