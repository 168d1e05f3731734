#include "support/heap_counter.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

std::atomic<long> allocations{0};
std::atomic<std::size_t> failing_bytes{0};

}  // namespace

namespace ostrel_test {

long heap_allocations() {
  return allocations;
}

void fail_heap_allocations_of(std::size_t bytes) {
  failing_bytes = bytes;
}

}  // namespace ostrel_test

// The forms of the standard library for arrays and for nothrow call this one. Over-aligned ones stay the library's.
void* operator new(std::size_t bytes) {
  ++allocations;
  if (bytes != 0 && bytes == failing_bytes.load(std::memory_order_relaxed)) throw std::bad_alloc();
  void* memory = std::malloc(bytes > 0 ? bytes : 1);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t /*bytes*/) noexcept {
  std::free(memory);
}
