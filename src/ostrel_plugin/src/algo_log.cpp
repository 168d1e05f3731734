#include "ostrel_plugin/src/algo_log.h"

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <iostream>
#include <rclcpp/logger.hpp>
#include <rclcpp/logging.hpp>

namespace ostrel_algo_internal {
namespace {

constexpr const char* kLoggerName = "OstrelAlgo";

}  // namespace

std::string formatText(const char* format, ...) {
  std::va_list first_pass;
  va_start(first_pass, format);
  std::va_list second_pass;
  va_copy(second_pass, first_pass);
  const int length = std::vsnprintf(nullptr, 0, format, first_pass);
  va_end(first_pass);

  std::string text;
  if (length > 0) {
    text.resize(static_cast<std::size_t>(length));
    std::vsnprintf(text.data(), text.size() + 1, format, second_pass);
  }
  va_end(second_pass);
  return text;
}

void writeConsole(const std::string& plugin_name, const std::string& message) {
  // One insertion, so that lines of several plug-ins do not mix.
  std::cout << ("[AlgoPlugin INFO] [" + plugin_name + "] " + message + "\n") << std::flush;
}

void writeLogInfo(const std::string& message) {
  RCLCPP_INFO(rclcpp::get_logger(kLoggerName), "%s", message.c_str());
}

void writeLogWarning(const std::string& message) {
  RCLCPP_WARN(rclcpp::get_logger(kLoggerName), "%s", message.c_str());
}

}  // namespace ostrel_algo_internal
