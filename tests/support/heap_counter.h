#pragma once

#include <cstddef>

// How many heap allocations (operator new) this process has made, on all threads. Link
// `ostrel_test_heap_counter` for it: the library replaces operator new and delete.
namespace ostrel_test {

long heap_allocations();

/// Makes every allocation of exactly this size throw std::bad_alloc, on all threads, until called with 0.
void fail_heap_allocations_of(std::size_t bytes);

}  // namespace ostrel_test
