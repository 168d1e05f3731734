// What the plug-in tells in its log and nowhere else. `property` shows the last word of a call; words that pass within
// one call, the cause of a failed start-up and the zoom notices are lines of the log only. So debug output is on during
// a call, caught here, and off again afterwards.
#pragma once

#include <IAlgoPlugin.h>

#include <string>
#include <vector>

namespace ostrel_host {

// A status word as the plug-in set it.
struct StatusWord {
  std::string status;
  std::string detail;

  bool operator==(const StatusWord& other) const { return status == other.status && detail == other.detail; }
};

// What one call told.
struct LogNews {
  std::vector<StatusWord> words;     // in their order; "track_ok" is never told
  std::vector<double> zoom_factors;  // of the zoom steps that the tracker was notified of
};

// While one lives, log lines of the process come here first. One at a time.
class PluginLog {
 public:
  // With `verbose` debug output stays on, and everything is also printed.
  PluginLog(IAlgoPlugin& plugin, bool verbose);
  ~PluginLog();
  PluginLog(const PluginLog&) = delete;
  PluginLog& operator=(const PluginLog&) = delete;

  // Brackets one call of `update`; in between standard output is silent unless verbose.
  void before_update();
  void after_update();

  // What came since the last call of this.
  static LogNews take_news();

  // "status (detail)" of a failed start-up, empty as long as none was told.
  static std::string cause();

 private:
  IAlgoPlugin& plugin_;
  bool verbose_;
  int kept_stdout_ = -1;
};

// The cause in one line of the plug-in's log, empty for any other line.
std::string cause_in_line(const std::string& line);

// Adds what a line of the plug-in's log tells of words and zoom steps, if anything.
void add_news(const std::string& line, LogNews* news);

}  // namespace ostrel_host
