#pragma once

#include <pthread.h>

#include <cstddef>
#include <functional>
#include <stdexcept>

namespace ostrel_test {

/// The stack that a main thread has by default, whatever `ulimit -s` says here.
constexpr std::size_t kDefaultStackBytes = std::size_t{8} << 20;

/// Runs the task on a thread with a stack of this size, and waits for it. The task must not throw.
inline void run_on_stack(std::size_t stack_bytes, const std::function<void()>& task) {
  pthread_attr_t attributes;
  pthread_t thread;
  auto body = [](void* argument) -> void* {
    (*static_cast<const std::function<void()>*>(argument))();
    return nullptr;
  };
  pthread_attr_init(&attributes);
  const bool started =
      pthread_attr_setstacksize(&attributes, stack_bytes) == 0 &&
      pthread_create(&thread, &attributes, body, const_cast<std::function<void()>*>(&task)) == 0;
  pthread_attr_destroy(&attributes);
  if (!started) throw std::runtime_error("no thread with such a stack");
  pthread_join(thread, nullptr);
}

}  // namespace ostrel_test
