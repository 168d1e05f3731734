#include "stream.h"

#include <utility>

#include "host_cuda/control.h"
#include "host_cuda/parallel.h"
#include "work_scope.h"

namespace ostrel::host_cuda::detail {

int Stream::cores() const {
  return low_priority_ ? 1 : worker_count();
}

void Stream::run_now(const Work& work) {
  const std::lock_guard<std::mutex> running(running_);
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++submitted_;
  }
  {
    const WorkScope scope(cores());
    work.run(work.object);
  }
  finish_one();
}

void Stream::queue(std::function<void()> work) {
  const std::lock_guard<std::mutex> lock(mutex_);
  queue_.push_back(std::move(work));
  ++submitted_;
  if (!has_thread_) start_thread();
  changed_.notify_all();
}

void Stream::start_thread() {
  has_thread_ = true;
  start_detached_thread([self = shared_from_this()] { self->serve(); });
}

void Stream::serve() {
  std::function<void()> work;
  while (take_next(&work)) {
    {
      const WorkScope scope(cores());
      work();
    }
    work = nullptr;  // what it held is gone before anyone learns that it is done
    finish_one();
  }
}

bool Stream::take_next(std::function<void()>* work) {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [this] { return !queue_.empty() || closed_; });
  if (queue_.empty()) return false;
  *work = std::move(queue_.front());
  queue_.pop_front();
  return true;
}

void Stream::finish_one() {
  const std::lock_guard<std::mutex> lock(mutex_);
  ++completed_;
  changed_.notify_all();
}

Ticket Stream::submitted() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return submitted_;
}

void Stream::wait_for(Ticket ticket) {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [&] { return completed_ >= ticket; });
}

bool Stream::idle() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return completed_ == submitted_;
}

void Stream::close() {
  const std::lock_guard<std::mutex> lock(mutex_);
  closed_ = true;
  changed_.notify_all();
}

}  // namespace ostrel::host_cuda::detail
