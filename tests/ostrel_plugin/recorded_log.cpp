#include "ostrel_plugin/recorded_log.h"

#include <gtest/gtest.h>
#include <rcutils/logging.h>
#include <regex.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <mutex>
#include <utility>

namespace ostrel_test {
namespace {

struct LogLine {
  int severity;
  std::string name;
  std::string text;
};

struct Sink {
  std::mutex mutex;
  std::vector<LogLine> lines;
  rcutils_logging_output_handler_t previous = nullptr;
};

Sink& sink() {
  static Sink instance;
  return instance;
}

void record(const rcutils_log_location_t*, int severity, const char* name, rcutils_time_point_value_t,
            const char* format, va_list* arguments) {
  char text[2048];
  std::vsnprintf(text, sizeof text, format, *arguments);
  const std::lock_guard<std::mutex> lock(sink().mutex);
  sink().lines.push_back({severity, name, text});
}

std::vector<std::string> linesOf(int severity) {
  const std::lock_guard<std::mutex> lock(sink().mutex);
  std::vector<std::string> texts;
  for (const LogLine& line : sink().lines) {
    EXPECT_EQ(line.name, "OstrelAlgo");
    EXPECT_TRUE(line.severity == RCUTILS_LOG_SEVERITY_INFO || line.severity == RCUTILS_LOG_SEVERITY_WARN);
    if (line.severity == severity) texts.push_back(line.text);
  }
  return texts;
}

}  // namespace

RecordedLog::RecordedLog() : previous_(std::cout.rdbuf(console_.rdbuf())) {
  EXPECT_EQ(rcutils_logging_initialize(), RCUTILS_RET_OK);
  const std::lock_guard<std::mutex> lock(sink().mutex);
  sink().lines.clear();
  sink().previous = rcutils_logging_get_output_handler();
  rcutils_logging_set_output_handler(record);
}

RecordedLog::~RecordedLog() {
  std::cout.rdbuf(previous_);
  rcutils_logging_set_output_handler(sink().previous);
}

std::vector<std::string> RecordedLog::infos() const {
  return linesOf(RCUTILS_LOG_SEVERITY_INFO);
}

std::vector<std::string> RecordedLog::warnings() const {
  return linesOf(RCUTILS_LOG_SEVERITY_WARN);
}

std::vector<std::string> RecordedLog::console() const {
  const std::string prefix = "[AlgoPlugin INFO] [OstrelAlgo] ";
  std::vector<std::string> lines;
  std::istringstream text(console_.str());
  for (std::string line; std::getline(text, line);) {
    EXPECT_EQ(line.substr(0, prefix.size()), prefix);
    lines.push_back(line.substr(prefix.size()));
  }
  return lines;
}

std::string RecordedLog::consoleText() const {
  return console_.str();
}

void RecordedLog::clear() {
  console_.str("");
  const std::lock_guard<std::mutex> lock(sink().mutex);
  sink().lines.clear();
}

bool readsLike(const std::string& text, const std::string& pattern) {
  static const std::pair<std::string, std::string> marks[] = {
      {"<n>", "-?[0-9]+"}, {"<f>", "-?[0-9]+[.][0-9]{3}"}, {"<p>", "0x[0-9a-f]+"}, {"<*>", ".*"}};
  std::string expression = "^";
  for (std::size_t at = 0; at < pattern.size();) {
    const auto mark = std::find_if(std::begin(marks), std::end(marks), [&](const auto& each) {
      return pattern.compare(at, each.first.size(), each.first) == 0;
    });
    if (mark != std::end(marks)) {
      expression += mark->second;
      at += mark->first.size();
      continue;
    }
    if (std::strchr(".^$|()[]{}*+?\\", pattern[at]) != nullptr) expression += '\\';
    expression += pattern[at++];
  }
  expression += '$';
  regex_t compiled;
  if (regcomp(&compiled, expression.c_str(), REG_EXTENDED | REG_NOSUB) != 0) return false;
  const bool matches = regexec(&compiled, text.c_str(), 0, nullptr, 0) == 0;
  regfree(&compiled);
  return matches;
}

}  // namespace ostrel_test
