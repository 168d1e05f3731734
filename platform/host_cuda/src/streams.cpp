#include <algorithm>
#include <utility>

#include "api_call.h"
#include "counter_store.h"
#include "handles.h"
#include "stream_table.h"

namespace ostrel::host_cuda::detail {

StreamTable& streams() {
  static StreamTable& table = *new StreamTable;
  return table;
}

cudaStream_t StreamTable::create(bool blocking, bool low_priority) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto handle = new_handle<cudaStream_t>();
  alive_.emplace(handle, std::make_shared<Stream>(blocking, low_priority));
  return handle;
}

bool StreamTable::destroy(cudaStream_t handle) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = alive_.find(handle);
  if (found == alive_.end()) return false;
  found->second->close();
  if (!found->second->idle()) draining_.push_back(std::move(found->second));
  alive_.erase(found);
  return true;
}

std::shared_ptr<Stream> StreamTable::find(cudaStream_t handle) {
  if (handle == nullptr) return null_stream_;
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = alive_.find(handle);
  return found == alive_.end() ? nullptr : found->second;
}

std::vector<std::shared_ptr<Stream>> StreamTable::every_stream() {
  const std::lock_guard<std::mutex> lock(mutex_);
  draining_.erase(std::remove_if(draining_.begin(), draining_.end(),
                                 [](const std::shared_ptr<Stream>& stream) { return stream->idle(); }),
                  draining_.end());
  std::vector<std::shared_ptr<Stream>> all = draining_;
  all.push_back(null_stream_);
  for (const auto& entry : alive_) all.push_back(entry.second);
  return all;
}

std::vector<std::shared_ptr<Stream>> StreamTable::predecessors(const Stream& stream) {
  if (!stream.blocking()) return {};
  if (&stream != null_stream_.get()) return {null_stream_};
  std::vector<std::shared_ptr<Stream>> blocking = every_stream();
  blocking.erase(std::remove_if(blocking.begin(), blocking.end(),
                                [&](const std::shared_ptr<Stream>& other) {
                                  return !other->blocking() || other.get() == &stream;
                                }),
                 blocking.end());
  return blocking;
}

void StreamTable::submit(Stream& stream, const Work& work) {
  const bool deferred = stream_mode() == StreamMode::kDeferred;
  for (const auto& other : predecessors(stream)) {
    const Ticket ticket = other->submitted();
    if (deferred) {
      stream.queue([other, ticket] { other->wait_for(ticket); });
    } else {
      other->wait_for(ticket);
    }
  }
  if (deferred) {
    stream.queue(work.detach(work.object));
  } else {
    stream.run_now(work);
  }
}

void StreamTable::wait_for_all() {
  std::vector<std::pair<std::shared_ptr<Stream>, Ticket>> waits;
  for (const auto& stream : every_stream()) waits.emplace_back(stream, stream->submitted());
  for (const auto& wait : waits) wait.first->wait_for(wait.second);
}

bool StreamTable::all_idle() {
  const auto all = every_stream();
  return std::all_of(all.begin(), all.end(),
                     [](const std::shared_ptr<Stream>& stream) { return stream->idle(); });
}

bool StreamTable::if_idle(const std::function<void()>& action) {
  if (!all_idle()) return false;
  action();
  return true;
}

cudaError_t submit(cudaStream_t handle, const char* name, const Work& work) {
  if (inside_work()) return remember(cudaErrorNotPermitted);
  const auto stream = streams().find(handle);
  if (stream == nullptr) return remember(cudaErrorInvalidResourceHandle);
  count_enqueued(name);
  if (handle == nullptr) count(&Counters::null_stream_work);
  streams().submit(*stream, work);
  return cudaSuccess;
}

}  // namespace ostrel::host_cuda::detail

using ostrel::host_cuda::Counters;
namespace detail = ostrel::host_cuda::detail;

namespace {

constexpr int kLeastPriority = 0;
constexpr int kGreatestPriority = -5;

cudaError_t create_stream(cudaStream_t* stream, unsigned int flags, bool low_priority) {
  if (stream == nullptr || (flags & ~static_cast<unsigned>(cudaStreamNonBlocking)) != 0) {
    return cudaErrorInvalidValue;
  }
  *stream = detail::streams().create(flags == cudaStreamDefault, low_priority);
  detail::count(&Counters::live_streams);
  return cudaSuccess;
}

}  // namespace

cudaError_t cudaStreamCreateWithFlags(cudaStream_t* stream, unsigned int flags) {
  return detail::api_call("cudaStreamCreateWithFlags", [&] { return create_stream(stream, flags, false); });
}

// A priority out of range is clamped. Only an explicit least priority keeps a stream to one core: 0 is also
// the priority of streams that were made without one.
cudaError_t cudaStreamCreateWithPriority(cudaStream_t* stream, unsigned int flags, int priority) {
  return detail::api_call("cudaStreamCreateWithPriority",
                          [&] { return create_stream(stream, flags, priority >= kLeastPriority); });
}

cudaError_t cudaStreamDestroy(cudaStream_t stream) {
  return detail::api_call("cudaStreamDestroy", [&] {
    if (!detail::streams().destroy(stream)) return cudaErrorInvalidResourceHandle;
    detail::count(&Counters::live_streams, -1);
    return cudaSuccess;
  });
}

cudaError_t cudaStreamSynchronize(cudaStream_t stream) {
  return detail::api_call("cudaStreamSynchronize", [&] {
    const auto found = detail::streams().find(stream);
    if (found == nullptr) return cudaErrorInvalidResourceHandle;
    detail::count(&Counters::synchronisations);
    found->wait_for(found->submitted());
    return cudaSuccess;
  });
}

cudaError_t cudaDeviceGetStreamPriorityRange(int* least_priority, int* greatest_priority) {
  return detail::api_call("cudaDeviceGetStreamPriorityRange", [&] {
    if (least_priority != nullptr) *least_priority = kLeastPriority;
    if (greatest_priority != nullptr) *greatest_priority = kGreatestPriority;
    return cudaSuccess;
  });
}

cudaError_t cudaDeviceSynchronize(void) {
  return detail::api_call("cudaDeviceSynchronize", [] {
    detail::count(&Counters::synchronisations);
    detail::streams().wait_for_all();
    return cudaSuccess;
  });
}
