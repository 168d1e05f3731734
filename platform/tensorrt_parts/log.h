// Lines to the logger that the caller gave to the runtime.
#pragma once

#include <NvInfer.h>

#include <exception>
#include <string>

namespace ostrel::tensorrt_parts {

// Writes "CALL: TEXT" at kERROR; never throws.
void log_error(nvinfer1::ILogger& logger, const char* call, const char* text) noexcept;
inline void log_error(nvinfer1::ILogger& logger, const char* call, const std::string& text) noexcept {
  log_error(logger, call, text.c_str());
}

// Calls body() and returns its result. An exception becomes a line at kERROR and `failed`.
template <typename Result, typename Body>
Result guarded(nvinfer1::ILogger& logger, const char* call, Result failed, Body&& body) noexcept {
  try {
    return body();
  } catch (const std::exception& failure) {
    log_error(logger, call, failure.what());
  } catch (...) {
    log_error(logger, call, "unknown failure");
  }
  return failed;
}

}  // namespace ostrel::tensorrt_parts
