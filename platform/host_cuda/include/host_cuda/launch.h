#pragma once

// Kernels on the host: the side of <cuda_launch.h> without a GPU. Include that one.

#include <cuda_runtime.h>

#include <array>
#include <cmath>
#include <cstddef>
#include <tuple>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include <host_cuda/parallel.h>
#include <host_cuda/tuned.h>
#include <host_cuda/work.h>

namespace ostrel::host_cuda::detail {

struct BlockState {
  int index;
  int threads;
  int grid;
  void* shared;   // filled with 0xFF at the start of each block
  bool permuted;  // threads run in the order of thread_permutation()
};

// The block that runs on this thread.
const BlockState& current_block();

// A fresh order of the threads of a phase, valid on this thread until the next call.
const int* thread_permutation(int threads);

struct KernelShape {
  const char* name;
  unsigned grid;
  unsigned block;
  std::size_t shared_bytes;
  cudaStream_t stream;
};

// Checks faults, shape, stream and pointers, then submits the work; sets and returns the last error.
cudaError_t launch(const KernelShape& shape, const void* const* pointers, std::size_t pointer_count,
                   const Work& work);

// Calls `call(object)` once per block, with current_block() set, over the cores that the stream allows.
void run_blocks(const KernelShape& shape, void* object, void (*call)(void* object));

// The arguments of one launch, copied, with what runs them.
template <typename... Params>
struct Launch {
  using Tuned = typename TunedFormOf<void(Params...)>::Type;

  KernelShape shape;
  void (*kernel)(Params...);
  const Tuned* tuned;
  std::tuple<Params...> arguments;

  void operator()() {
    if (tuned != nullptr) {
      run_tuned();
    } else {
      run_blocks(shape, this, [](void* self) { static_cast<Launch*>(self)->run_block(); });
    }
  }

  void run_block() const { std::apply(kernel, arguments); }

  void run_tuned() const {
    const TunedLaunch launch_shape{shape.grid, shape.block, shape.shared_bytes, threads_allowed()};
    std::apply([&](const Params&... values) { (*tuned)(launch_shape, values...); }, arguments);
  }

  // Pointer arguments, null for the others.
  std::array<const void*, sizeof...(Params) + 1> pointers() const {
    return std::apply(
        [](const Params&... values) {
          return std::array<const void*, sizeof...(Params) + 1>{pointer_or_null(values)..., nullptr};
        },
        arguments);
  }

  template <typename T>
  static const void* pointer_or_null([[maybe_unused]] const T& value) {
    if constexpr (std::is_pointer_v<T>) {
      return value;
    } else {
      return nullptr;
    }
  }
};

}  // namespace ostrel::host_cuda::detail

namespace ostrel::launch {

class Block {
 public:
  explicit Block(const host_cuda::detail::BlockState& state) : state_(state) {}

  int index() const { return state_.index; }
  int threads() const { return state_.threads; }
  int grid() const { return state_.grid; }

  template <typename T>
  T* dynamic_shared() const {
    return static_cast<T*>(state_.shared);
  }

  template <typename Phase>
  void for_each_thread(Phase&& phase) const {
    if (state_.permuted) {
      const int* order = host_cuda::detail::thread_permutation(state_.threads);
      for (int i = 0; i < state_.threads; ++i) phase(order[i]);
      return;
    }
    for (int thread = 0; thread < state_.threads; ++thread) phase(thread);
  }

 private:
  host_cuda::detail::BlockState state_;
};

inline Block this_block() {
  return Block(host_cuda::detail::current_block());
}

inline void atomic_add(double* target, double value) {
  double expected;
  __atomic_load(target, &expected, __ATOMIC_RELAXED);
  double desired = expected + value;
  while (!__atomic_compare_exchange(target, &expected, &desired, true, __ATOMIC_RELAXED, __ATOMIC_RELAXED)) {
    desired = expected + value;
  }
}

inline float exp2_fast(float x) {
  return std::exp2(x);
}

template <typename... Params, typename... Args>
cudaError_t launch_kernel(const char* name, void (*kernel)(Params...), unsigned grid, unsigned block,
                          std::size_t shared_bytes, cudaStream_t stream, Args&&... args) {
  static_assert(sizeof...(Params) == sizeof...(Args), "one argument for each parameter of the kernel");
  using Launch = host_cuda::detail::Launch<Params...>;
  const auto* tuned = static_cast<const typename Launch::Tuned*>(
      host_cuda::detail::find_tuned(name, typeid(void(Params...))));
  Launch launch{{name, grid, block, shared_bytes, stream},
                kernel,
                tuned,
                std::tuple<Params...>(static_cast<Params>(std::forward<Args>(args))...)};
  const auto pointers = launch.pointers();
  return host_cuda::detail::launch(launch.shape, pointers.data(), pointers.size(),
                                   host_cuda::detail::make_work(launch));
}

}  // namespace ostrel::launch
