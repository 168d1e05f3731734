#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>

#include "api_call.h"
#include "counter_store.h"
#include "handles.h"
#include "stream_table.h"

namespace ostrel::host_cuda::detail {
namespace {

using Clock = std::chrono::steady_clock;

// One record call: the moment at which the stream got there. Outlives its event where work still waits for
// it.
class Recording {
 public:
  void reach() {
    const std::lock_guard<std::mutex> lock(mutex_);
    time_ = Clock::now();
    reached_ = true;
    changed_.notify_all();
  }

  void restart() {
    const std::lock_guard<std::mutex> lock(mutex_);
    reached_ = false;
  }

  void wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return reached_; });
  }

  bool time(Clock::time_point* time) {
    const std::lock_guard<std::mutex> lock(mutex_);
    *time = time_;
    return reached_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool reached_ = false;
  Clock::time_point time_;
};

struct Event {
  bool timed;
  std::shared_ptr<Recording> latest;  // null before the first record
};

// All events by handle.
class EventTable {
 public:
  cudaEvent_t create(bool timed) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto handle = new_handle<cudaEvent_t>();
    alive_[handle] = Event{timed, nullptr};
    return handle;
  }

  bool destroy(cudaEvent_t handle) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return alive_.erase(handle) != 0;
  }

  bool find(cudaEvent_t handle, Event* event) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = alive_.find(handle);
    if (found == alive_.end()) return false;
    *event = found->second;
    return true;
  }

  // A new latest recording, nothing for a handle that is not alive. One that nobody else holds is used again,
  // so that a steady frame allocates nothing.
  std::shared_ptr<Recording> start_recording(cudaEvent_t handle) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = alive_.find(handle);
    if (found == alive_.end()) return nullptr;
    std::shared_ptr<Recording>& latest = found->second.latest;
    if (latest.use_count() == 1) {
      latest->restart();
    } else {
      latest = std::make_shared<Recording>();
    }
    return latest;
  }

 private:
  std::mutex mutex_;
  std::map<cudaEvent_t, Event> alive_;
};

EventTable& events() {
  static EventTable& table = *new EventTable;
  return table;
}

cudaError_t create_event(cudaEvent_t* event, unsigned int flags) {
  constexpr unsigned int kKnownFlags = cudaEventBlockingSync | cudaEventDisableTiming;
  if (event == nullptr || (flags & ~kKnownFlags) != 0) return cudaErrorInvalidValue;
  *event = events().create((flags & cudaEventDisableTiming) == 0);
  count(&Counters::live_events);
  return cudaSuccess;
}

cudaError_t record(cudaEvent_t event, cudaStream_t handle) {
  const auto stream = streams().find(handle);
  if (stream == nullptr) return cudaErrorInvalidResourceHandle;
  const auto recording = events().start_recording(event);
  if (recording == nullptr) return cudaErrorInvalidResourceHandle;
  if (handle == nullptr) count(&Counters::null_stream_work);
  auto work = [recording] { recording->reach(); };
  streams().submit(*stream, make_work(work));
  return cudaSuccess;
}

cudaError_t wait_on_stream(cudaStream_t handle, cudaEvent_t handle_of_event) {
  const auto stream = streams().find(handle);
  Event event;
  if (stream == nullptr || !events().find(handle_of_event, &event)) return cudaErrorInvalidResourceHandle;
  if (handle == nullptr) count(&Counters::null_stream_work);
  if (event.latest == nullptr) return cudaSuccess;
  auto work = [recording = event.latest] { recording->wait(); };
  streams().submit(*stream, make_work(work));
  return cudaSuccess;
}

cudaError_t elapsed(float* milliseconds, cudaEvent_t start_handle, cudaEvent_t end_handle) {
  if (milliseconds == nullptr) return cudaErrorInvalidValue;
  Event start;
  Event end;
  if (!events().find(start_handle, &start) || !events().find(end_handle, &end)) {
    return cudaErrorInvalidResourceHandle;
  }
  if (!start.timed || !end.timed || start.latest == nullptr || end.latest == nullptr) {
    return cudaErrorInvalidResourceHandle;
  }
  Clock::time_point start_time;
  Clock::time_point end_time;
  if (!start.latest->time(&start_time) || !end.latest->time(&end_time)) return cudaErrorNotReady;
  *milliseconds = std::chrono::duration<float, std::milli>(end_time - start_time).count();
  return cudaSuccess;
}

}  // namespace
}  // namespace ostrel::host_cuda::detail

namespace detail = ostrel::host_cuda::detail;
using ostrel::host_cuda::Counters;

cudaError_t cudaEventCreate(cudaEvent_t* event) {
  return detail::api_call("cudaEventCreate", [&] { return detail::create_event(event, cudaEventDefault); });
}

cudaError_t cudaEventCreateWithFlags(cudaEvent_t* event, unsigned int flags) {
  return detail::api_call("cudaEventCreateWithFlags", [&] { return detail::create_event(event, flags); });
}

cudaError_t cudaEventDestroy(cudaEvent_t event) {
  return detail::api_call("cudaEventDestroy", [&] {
    if (!detail::events().destroy(event)) return cudaErrorInvalidResourceHandle;
    detail::count(&Counters::live_events, -1);
    return cudaSuccess;
  });
}

cudaError_t cudaEventRecord(cudaEvent_t event, cudaStream_t stream) {
  return detail::api_call("cudaEventRecord", [&] { return detail::record(event, stream); });
}

cudaError_t cudaStreamWaitEvent(cudaStream_t stream, cudaEvent_t event, unsigned int flags) {
  return detail::api_call("cudaStreamWaitEvent", [&] {
    return flags == 0 ? detail::wait_on_stream(stream, event) : cudaErrorInvalidValue;
  });
}

cudaError_t cudaEventSynchronize(cudaEvent_t handle) {
  return detail::api_call("cudaEventSynchronize", [&] {
    detail::Event event;
    if (!detail::events().find(handle, &event)) return cudaErrorInvalidResourceHandle;
    detail::count(&Counters::synchronisations);
    if (event.latest != nullptr) event.latest->wait();
    return cudaSuccess;
  });
}

cudaError_t cudaEventElapsedTime(float* milliseconds, cudaEvent_t start, cudaEvent_t end) {
  return detail::api_call("cudaEventElapsedTime", [&] { return detail::elapsed(milliseconds, start, end); });
}
