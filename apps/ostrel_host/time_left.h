// How long a job of several trackers still takes: each has a pace of its own.
#pragma once

#include <cstddef>
#include <map>
#include <string>

namespace ostrel_host {

class TimeLeft {
 public:
  void add_work(const std::string& tracker, std::size_t frames);

  // A frame of that tracker is done, and it took so long with everything about it.
  void frame_done(const std::string& tracker, double seconds);

  std::size_t total() const { return total_; }
  std::size_t done() const { return done_; }

  // A tracker that has not run yet counts with the mean pace of those that have; below 0 as long as none has.
  double left_s() const;

 private:
  struct Work {
    std::size_t frames = 0;
    std::size_t done = 0;
    double spent_s = 0.0;
  };

  std::map<std::string, Work> work_;
  std::size_t total_ = 0;
  std::size_t done_ = 0;
  double spent_s_ = 0.0;
};

}  // namespace ostrel_host
