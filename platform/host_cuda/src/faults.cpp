#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include "counter_store.h"
#include "host_cuda/control.h"

namespace ostrel::host_cuda {
namespace {

struct Due {
  long long after;  // the number of calls, from now on, at which it acts; 0 for every call
  int status;
  std::vector<std::int64_t> answer;
};

struct CallFaults {
  long long calls = 0;  // since the first fault of this name was set
  std::deque<Due> faults;
  std::deque<Due> answers;
};

struct FaultStore {
  std::mutex mutex;
  std::map<std::string, CallFaults, std::less<>> by_name;
  bool armed = false;
};

FaultStore& fault_store() {
  static FaultStore& store = *new FaultStore;
  return store;
}

void add(const char* name, int n, std::deque<Due> CallFaults::*list, Due due) {
  FaultStore& store = fault_store();
  const std::lock_guard<std::mutex> lock(store.mutex);
  CallFaults& faults = store.by_name[name];
  due.after = n == 0 ? 0 : faults.calls + n;
  (faults.*list).push_back(std::move(due));
  store.armed = true;
}

// Takes the entry that is due at call number `call` out of the list; one for every call stays.
bool take_due(std::deque<Due>& list, long long call, Due* taken) {
  for (auto due = list.begin(); due != list.end(); ++due) {
    if (due->after != 0 && due->after != call) continue;
    *taken = *due;
    if (due->after != 0) list.erase(due);
    return true;
  }
  return false;
}

}  // namespace

void fail_call(const char* name, int n, int status) {
  add(name, n, &CallFaults::faults, {0, status, {}});
}

void fail_every_call(const char* name, int status) {
  add(name, 0, &CallFaults::faults, {0, status, {}});
}

void answer_call(const char* name, int n, std::vector<std::int64_t> values) {
  add(name, n, &CallFaults::answers, {0, 0, std::move(values)});
}

void clear_faults() {
  FaultStore& store = fault_store();
  const std::lock_guard<std::mutex> lock(store.mutex);
  store.by_name.clear();
  store.armed = false;
}

namespace detail {

int take_fault_uncounted(const char* name) {
  FaultStore& store = fault_store();
  const std::lock_guard<std::mutex> lock(store.mutex);
  if (!store.armed) return 0;
  const auto found = store.by_name.find(std::string_view(name));
  if (found == store.by_name.end()) return 0;
  CallFaults& faults = found->second;
  ++faults.calls;
  Due due;
  return take_due(faults.faults, faults.calls, &due) ? due.status : 0;
}

}  // namespace detail

int take_fault(const char* name) {
  detail::count_call(name);
  return detail::take_fault_uncounted(name);
}

bool take_answer(const char* name, std::vector<std::int64_t>* values) {
  FaultStore& store = fault_store();
  const std::lock_guard<std::mutex> lock(store.mutex);
  if (!store.armed) return false;
  const auto found = store.by_name.find(std::string_view(name));
  if (found == store.by_name.end()) return false;
  Due due;
  if (!take_due(found->second.answers, found->second.calls, &due)) return false;
  *values = std::move(due.answer);
  return true;
}

}  // namespace ostrel::host_cuda
