#pragma once

#include <host_cuda/tuned.h>

namespace ostrel::host_cuda::tuned {

// Cores worth using for `pieces` pieces of `products` multiplications each: waking a core costs some
// microseconds, in which one core does as many products as the limit.
inline int threads_worth(const TunedLaunch& launch, int pieces, int products) {
  constexpr double kProductsWorthACore = 500'000.0;
  const double total = static_cast<double>(pieces) * static_cast<double>(products);
  return total < 2.0 * kProductsWorthACore ? 1 : launch.threads_allowed;
}

}  // namespace ostrel::host_cuda::tuned
