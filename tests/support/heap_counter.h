#pragma once

// How many heap allocations (operator new) this process has made, on all threads. Link
// `ostrel_test_heap_counter` for it: the library replaces operator new and delete.
namespace ostrel_test {

long heap_allocations();

}  // namespace ostrel_test
