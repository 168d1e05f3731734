#pragma once

// Profiler marks: there is no profiler here, the calls do nothing.

inline int nvtxRangePushA(const char* /*message*/) {
  return 0;
}
inline int nvtxRangePop() {
  return 0;
}
inline void nvtxMarkA(const char* /*message*/) {}
