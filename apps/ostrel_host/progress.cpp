#include "progress.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace ostrel_host {
namespace {

constexpr std::size_t kBarCells = 24;
constexpr std::chrono::milliseconds kRedrawInterval{100};

std::string bar(std::size_t done, std::size_t total) {
  const std::size_t filled = total == 0 ? kBarCells : std::min(kBarCells, kBarCells * done / total);
  std::string cells(filled, '=');
  if (filled < kBarCells) cells += '>';
  cells.resize(kBarCells, ' ');
  return "[" + cells + "] ";
}

// 0:07, 12:34, 1:02:03.
std::string duration(double seconds) {
  const long whole = std::lround(std::min(seconds, 1e9));
  char text[48];
  if (whole < 3600) {
    std::snprintf(text, sizeof text, "%ld:%02ld", whole / 60, whole % 60);
  } else {
    std::snprintf(text, sizeof text, "%ld:%02ld:%02ld", whole / 3600, whole / 60 % 60, whole % 60);
  }
  return text;
}

}  // namespace

std::string progress_line(std::size_t done, std::size_t total, double frames_per_second,
                          const StepResult& result) {
  std::string line = total > 0 ? bar(done, total) : "";
  line += std::to_string(done) + (total > 0 ? "/" + std::to_string(total) : "");
  char tail[160];
  std::snprintf(tail, sizeof tail, "  %.1f fps  %s", frames_per_second, result.state.status.c_str());
  line += tail;
  if (result.published) {
    std::snprintf(tail, sizeof tail, " %.2f", result.published->score);
    line += tail;
  }
  return line;
}

std::string job_line(std::size_t done, std::size_t total, double left_s, const std::string& task) {
  std::string line = bar(done, total) + std::to_string(done) + "/" + std::to_string(total);
  if (left_s >= 0.0) line += "  " + duration(left_s) + " left";
  return line + "  " + task;
}

Progress::Progress(std::size_t total, Words words, std::FILE* terminal)
    : total_(total), words_(words), terminal_(terminal), interactive_(isatty(fileno(terminal)) != 0) {}

void Progress::waiting(const StepResult& result) {
  show("waiting: " + result.state.status, result.state.status);
}

void Progress::frame(std::size_t done, double frames_per_second, const StepResult& result) {
  show(progress_line(done, total_, frames_per_second, result), result.state.status);
}

void Progress::job(std::size_t done, double left_s, const std::string& task) {
  show(job_line(done, total_, left_s, task), task);
}

void Progress::show(const std::string& line, const std::string& word) {
  const bool changed = word != last_word_;
  last_word_ = word;
  if (!interactive_) {
    if (!changed || words_ != Words::kTold) return;
    std::fprintf(terminal_, "%s\n", line.c_str());
    std::fflush(terminal_);  // a stream of our own is buffered where it is no terminal
    return;
  }
  const auto now = std::chrono::steady_clock::now();
  if (!changed && now - last_drawn_ < kRedrawInterval) return;
  last_drawn_ = now;
  line_open_ = true;
  std::fprintf(terminal_, "\r%s\x1b[K", line.c_str());
  std::fflush(terminal_);
}

void Progress::clear() {
  if (!line_open_) return;
  std::fputs("\r\x1b[K", terminal_);
  std::fflush(terminal_);
  line_open_ = false;
  last_drawn_ = {};
}

void Progress::finish() {
  if (line_open_) std::fputc('\n', terminal_);
  line_open_ = false;
}

}  // namespace ostrel_host
