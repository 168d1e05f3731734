#pragma once

#include <functional>

namespace ostrel::host_cuda::detail {

// Marks the calling thread as running work of a stream that may use `cores` cores.
class WorkScope {
 public:
  explicit WorkScope(int cores);
  ~WorkScope();
  WorkScope(const WorkScope&) = delete;
  WorkScope& operator=(const WorkScope&) = delete;

 private:
  int previous_;
};

// A thread of the stand-in's own, past the fault hook of "pthread_create". It ends with its body or the
// process.
void start_detached_thread(std::function<void()> body);

}  // namespace ostrel::host_cuda::detail
