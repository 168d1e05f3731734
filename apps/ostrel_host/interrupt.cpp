#include "interrupt.h"

#include <csignal>

namespace ostrel_host {
namespace {

volatile std::sig_atomic_t g_interrupted = 0;

}  // namespace

void stop_on_interrupt() {
  std::signal(SIGINT, [](int) { g_interrupted = 1; });
}

bool interrupted() {
  return g_interrupted != 0;
}

}  // namespace ostrel_host
