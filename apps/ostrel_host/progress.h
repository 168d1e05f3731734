// Progress on the terminal, on standard error: a bar that is redrawn where that is a terminal, else a line whenever the
// status word, or the task, changes.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <string>

#include "plugin_session.h"

namespace ostrel_host {

// "[=====>    ] 120/240  28.4 fps  track_ok 0.71"; without a total the bar is left out.
std::string progress_line(std::size_t done, std::size_t total, double frames_per_second,
                          const StepResult& result);

// "[=====>    ] 1200/4800  3:05 left  Coke, csrt, run 1 of 3"; nothing of the time where it is below 0: not known.
std::string job_line(std::size_t done, std::size_t total, double left_s, const std::string& task);

class Progress {
 public:
  // Whether a change of the status word is told where there is no terminal for a bar.
  enum class Words { kTold, kToldElsewhere };

  // `total` is 0 where it is not known. `terminal` stays the caller's.
  explicit Progress(std::size_t total, Words words = Words::kTold, std::FILE* terminal = stderr);
  ~Progress() { finish(); }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void waiting(const StepResult& result);
  void frame(std::size_t done, double frames_per_second, const StepResult& result);
  // A job of several tasks, such as an evaluation; where there is no terminal for a bar, each new task is told.
  void job(std::size_t done, double left_s, const std::string& task);
  // Wipes the bar, so that a line of other output can take its place; the next frame draws it again.
  void clear();
  // Ends the line that the bar stands on, so that what follows has its own.
  void finish();

 private:
  void show(const std::string& line, const std::string& word);

  std::size_t total_;
  Words words_;
  std::FILE* terminal_;
  bool interactive_;
  bool line_open_ = false;
  std::string last_word_;
  std::chrono::steady_clock::time_point last_drawn_{};
};

}  // namespace ostrel_host
