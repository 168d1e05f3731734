#include "plugin_log.h"

#include <fcntl.h>
#include <rcutils/error_handling.h>
#include <rcutils/logging.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <utility>

namespace ostrel_host {
namespace {

struct Sink {
  std::mutex mutex;
  std::string cause;
  LogNews news;
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
  va_copy(copy, *arguments);                                    // NOLINT(clang-analyzer-valist.Uninitialized)
  const int length = std::vsnprintf(nullptr, 0, format, copy);  // NOLINT(clang-analyzer-valist.Uninitialized)
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
  const std::string line = formatted(format, arguments);
  const std::string cause = cause_in_line(line);
  if (!cause.empty()) target.cause = cause;
  add_news(line, &target.news);
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

void add_news(const std::string& line, LogNews* news) {
  static const std::string kStatus = " status=", kDetail = " detail=", kFactor = " scale_factor=";
  const auto is = [&](const char* event) { return line.find(std::string("[TRACK_FLOW][OT] ") + event) == 0; };
  if (is("runtime_status ")) {
    const std::size_t status = line.find(kStatus), detail = line.find(kDetail);
    if (status == std::string::npos || detail == std::string::npos || detail < status) return;
    const std::size_t word = status + kStatus.size();
    const std::string text = line.substr(detail + kDetail.size());
    news->words.push_back({line.substr(word, detail - word), text == "-" ? "" : text});
  } else if (is("zoom_changed ")) {
    const std::size_t factor = line.find(kFactor);
    if (factor == std::string::npos) return;
    news->zoom_factors.push_back(std::strtod(line.c_str() + factor + kFactor.size(), nullptr));
  }
}

PluginLog::PluginLog(IAlgoPlugin& plugin, bool verbose) : plugin_(plugin), verbose_(verbose) {
  // A failure leaves the handler in force as it is, and the cause of a failed start-up untold.
  if (rcutils_logging_initialize() != RCUTILS_RET_OK) rcutils_reset_error();
  Sink& target = sink();
  const std::lock_guard<std::mutex> lock(target.mutex);
  target.cause.clear();
  target.news = {};
  target.verbose = verbose;
  target.previous = rcutils_logging_get_output_handler();
  rcutils_logging_set_output_handler(receive);
  if (verbose) plugin_.enableDebug(true);
}

PluginLog::~PluginLog() {
  after_update();
  rcutils_logging_set_output_handler(sink().previous);
}

void PluginLog::before_update() {
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

void PluginLog::after_update() {
  if (kept_stdout_ < 0) return;
  plugin_.enableDebug(false);
  flush_stdout();
  dup2(kept_stdout_, STDOUT_FILENO);
  close(kept_stdout_);
  kept_stdout_ = -1;
}

LogNews PluginLog::take_news() {
  const std::lock_guard<std::mutex> lock(sink().mutex);
  return std::exchange(sink().news, {});
}

std::string PluginLog::cause() {
  const std::lock_guard<std::mutex> lock(sink().mutex);
  return sink().cause;
}

}  // namespace ostrel_host
