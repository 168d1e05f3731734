#include "host_cuda/parallel.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <vector>

#include "api_call.h"
#include "host_cuda/control.h"
#include "work_scope.h"

namespace ostrel::host_cuda {
namespace {

thread_local int t_cores = 0;  // 0 outside of any work

// One loop: it lies on the caller's stack, and helpers join it while it stands in the pool's list.
struct Loop {
  int count;
  void* object;
  void (*call)(void* object, int index);
  std::atomic<int> next{0};
  int helpers_wanted;
  int helpers_inside = 0;

  void take_part() {
    for (int index = next.fetch_add(1, std::memory_order_relaxed); index < count;
         index = next.fetch_add(1, std::memory_order_relaxed)) {
      call(object, index);
    }
  }
};

class Pool {
 public:
  void run(Loop& loop) {
    publish(loop);
    loop.take_part();
    withdraw(loop);
  }

 private:
  void publish(Loop& loop) {
    const std::lock_guard<std::mutex> lock(mutex_);
    while (threads_ < loop.helpers_wanted) {
      ++threads_;
      detail::start_detached_thread([this] { serve(); });
    }
    loops_.push_back(&loop);
    wake_.notify_all();
  }

  void withdraw(Loop& loop) {
    std::unique_lock<std::mutex> lock(mutex_);
    const auto place = std::find(loops_.begin(), loops_.end(), &loop);
    if (place != loops_.end()) loops_.erase(place);
    done_.wait(lock, [&] { return loop.helpers_inside == 0; });
  }

  void serve() {
    t_cores = 1;
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      wake_.wait(lock, [this] { return !loops_.empty(); });
      Loop& loop = *loops_.front();
      ++loop.helpers_inside;
      if (--loop.helpers_wanted == 0) loops_.erase(loops_.begin());
      lock.unlock();
      loop.take_part();
      lock.lock();
      // All indices are taken: nobody else need join.
      const auto place = std::find(loops_.begin(), loops_.end(), &loop);
      if (place != loops_.end()) loops_.erase(place);
      --loop.helpers_inside;
      done_.notify_all();
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable done_;
  std::vector<Loop*> loops_;
  int threads_ = 0;
};

Pool& pool() {
  static Pool& instance = *new Pool;
  return instance;
}

void* run_thread(void* body) {
  const std::unique_ptr<std::function<void()>> held(static_cast<std::function<void()>*>(body));
  (*held)();
  return nullptr;
}

}  // namespace

int threads_allowed() {
  return t_cores > 0 ? t_cores : worker_count();
}

namespace detail {

bool inside_work() {
  return t_cores > 0;
}

WorkScope::WorkScope(int cores) : previous_(t_cores) {
  t_cores = cores;
}
WorkScope::~WorkScope() {
  t_cores = previous_;
}

void parallel_run(int count, int threads_allowed, void* object, void (*call)(void* object, int index)) {
  const int threads = std::min(count, threads_allowed);
  if (threads <= 1) {
    for (int index = 0; index < count; ++index) call(object, index);
    return;
  }
  Loop loop;
  loop.count = count;
  loop.object = object;
  loop.call = call;
  loop.helpers_wanted = threads - 1;
  pool().run(loop);
}

void start_detached_thread(std::function<void()> body) {
  auto held = std::make_unique<std::function<void()>>(std::move(body));
  pthread_t thread;
  const int status = pthread_create(&thread, nullptr, run_thread, held.get());
  if (status != 0) {
    std::fprintf(stderr, "host_cuda: cannot start a thread (error %d)\n", status);
    std::abort();
  }
  (void)held.release();  // the thread owns it now
  pthread_detach(thread);
}

}  // namespace detail
}  // namespace ostrel::host_cuda
