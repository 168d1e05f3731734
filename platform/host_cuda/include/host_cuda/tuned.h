#pragma once

// Tuned host forms of kernels. A form computes what a whole launch computes, without blocks and threads:
//
//   void scale_tuned(const TunedLaunch& launch, const float* source, float scale, float* target, int n);
//   using Scale = void(const float*, float, float*, int);
//   const bool registered = register_tuned_kernel<Scale>("scale_kernel", scale_tuned);
//
// The key is the name and the function type, since two kernels may share a name. A form honours
// `threads_allowed`, and lets no result depend on it beyond float rounding.

#include <cstddef>
#include <functional>
#include <memory>
#include <type_traits>
#include <typeinfo>
#include <utility>

namespace ostrel::host_cuda {

struct TunedLaunch {
  unsigned grid;             // blocks
  unsigned block;            // threads per block
  std::size_t shared_bytes;  // dynamic shared memory of a block
  int threads_allowed;       // cores
};

namespace detail {

void add_tuned(const char* name, const std::type_info& type, std::shared_ptr<const void> form);
// Null where there is none, or while tuned forms are off.
const void* find_tuned(const char* name, const std::type_info& type);

template <typename Function>
struct TunedFormOf;
template <typename... Params>
struct TunedFormOf<void(Params...)> {
  using Type = std::function<void(const TunedLaunch&, Params...)>;
};

}  // namespace detail

// `Function` is the kernel's type (decltype(kernel), or a pointer to it). Returns true, for use in a static
// initialiser. A later form of the same key replaces the earlier one. Forms are never destroyed.
template <typename Function, typename Form>
bool register_tuned_kernel(const char* name, Form&& form) {
  using Plain = std::remove_pointer_t<std::decay_t<Function>>;
  using Tuned = typename detail::TunedFormOf<Plain>::Type;
  detail::add_tuned(name, typeid(Plain), std::make_shared<const Tuned>(std::forward<Form>(form)));
  return true;
}

}  // namespace ostrel::host_cuda
