#include "log.h"

#include <host_cuda/control.h>

#include <cstdio>

namespace ostrel::tensorrt_onednn {

void log_error(nvinfer1::ILogger& logger, const char* call, const char* text) noexcept {
  char line[512];
  std::snprintf(line, sizeof(line), "%s: %s", call, text);
  logger.log(nvinfer1::ILogger::Severity::kERROR, line);
}

bool told_to_fail(nvinfer1::ILogger& logger, const char* call) noexcept {
  const int status = host_cuda::take_fault(call);
  if (status == 0) return false;
  char text[64];
  std::snprintf(text, sizeof(text), "told to fail with status %d", status);
  log_error(logger, call, text);
  return true;
}

}  // namespace ostrel::tensorrt_onednn
