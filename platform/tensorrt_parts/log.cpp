#include "log.h"

#include <cstdio>

namespace ostrel::tensorrt_parts {

void log_error(nvinfer1::ILogger& logger, const char* call, const char* text) noexcept {
  char line[512];
  std::snprintf(line, sizeof(line), "%s: %s", call, text);
  logger.log(nvinfer1::ILogger::Severity::kERROR, line);
}

}  // namespace ostrel::tensorrt_parts
