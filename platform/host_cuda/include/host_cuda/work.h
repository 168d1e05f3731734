#pragma once

// Work for a stream without a heap allocation where it runs at once.

#include <cuda_runtime.h>

#include <functional>
#include <utility>

namespace ostrel::host_cuda::detail {

// A callable held by the caller. `run` calls it in place; `detach` moves it out for later.
struct Work {
  void* object;
  void (*run)(void* object);
  std::function<void()> (*detach)(void* object);
};

template <typename Callable>
Work make_work(Callable& callable) {
  return {&callable, [](void* object) { (*static_cast<Callable*>(object))(); },
          [](void* object) { return std::function<void()>(std::move(*static_cast<Callable*>(object))); }};
}

cudaError_t submit(cudaStream_t stream, const char* name, const Work& work);

}  // namespace ostrel::host_cuda::detail
