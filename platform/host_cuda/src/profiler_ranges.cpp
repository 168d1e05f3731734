#include <nvtx3/nvToolsExt.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "host_cuda/control.h"

namespace ostrel::host_cuda {
namespace {

struct RangeStore {
  std::atomic<bool> noting{false};
  std::mutex mutex;
  std::vector<RangeNote> notes;
};

RangeStore& range_store() {
  static RangeStore& store = *new RangeStore;
  return store;
}

void note(const char* name) {
  RangeStore& store = range_store();
  if (!store.noting.load(std::memory_order_relaxed)) return;
  const std::lock_guard<std::mutex> lock(store.mutex);
  store.notes.push_back({std::this_thread::get_id(), name == nullptr, name == nullptr ? "" : name});
}

}  // namespace

void start_range_notes() {
  RangeStore& store = range_store();
  const std::lock_guard<std::mutex> lock(store.mutex);
  store.notes.clear();
  store.noting = true;
}

std::vector<RangeNote> stop_range_notes() {
  RangeStore& store = range_store();
  const std::lock_guard<std::mutex> lock(store.mutex);
  store.noting = false;
  return std::exchange(store.notes, {});
}

}  // namespace ostrel::host_cuda

int nvtxRangePushA(const char* message) {
  ostrel::host_cuda::note(message == nullptr ? "" : message);
  return NVTX_NO_PUSH_POP_TRACKING;
}

int nvtxRangePop() {
  ostrel::host_cuda::note(nullptr);
  return NVTX_NO_PUSH_POP_TRACKING;
}
