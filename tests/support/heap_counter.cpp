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

// The library's form for arrays calls this one; over-aligned ones stay the library's.
void* operator new(std::size_t bytes) {
  ++allocations;
  if (bytes != 0 && bytes == failing_bytes.load(std::memory_order_relaxed)) throw std::bad_alloc();
  void* memory = std::malloc(bytes > 0 ? bytes : 1);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

// A sanitizer would bring its own.
void* operator new(std::size_t bytes, const std::nothrow_t& /*tag*/) noexcept {
  try {
    return operator new(bytes);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t /*bytes*/) noexcept {
  std::free(memory);
}
