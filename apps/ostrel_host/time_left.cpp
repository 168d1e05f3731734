#include "time_left.h"

namespace ostrel_host {

void TimeLeft::add_work(const std::string& tracker, std::size_t frames) {
  work_[tracker].frames += frames;
  total_ += frames;
}

void TimeLeft::frame_done(const std::string& tracker, double seconds) {
  Work& work = work_[tracker];
  ++work.done;
  work.spent_s += seconds;
  ++done_;
  spent_s_ += seconds;
}

double TimeLeft::left_s() const {
  if (done_ == 0) return -1.0;
  double left_s = 0.0;
  for (const auto& [tracker, work] : work_) {
    const double pace_s =
        work.done > 0 ? work.spent_s / static_cast<double>(work.done) : spent_s_ / static_cast<double>(done_);
    if (work.frames > work.done) left_s += pace_s * static_cast<double>(work.frames - work.done);
  }
  return left_s;
}

}  // namespace ostrel_host
