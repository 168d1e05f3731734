#include "run_statistics.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace ostrel_host {
namespace {

using nlohmann::ordered_json;

ordered_json times(const std::vector<double>& values_ms) {
  return {{"count", values_ms.size()},
          {"median", quantile(values_ms, 0.5)},
          {"p95", quantile(values_ms, 0.95)},
          {"max", quantile(values_ms, 1.0)}};
}

ordered_json scores_json(const std::vector<double>& scores) {
  if (scores.empty()) return {{"mean", nullptr}, {"median", nullptr}};
  const double sum = std::accumulate(scores.begin(), scores.end(), 0.0);
  return {{"mean", sum / static_cast<double>(scores.size())}, {"median", quantile(scores, 0.5)}};
}

}  // namespace

double quantile(std::vector<double> values, double q) {
  if (values.empty()) return 0.0;
  std::sort(values.begin(), values.end());
  const double rank = std::ceil(std::clamp(q, 0.0, 1.0) * static_cast<double>(values.size()));
  return values[static_cast<std::size_t>(std::max(rank, 1.0)) - 1];
}

void RunStatistics::add_frame(const StepResult& result, bool armed) {
  ++frames_;
  ++statuses_[result.state.status];
  (armed ? tracking_ms_ : warm_up_ms_).push_back(result.update_ms);
  if (!result.published) return;
  ++published_;
  if (result.published->score > 0.0) scores_.push_back(result.published->score);
}

void RunStatistics::add_waiting_call(const StepResult& result) {
  warm_up_ms_.push_back(result.update_ms);
}

std::string RunStatistics::status_line() const {
  std::vector<std::pair<std::string, std::size_t>> sorted(statuses_.begin(), statuses_.end());
  std::stable_sort(sorted.begin(), sorted.end(),
                   [](const auto& a, const auto& b) { return a.second > b.second; });
  std::string line;
  for (const auto& [word, count] : sorted) {
    line += (line.empty() ? "" : ", ") + word + " " + std::to_string(count);
  }
  return line;
}

ordered_json RunStatistics::to_json() const {
  ordered_json summary;
  summary["frames"] = frames_;
  summary["published"] = published_;
  summary["init_ms"] = init_ms_;
  summary["ready_ms"] = ready_ms_ ? ordered_json(*ready_ms_) : ordered_json(nullptr);
  summary["wall_s"] = wall_s_;
  summary["fps"] = frames_per_second();
  summary["update_ms"] = times(tracking_ms_);
  summary["warm_up_update_ms"] = times(warm_up_ms_);
  summary["score"] = scores_json(scores_);
  summary["statuses"] = statuses_;
  summary["accuracy"] = accuracy_ ? to_json_report(*accuracy_) : ordered_json(nullptr);
  return summary;
}

}  // namespace ostrel_host
