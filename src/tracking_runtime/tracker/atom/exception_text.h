#pragma once

#include <exception>
#include <string>

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// The text of the exception in flight, "unknown" for one that is no std::exception. Inside a handler only.
inline std::string current_exception_text() {
  try {
    throw;
  } catch (const std::exception& exception) {
    return exception.what();
  } catch (...) {
    return "unknown";
  }
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
