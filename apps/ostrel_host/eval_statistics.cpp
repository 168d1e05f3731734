#include "eval_statistics.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <set>

namespace ostrel_host {
namespace {

using Records = std::vector<const EvalRecord*>;

double share_of(std::size_t count, std::size_t all) {
  return all == 0 ? 0.0 : static_cast<double>(count) / static_cast<double>(all);
}

std::optional<double> calls_per_second(const std::vector<PassFrame>& frames) {
  double sum_ms = 0.0;
  std::size_t calls = 0;
  for (const PassFrame& frame : frames) {
    if (!frame.update_ms) continue;
    sum_ms += *frame.update_ms;
    ++calls;
  }
  if (calls == 0 || sum_ms <= 0.0) return std::nullopt;
  return 1000.0 * static_cast<double>(calls) / sum_ms;
}

double mean_of(const std::vector<double>& values) {
  return std::accumulate(values.begin(), values.end(), 0.0) / static_cast<double>(values.size());
}

Records matching(const std::vector<EvalRecord>& records, const std::string& sequence,
                 const std::string& tracker) {
  Records found;
  for (const EvalRecord& record : records) {
    if (record.sequence == sequence && record.tracker == tracker) found.push_back(&record);
  }
  return found;
}

std::vector<double> values_of(const Records& records, const EvalFigure& figure) {
  std::vector<double> values;
  for (const EvalRecord* record : records) {
    if (const auto value = figure.of(*record)) values.push_back(*value);
  }
  return values;
}

EvalRow sequence_row(const Records& records) {
  EvalRow row;
  row.sequence = records.front()->sequence;
  row.tracker = records.front()->tracker;
  row.runs = records.size();
  row.frames = records.front()->accuracy.frames;
  for (std::size_t i = 0; i < kEvalFigures; ++i) {
    row.figures[i] = spread_of(values_of(records, eval_figures()[i]));
  }
  return row;
}

// The records of a tracker by sequence; sequences without any are left out.
std::vector<Records> by_sequence(const std::vector<EvalRecord>& records,
                                 const std::vector<std::string>& sequences, const std::string& tracker) {
  std::vector<Records> groups;
  for (const std::string& sequence : sequences) {
    Records found = matching(records, sequence, tracker);
    if (!found.empty()) groups.push_back(std::move(found));
  }
  return groups;
}

// The runs that have a record in every one of all sequences.
std::set<int> complete_runs(const std::vector<Records>& groups, std::size_t all_sequences) {
  std::set<int> runs;
  if (groups.size() < all_sequences) return runs;
  for (const EvalRecord* record : groups.front()) {
    const bool everywhere = std::all_of(groups.begin(), groups.end(), [&](const Records& group) {
      return std::any_of(group.begin(), group.end(),
                         [&](const EvalRecord* other) { return other->run == record->run; });
    });
    if (everywhere) runs.insert(record->run);
  }
  return runs;
}

std::vector<double> means_of_runs(const std::vector<Records>& groups, const std::set<int>& runs,
                                  const EvalFigure& figure) {
  std::vector<double> means;
  for (const int run : runs) {
    Records of_run;
    for (const Records& group : groups) {
      std::copy_if(group.begin(), group.end(), std::back_inserter(of_run),
                   [run](const EvalRecord* record) { return record->run == run; });
    }
    const std::vector<double> values = values_of(of_run, figure);
    if (!values.empty()) means.push_back(mean_of(values));
  }
  return means;
}

std::optional<Spread> spread_over_sequences(const std::vector<Records>& groups, const std::set<int>& runs,
                                            const EvalFigure& figure) {
  std::vector<double> means;
  for (const Records& group : groups) {
    const std::vector<double> values = values_of(group, figure);
    if (!values.empty()) means.push_back(mean_of(values));
  }
  std::optional<Spread> spread = spread_of(means);
  if (!spread) return spread;
  const auto over_runs = spread_of(means_of_runs(groups, runs, figure));
  spread->deviation = over_runs ? over_runs->deviation : std::nullopt;
  return spread;
}

EvalRow mean_row(const std::vector<Records>& groups, std::size_t all_sequences) {
  EvalRow row;
  row.tracker = groups.front().front()->tracker;
  row.sequences = groups.size();
  for (const Records& group : groups) row.frames += group.front()->accuracy.frames;
  const std::set<int> runs = complete_runs(groups, all_sequences);
  row.runs = runs.size();
  for (std::size_t i = 0; i < kEvalFigures; ++i) {
    row.figures[i] = spread_over_sequences(groups, runs, eval_figures()[i]);
  }
  return row;
}

template <std::size_t n>
void add(const std::array<double, n>& curve, double weight, std::array<double, n>* sum) {
  for (std::size_t i = 0; i < n; ++i) (*sum)[i] += weight * curve[i];
}

EvalCurves mean_curves(const std::vector<Records>& groups) {
  EvalCurves curves;
  curves.tracker = groups.front().front()->tracker;
  for (const Records& group : groups) {
    const double weight = 1.0 / static_cast<double>(groups.size() * group.size());
    for (const EvalRecord* record : group) {
      add(record->accuracy.success, weight, &curves.success);
      add(record->accuracy.precision, weight, &curves.precision);
    }
  }
  return curves;
}

}  // namespace

EvalRecord judge_pass(const Pass& pass, const Sequence& sequence, const std::string& tracker, int run) {
  EvalRecord record;
  record.sequence = sequence.name;
  record.tracker = tracker;
  record.run = run;
  record.frames = pass.frames.size();
  std::vector<cv::Rect2d> boxes;
  std::size_t held = 0, hidden = 0;
  for (const PassFrame& frame : pass.frames) {
    boxes.push_back(frame.box);
    if (frame.held) ++held;
    if (!has_size(frame.box)) ++hidden;
  }
  record.accuracy = score_boxes(boxes, sequence.truth);
  if (!pass.own_boxes.empty()) record.own_accuracy = score_boxes(pass.own_boxes, sequence.truth);
  record.fps = calls_per_second(pass.frames);
  record.start_up_ms = pass.start_up_ms;
  record.held = share_of(held, pass.frames.size());
  record.hidden = share_of(hidden, pass.frames.size());
  return record;
}

const std::array<EvalFigure, kEvalFigures>& eval_figures() {
  using Value = std::optional<double>;
  static const std::array<EvalFigure, kEvalFigures> figures{{
      {"success_auc", [](const EvalRecord& r) { return Value(r.accuracy.success_auc); }},
      {"precision_20px", [](const EvalRecord& r) { return Value(r.accuracy.precision_20px); }},
      {"above_half", [](const EvalRecord& r) { return Value(r.accuracy.above_half); }},
      {"fps", [](const EvalRecord& r) { return r.fps; }},
      {"start_up_ms", [](const EvalRecord& r) { return Value(r.start_up_ms); }},
      {"held", [](const EvalRecord& r) { return Value(r.held); }},
      {"hidden", [](const EvalRecord& r) { return Value(r.hidden); }},
      {"own_success_auc",
       [](const EvalRecord& r) { return r.own_accuracy ? Value(r.own_accuracy->success_auc) : Value(); }},
      {"own_precision_20px",
       [](const EvalRecord& r) { return r.own_accuracy ? Value(r.own_accuracy->precision_20px) : Value(); }},
      {"own_above_half",
       [](const EvalRecord& r) { return r.own_accuracy ? Value(r.own_accuracy->above_half) : Value(); }},
  }};
  return figures;
}

std::optional<Spread> spread_of(const std::vector<double>& values) {
  if (values.empty()) return std::nullopt;
  Spread spread;
  spread.mean = mean_of(values);
  if (values.size() < 2) return spread;
  double squares = 0.0;
  for (const double value : values) squares += (value - spread.mean) * (value - spread.mean);
  spread.deviation = std::sqrt(squares / static_cast<double>(values.size() - 1));
  return spread;
}

std::vector<EvalRow> eval_rows(const std::vector<EvalRecord>& records,
                               const std::vector<std::string>& sequences,
                               const std::vector<std::string>& trackers) {
  std::vector<EvalRow> rows;
  for (const std::string& sequence : sequences) {
    for (const std::string& tracker : trackers) {
      const Records found = matching(records, sequence, tracker);
      if (!found.empty()) rows.push_back(sequence_row(found));
    }
  }
  for (const std::string& tracker : trackers) {
    const std::vector<Records> groups = by_sequence(records, sequences, tracker);
    if (!groups.empty()) rows.push_back(mean_row(groups, sequences.size()));
  }
  return rows;
}

std::vector<EvalCurves> eval_curves(const std::vector<EvalRecord>& records,
                                    const std::vector<std::string>& sequences,
                                    const std::vector<std::string>& trackers) {
  std::vector<EvalCurves> curves;
  for (const std::string& tracker : trackers) {
    const std::vector<Records> groups = by_sequence(records, sequences, tracker);
    if (!groups.empty()) curves.push_back(mean_curves(groups));
  }
  return curves;
}

}  // namespace ostrel_host
