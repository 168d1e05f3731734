// What summary.json says about a run.
#pragma once

#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "accuracy.h"
#include "plugin_session.h"

namespace ostrel_host {

// The q-quantile (0 to 1) of the values by nearest rank, 0 for none.
double quantile(std::vector<double> values, double q);

class RunStatistics {
 public:
  void set_init_ms(double init_ms) { init_ms_ = init_ms; }
  void set_ready_ms(double ready_ms) { ready_ms_ = ready_ms; }
  void set_wall_s(double wall_s) { wall_s_ = wall_s; }
  void set_accuracy(const AccuracyReport& accuracy) { accuracy_ = accuracy; }

  // A frame's answer; `armed` tells whether the plug-in was tracking when it came back.
  void add_frame(const StepResult& result, bool armed);
  // A repeated call that is no frame of its own.
  void add_waiting_call(const StepResult& result);

  std::size_t frames() const { return frames_; }
  double frames_per_second() const { return wall_s_ > 0.0 ? static_cast<double>(frames_) / wall_s_ : 0.0; }
  double median_update_ms() const { return quantile(tracking_ms_, 0.5); }
  const std::optional<AccuracyReport>& accuracy() const { return accuracy_; }
  bool ever_armed() const { return ready_ms_.has_value(); }

  // "track_ok 235, track_fail_hold 5", most frequent first.
  std::string status_line() const;

  // frames, published, init_ms, ready_ms (null when never armed), wall_s, fps, update_ms and warm_up_update_ms (count,
  // median, p95, max), score (mean, median of published boxes with a score above 0), statuses (frames by word),
  // accuracy (null without ground truth).
  nlohmann::ordered_json to_json() const;

 private:
  std::size_t frames_ = 0;
  std::size_t published_ = 0;
  std::map<std::string, std::size_t> statuses_;
  std::vector<double> tracking_ms_;
  std::vector<double> warm_up_ms_;
  std::vector<double> scores_;
  double init_ms_ = 0.0;
  std::optional<double> ready_ms_;
  double wall_s_ = 0.0;
  std::optional<AccuracyReport> accuracy_;
};

}  // namespace ostrel_host
