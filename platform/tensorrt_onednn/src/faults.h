// Failures that a test brings about.
#pragma once

#include <log.h>

namespace ostrel::tensorrt_onednn {

// True, with a line, when a test wants this call to fail.
bool told_to_fail(nvinfer1::ILogger& logger, const char* call) noexcept;

}  // namespace ostrel::tensorrt_onednn
