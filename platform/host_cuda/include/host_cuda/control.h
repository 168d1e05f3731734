#pragma once

// What tests and the other stand-ins ask of the CUDA stand-in: faults, counters, modes, work on streams.
// A process has one of each. Every function may be called from any thread.

#include <cuda_runtime.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <host_cuda/work.h>

namespace ostrel::host_cuda {

// --- Faults ---

// Makes the n-th next call (1 is the next one) of that name fail with `status`, once, without any effect.
// Names are those of the calls ("cudaMalloc", "cublasSgemmStridedBatched", "enqueueV3"), of kernels, and
// "cudaLaunchKernel" for the launch of any kernel. "pthread_create" is the start of a thread by std::thread
// or std::async, which then throws std::system_error with `status` as its errno value.
void fail_call(const char* name, int n, int status);
template <typename Status, typename = std::enable_if_t<std::is_enum_v<Status>>>
void fail_call(const char* name, int n, Status status) {
  fail_call(name, n, static_cast<int>(status));
}

// Makes every call of that name fail until clear_faults().
void fail_every_call(const char* name, int status);

// Makes the n-th next call of that name answer `values` instead of the truth (a shape, a count). What the
// values mean is told by the stand-in that has the call.
void answer_call(const char* name, int n, std::vector<std::int64_t> values);

void clear_faults();

// For stand-ins, at the start of a call: counts the call and returns the status of the fault that is due, or
// 0.
int take_fault(const char* name);

// For stand-ins, after take_fault in the same call: true, with `values` filled, when an answer is due.
bool take_answer(const char* name, std::vector<std::int64_t>* values);

// --- Counters ---

struct Counters {
  // What lives now; reset_counters() leaves these alone.
  std::int64_t live_device_allocations = 0;
  std::int64_t live_device_bytes = 0;
  std::int64_t live_pinned_allocations = 0;
  std::int64_t live_pinned_bytes = 0;
  std::int64_t live_streams = 0;
  std::int64_t live_events = 0;

  // What happened since reset_counters().
  std::map<std::string, std::int64_t> calls;     // by name, failed ones too
  std::map<std::string, std::int64_t> launches;  // by kernel name, successful ones
  std::map<std::string, std::int64_t> enqueued;  // work of other stand-ins, by the name given to enqueue()
  std::int64_t synchronisations = 0;             // cudaStream-, cudaEvent- and cudaDeviceSynchronize
  std::int64_t blocking_copies = 0;           // cudaMemcpy, and copies from the device into pageable memory
  std::int64_t null_stream_work = 0;          // everything put on the null stream but cudaMemcpy
  std::int64_t frees_while_work_pending = 0;  // cudaFree and cudaFreeHost that found unfinished work

  std::int64_t calls_of(const std::string& name) const;
  std::int64_t launches_of(const std::string& name) const;
};

Counters counters();
void reset_counters();

// Notes the names of calls and of launched kernels from now on, in the order of the whole process. A launch is one
// entry, the kernel's name.
void start_trace();

// Ends the notes and returns them.
std::vector<std::string> stop_trace();

// --- Profiler ranges ---

// One push or pop of <nvtx3/nvToolsExt.h>; a pop has no name.
struct RangeNote {
  std::thread::id thread;
  bool is_pop = false;
  std::string name;
};

// Notes the pushes and pops of every thread from now on, in the order in which they came.
void start_range_notes();

// Ends the notes and returns them.
std::vector<RangeNote> stop_range_notes();

// --- Modes ---

// kEager: a call runs its work before it returns. kDeferred: each stream has a queue and a thread.
// OSTREL_STREAM_MODE=eager|deferred chooses at the start of the process, eager without it.
enum class StreamMode { kEager, kDeferred };
StreamMode stream_mode();
// False, with nothing changed, while work is pending.
bool set_stream_mode(StreamMode mode);

// The order in which the threads of a phase (and the blocks of a launch) run; anything but kForward turns
// the tuned forms off, which have no threads. OSTREL_THREAD_ORDER=forward|reverse|shuffled at the start.
enum class ThreadOrder { kForward, kReverse, kShuffled };
ThreadOrder thread_order();
void set_thread_order(ThreadOrder order);

// Whether kernels run in their tuned host form where there is one (the default) or in the plain form.
bool tuned_kernels();
void set_tuned_kernels(bool enabled);

// Cores that a launch may use, at least 1; OSTREL_WORKER_COUNT at the start, else those of the machine.
int worker_count();
void set_worker_count(int count);

// --- For other stand-ins ---

// Puts work on a stream, in its order, under the rules of the stream mode: run before the return (eager) or
// moved to the stream's queue (deferred). The work makes no CUDA calls; inside it threads_allowed() says how
// many cores it may use. cudaErrorInvalidResourceHandle for a stream that is not alive.
template <typename Work>
cudaError_t enqueue(cudaStream_t stream, const char* name, Work&& work) {
  std::decay_t<Work> held(std::forward<Work>(work));
  return detail::submit(stream, name, detail::make_work(held));
}

// Whether `bytes` bytes from `pointer` lie in one live device allocation.
bool is_device_pointer(const void* pointer, std::size_t bytes);

// Whether `bytes` bytes from `pointer` lie in one live allocation of cudaMallocHost.
bool is_pinned_pointer(const void* pointer, std::size_t bytes);

}  // namespace ostrel::host_cuda
