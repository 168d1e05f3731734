#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "host_cuda/control.h"
#include "stream_table.h"

namespace ostrel::host_cuda {
namespace {

[[noreturn]] void unknown_value(const char* variable, const char* value) {
  std::fprintf(stderr, "host_cuda: %s has the unknown value '%s'\n", variable, value);
  std::_Exit(2);
}

// Value of an environment variable that must be one of `words`: its place there, 0 when it is not set.
int choice_from_environment(const char* variable, std::initializer_list<const char*> words) {
  const char* value = std::getenv(variable);
  if (value == nullptr || *value == '\0') return 0;
  int place = 0;
  for (const char* word : words) {
    if (std::string(word) == value) return place;
    ++place;
  }
  unknown_value(variable, value);
}

// A count of at least 1 from an environment variable; `otherwise` when it is not set.
int count_from_environment(const char* variable, int otherwise) {
  const char* value = std::getenv(variable);
  if (value == nullptr || *value == '\0') return otherwise;
  const int count = std::atoi(value);
  if (count < 1) unknown_value(variable, value);
  return count;
}

int cores_of_the_machine() {
  return std::max(1, static_cast<int>(std::thread::hardware_concurrency()));
}

struct Modes {
  std::atomic<StreamMode> stream_mode;
  std::atomic<ThreadOrder> thread_order;
  std::atomic<bool> tuned_kernels{true};
  std::atomic<int> worker_count;

  Modes()
      : stream_mode(
            static_cast<StreamMode>(choice_from_environment("OSTREL_STREAM_MODE", {"eager", "deferred"}))),
        thread_order(static_cast<ThreadOrder>(
            choice_from_environment("OSTREL_THREAD_ORDER", {"forward", "reverse", "shuffled"}))),
        worker_count(count_from_environment("OSTREL_WORKER_COUNT", cores_of_the_machine())) {}
};

Modes& modes() {
  static Modes& instance = *new Modes;
  return instance;
}

}  // namespace

StreamMode stream_mode() {
  return modes().stream_mode;
}

bool set_stream_mode(StreamMode mode) {
  return detail::streams().if_idle([&] { modes().stream_mode = mode; });
}

ThreadOrder thread_order() {
  return modes().thread_order;
}
void set_thread_order(ThreadOrder order) {
  modes().thread_order = order;
}

bool tuned_kernels() {
  return modes().tuned_kernels;
}
void set_tuned_kernels(bool enabled) {
  modes().tuned_kernels = enabled;
}

int worker_count() {
  return modes().worker_count;
}
void set_worker_count(int count) {
  modes().worker_count = std::max(1, count);
}

}  // namespace ostrel::host_cuda
