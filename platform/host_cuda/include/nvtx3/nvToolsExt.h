#pragma once

// Profiler marks. There is no profiler here: the calls answer as they do on a machine without one. Tests can have the
// ranges noted, with start_range_notes() of <host_cuda/control.h>.

#define NVTX_NO_PUSH_POP_TRACKING (-2)

int nvtxRangePushA(const char* message);
int nvtxRangePop();
