#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

#include "host_cuda/work.h"

namespace ostrel::host_cuda::detail {

// Position in a stream's row of work: the n-th piece that was submitted.
using Ticket = std::uint64_t;

// A row of work. Pieces run one after another in the order of submission, at once on the submitting thread or
// later on the stream's own thread, which starts with the first piece that is queued.
class Stream : public std::enable_shared_from_this<Stream> {
 public:
  // `blocking` streams order themselves against the null stream; `low_priority` ones use one core.
  Stream(bool blocking, bool low_priority) : blocking_(blocking), low_priority_(low_priority) {}

  bool blocking() const { return blocking_; }

  void run_now(const Work& work);
  void queue(std::function<void()> work);

  Ticket submitted() const;
  void wait_for(Ticket ticket);
  bool idle() const;

  // No more work will come: the thread ends when the queue is empty.
  void close();

 private:
  void start_thread();
  void serve();
  bool take_next(std::function<void()>* work);
  void finish_one();
  int cores() const;

  const bool blocking_;
  const bool low_priority_;
  std::mutex running_;  // held while a piece runs on a submitting thread

  mutable std::mutex mutex_;  // guards what follows
  std::condition_variable changed_;
  std::deque<std::function<void()>> queue_;
  Ticket submitted_ = 0;
  Ticket completed_ = 0;
  bool has_thread_ = false;
  bool closed_ = false;
};

}  // namespace ostrel::host_cuda::detail
