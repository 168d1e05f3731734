// The logging macros of rclcpp: RCLCPP_INFO(logger, format, arguments...) and its sisters, printf formats. A
// message goes to rcutils' output handler (the console, standard error) with its level, time and logger name.
#pragma once

#include <rcutils/logging_macros.h>

#include <type_traits>

#include "rclcpp/logger.hpp"

// rcutils keeps a static location per call site, named with a double underscore; that is its own affair.
#define OSTREL_RCLCPP_LOG(log_macro, logger, ...)                                                    \
  do {                                                                                               \
    static_assert(                                                                                   \
        std::is_same_v<std::remove_cv_t<std::remove_reference_t<decltype(logger)>>, rclcpp::Logger>, \
        "First argument to logging macros must be an rclcpp::Logger");                               \
    log_macro((logger).get_name(), __VA_ARGS__);                                                     \
  } while (0)

#define RCLCPP_DEBUG(logger, ...) OSTREL_RCLCPP_LOG(RCUTILS_LOG_DEBUG_NAMED, logger, __VA_ARGS__)
#define RCLCPP_INFO(logger, ...) OSTREL_RCLCPP_LOG(RCUTILS_LOG_INFO_NAMED, logger, __VA_ARGS__)
#define RCLCPP_WARN(logger, ...) OSTREL_RCLCPP_LOG(RCUTILS_LOG_WARN_NAMED, logger, __VA_ARGS__)
#define RCLCPP_ERROR(logger, ...) OSTREL_RCLCPP_LOG(RCUTILS_LOG_ERROR_NAMED, logger, __VA_ARGS__)
#define RCLCPP_FATAL(logger, ...) OSTREL_RCLCPP_LOG(RCUTILS_LOG_FATAL_NAMED, logger, __VA_ARGS__)
