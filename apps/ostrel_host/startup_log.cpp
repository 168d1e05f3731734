#include "startup_log.h"

#include <fcntl.h>
#include <rcutils/error_handling.h>
#include <rcutils/logging.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <iostream>
#include <mutex>

namespace ostrel_host {
namespace {

struct Sink {
  std::mutex mutex;
  std::string cause;
  bool verbose = false;
  rcutils_logging_output_handler_t previous = nullptr;
};

Sink& sink() {
  static Sink instance;
  return instance;
}

std::string formatted(const char* format, va_list* arguments) {
  // The analyser cannot see that rcutils hands over a started list.
  va_list copy;
  va_copy(copy, *arguments);  // NOLINT(clang-analyzer-valist.Uninitialized)
  const int length = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  if (length < 0) return {};
  std::string text(static_cast<std::size_t>(length) + 1, '\0');
  va_copy(copy, *arguments);
  std::vsnprintf(text.data(), text.size(), format, copy);
  va_end(copy);
  text.pop_back();
  return text;
}

void receive(const rcutils_log_location_t* location, int severity, const char* name,
             rcutils_time_point_value_t timestamp, const char* format, va_list* arguments) {
  Sink& target = sink();
  const std::lock_guard<std::mutex> lock(target.mutex);
  const std::string cause = cause_in_line(formatted(format, arguments));
  if (!cause.empty()) target.cause = cause;
  if (target.verbose && target.previous != nullptr) {
    target.previous(location, severity, name, timestamp, format, arguments);
  }
}

void flush_stdout() {
  std::cout.flush();
  std::fflush(stdout);
}

}  // namespace

std::string cause_in_line(const std::string& line) {
  static const std::string kStatus = " status=", kDetail = " detail=", kEnd = " warmup_ms=";
  if (line.find("init_worker_result") == std::string::npos || line.find(" ok=0 ") == std::string::npos)
    return {};
  const std::size_t status = line.find(kStatus), detail = line.find(kDetail), end = line.rfind(kEnd);
  if (status == std::string::npos || detail == std::string::npos || end == std::string::npos) return {};
  const std::size_t word = status + kStatus.size(), text = detail + kDetail.size();
  if (detail < word || end < text) return {};
  return line.substr(word, detail - word) + " (" + line.substr(text, end - text) + ")";
}

StartupLog::StartupLog(IAlgoPlugin& plugin, bool verbose) : plugin_(plugin), verbose_(verbose) {
  // A failure leaves the handler in force as it is, and the cause of a failed start-up untold.
  if (rcutils_logging_initialize() != RCUTILS_RET_OK) rcutils_reset_error();
  Sink& target = sink();
  const std::lock_guard<std::mutex> lock(target.mutex);
  target.cause.clear();
  target.verbose = verbose;
  target.previous = rcutils_logging_get_output_handler();
  rcutils_logging_set_output_handler(receive);
  if (verbose) plugin_.enableDebug(true);
}

StartupLog::~StartupLog() {
  after_update();
  rcutils_logging_set_output_handler(sink().previous);
}

void StartupLog::before_update() {
  if (verbose_) return;
  flush_stdout();
  kept_stdout_ = dup(STDOUT_FILENO);
  const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (nowhere >= 0) {
    dup2(nowhere, STDOUT_FILENO);
    close(nowhere);
  }
  plugin_.enableDebug(true);
}

void StartupLog::after_update() {
  if (kept_stdout_ < 0) return;
  plugin_.enableDebug(false);
  flush_stdout();
  dup2(kept_stdout_, STDOUT_FILENO);
  close(kept_stdout_);
  kept_stdout_ = -1;
}

std::string StartupLog::cause() {
  const std::lock_guard<std::mutex> lock(sink().mutex);
  return sink().cause;
}

}  // namespace ostrel_host
