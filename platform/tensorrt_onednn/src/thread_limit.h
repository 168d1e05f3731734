// Cores that oneDNN's OpenMP loops use on this thread.
#pragma once

#include <omp.h>

namespace ostrel::tensorrt_onednn {

// Cores to plan for where `wished` are allowed. libgomp synchronises in ways that the thread sanitizer cannot see,
// so a build under it uses one.
inline int plannable_threads(int wished) {
#ifdef __SANITIZE_THREAD__
  return wished > 1 ? 1 : wished;
#else
  return wished;
#endif
}

class ThreadLimit {
 public:
  explicit ThreadLimit(int threads) : previous_(omp_get_max_threads()) { omp_set_num_threads(threads); }
  ~ThreadLimit() { omp_set_num_threads(previous_); }
  ThreadLimit(const ThreadLimit&) = delete;
  ThreadLimit& operator=(const ThreadLimit&) = delete;

 private:
  int previous_;
};

}  // namespace ostrel::tensorrt_onednn
