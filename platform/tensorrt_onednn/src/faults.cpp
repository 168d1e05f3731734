#include "faults.h"

#include <host_cuda/control.h>

#include <cstdio>

namespace ostrel::tensorrt_onednn {

bool told_to_fail(nvinfer1::ILogger& logger, const char* call) noexcept {
  const int status = host_cuda::take_fault(call);
  if (status == 0) return false;
  char text[64];
  std::snprintf(text, sizeof(text), "told to fail with status %d", status);
  tensorrt_parts::log_error(logger, call, text);
  return true;
}

}  // namespace ostrel::tensorrt_onednn
