#pragma once

#include <cstdint>

#include "host_cuda/control.h"

// How the runtime counts. Every function takes the store's own lock.

namespace ostrel::host_cuda::detail {

void count_call(const char* name);
void count_launch(const char* kernel);
void count_enqueued(const char* name);
void count(std::int64_t Counters::*counter, std::int64_t by = 1);

// As take_fault, for kernels, which are no calls and are counted by their launches.
int take_fault_uncounted(const char* name);

}  // namespace ostrel::host_cuda::detail
