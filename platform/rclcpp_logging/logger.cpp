#include "rclcpp/logger.hpp"

#include <rcutils/error_handling.h>
#include <rcutils/logging.h>

#include <stdexcept>

namespace rclcpp {

Logger get_logger(const std::string& name) {
  return Logger(name);
}

void Logger::set_level(Level level) {
  if (rcutils_logging_set_logger_level(get_name(), static_cast<int>(level)) != RCUTILS_RET_OK) {
    const std::string reason = rcutils_get_error_string().str;
    rcutils_reset_error();
    throw std::invalid_argument("logger '" + name_ + "': " + reason);
  }
}

Logger::Level Logger::get_effective_level() const {
  return static_cast<Level>(rcutils_logging_get_logger_effective_level(get_name()));
}

}  // namespace rclcpp
