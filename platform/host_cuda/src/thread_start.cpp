// The seam by which tests make the start of a thread fail: std::thread and std::async come through this
// member function of libstdc++, which stands before the library's own in the order of symbols. Threads of the
// stand-in start with pthread_create and do not pass here.

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <system_error>
#include <thread>
#include <utility>

#include "host_cuda/control.h"

namespace {

// The member function as a plain one: `this` and the argument passed by a non-trivial type are both pointers.
using StartThread = void (*)(std::thread* self, void* state, void (*depend)());

StartThread library_start_thread() {
  const char* name = "_ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE";
  static const StartThread start = reinterpret_cast<StartThread>(dlsym(RTLD_NEXT, name));
  if (start == nullptr) {
    std::fprintf(stderr, "host_cuda: the C++ library has no %s\n", name);
    std::abort();
  }
  return start;
}

}  // namespace

void std::thread::_M_start_thread(_State_ptr state, void (*depend)()) {
  const int fault = ostrel::host_cuda::take_fault("pthread_create");
  if (fault != 0) throw std::system_error(fault, std::generic_category());
  library_start_thread()(this, &state, depend);
}
