#pragma once

// Loops over the cores, on a small pool of threads that lives as long as the process.

#include <type_traits>

namespace ostrel::host_cuda {

// Cores that the work now running on this thread may use: 1 on a stream of least priority and in blocks of a
// kernel, else worker_count().
int threads_allowed();

namespace detail {
void parallel_run(int count, int threads_allowed, void* object, void (*call)(void* object, int index));
}

// Calls body(index) for each index from 0 to count - 1, on at most `threads_allowed` threads, the caller
// being one of them, and returns when all are done. Indices are handed out one by one in ascending order:
// make the pieces large enough (tens of microseconds). May be called from several threads at once, and
// nested. The body must not throw.
template <typename Body>
void parallel_for(int count, int threads_allowed, Body&& body) {
  using Held = std::remove_reference_t<Body>;
  detail::parallel_run(count, threads_allowed, const_cast<std::remove_const_t<Held>*>(&body),
                       [](void* object, int index) { (*static_cast<Held*>(object))(index); });
}

}  // namespace ostrel::host_cuda
