#include "tracker_log.h"

#include <fcntl.h>
#include <unistd.h>

#include "bad_input.h"

namespace ostrel_host {

TrackerLog::TrackerLog(const std::string& file) {
  const int log = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (log < 0) throw BadInput("'" + file + "' cannot be written");
  std::fflush(stderr);
  terminal_ = fdopen(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0), "w");
  dup2(log, STDERR_FILENO);
  close(log);
}

TrackerLog::~TrackerLog() {
  std::fflush(stderr);
  if (terminal_ == nullptr) return;
  std::fflush(terminal_);
  dup2(fileno(terminal_), STDERR_FILENO);
  std::fclose(terminal_);
}

}  // namespace ostrel_host
