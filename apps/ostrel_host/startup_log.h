// Why a start-up failed. The plug-in tells the cause in its log; in `property` the next word of the same call has
// taken its place. So debug output is on during warm-up, caught here, and off again afterwards.
#pragma once

#include <IAlgoPlugin.h>

#include <string>

namespace ostrel_host {

// While one lives, log lines of the process come here first. One at a time.
class StartupLog {
 public:
  // With `verbose` debug output stays on, and everything is also printed.
  StartupLog(IAlgoPlugin& plugin, bool verbose);
  ~StartupLog();
  StartupLog(const StartupLog&) = delete;
  StartupLog& operator=(const StartupLog&) = delete;

  // Brackets one call of `update`; in between standard output is silent unless verbose.
  void before_update();
  void after_update();

  // "status (detail)" of a failed start-up, empty as long as none was told.
  static std::string cause();

 private:
  IAlgoPlugin& plugin_;
  bool verbose_;
  int kept_stdout_ = -1;
};

// The cause in one line of the plug-in's log, empty for any other line.
std::string cause_in_line(const std::string& line);

}  // namespace ostrel_host
