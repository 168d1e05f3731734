// The tracker writes about itself to standard error, start-up by start-up and training by training. Between a story and
// a progress bar that is noise, so a run can keep it in a file.
#pragma once

#include <cstdio>
#include <string>

namespace ostrel_host {

// While one lives, standard error of the whole process goes to a file. One at a time.
class TrackerLog {
 public:
  // Throws BadInput where the file cannot be written.
  explicit TrackerLog(const std::string& file);
  ~TrackerLog();
  TrackerLog(const TrackerLog&) = delete;
  TrackerLog& operator=(const TrackerLog&) = delete;

  // Standard error as it was.
  std::FILE* terminal() const { return terminal_; }

 private:
  std::FILE* terminal_ = nullptr;
};

}  // namespace ostrel_host
