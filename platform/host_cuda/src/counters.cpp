#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "counter_store.h"

namespace ostrel::host_cuda {
namespace {

using ByName = std::map<std::string, std::int64_t, std::less<>>;

struct CounterStore {
  std::mutex mutex;
  Counters plain;  // its maps stay empty: looking up by string_view allocates nothing
  ByName calls, launches, enqueued;
  bool tracing = false;
  std::vector<std::string> trace;
};

CounterStore& store() {
  static CounterStore& counters = *new CounterStore;
  return counters;
}

// The two calls that are part of every launch.
bool belongs_to_a_launch(std::string_view name) {
  return name == "cudaLaunchKernel" || name == "cudaGetLastError";
}

void add_one(ByName CounterStore::*names, const char* name) {
  CounterStore& counters = store();
  const std::lock_guard<std::mutex> lock(counters.mutex);
  if (counters.tracing && !belongs_to_a_launch(name)) counters.trace.emplace_back(name);
  const auto found = (counters.*names).find(std::string_view(name));
  if (found != (counters.*names).end()) {
    ++found->second;
  } else {
    (counters.*names).emplace(name, 1);
  }
}

// Entries stay, at zero, so that a steady run after a reset allocates nothing.
void clear(ByName& names) {
  for (auto& entry : names) entry.second = 0;
}

void copy_nonzero(const ByName& from, std::map<std::string, std::int64_t>* to) {
  for (const auto& entry : from) {
    if (entry.second != 0) to->insert(entry);
  }
}

std::int64_t value_of(const std::map<std::string, std::int64_t>& names, const std::string& name) {
  const auto found = names.find(name);
  return found == names.end() ? 0 : found->second;
}

}  // namespace

std::int64_t Counters::calls_of(const std::string& name) const {
  return value_of(calls, name);
}
std::int64_t Counters::launches_of(const std::string& name) const {
  return value_of(launches, name);
}

Counters counters() {
  CounterStore& from = store();
  const std::lock_guard<std::mutex> lock(from.mutex);
  Counters snapshot = from.plain;
  copy_nonzero(from.calls, &snapshot.calls);
  copy_nonzero(from.launches, &snapshot.launches);
  copy_nonzero(from.enqueued, &snapshot.enqueued);
  return snapshot;
}

void reset_counters() {
  CounterStore& counters = store();
  const std::lock_guard<std::mutex> lock(counters.mutex);
  clear(counters.calls);
  clear(counters.launches);
  clear(counters.enqueued);
  counters.plain.synchronisations = 0;
  counters.plain.blocking_copies = 0;
  counters.plain.null_stream_work = 0;
  counters.plain.frees_while_work_pending = 0;
}

void start_trace() {
  CounterStore& counters = store();
  const std::lock_guard<std::mutex> lock(counters.mutex);
  counters.trace.clear();
  counters.tracing = true;
}

std::vector<std::string> stop_trace() {
  CounterStore& counters = store();
  const std::lock_guard<std::mutex> lock(counters.mutex);
  counters.tracing = false;
  return std::move(counters.trace);
}

namespace detail {

void count_call(const char* name) {
  add_one(&CounterStore::calls, name);
}
void count_launch(const char* kernel) {
  add_one(&CounterStore::launches, kernel);
}
void count_enqueued(const char* name) {
  add_one(&CounterStore::enqueued, name);
}

void count(std::int64_t Counters::*counter, std::int64_t by) {
  CounterStore& counters = store();
  const std::lock_guard<std::mutex> lock(counters.mutex);
  counters.plain.*counter += by;
}

}  // namespace detail
}  // namespace ostrel::host_cuda
