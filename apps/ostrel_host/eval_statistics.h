// The figures of an evaluation, and their means.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "accuracy.h"
#include "one_pass.h"

namespace ostrel_host {

// One pass, judged.
struct EvalRecord {
  std::string sequence;
  std::string tracker;
  int run = 1;
  std::size_t frames = 0;                      // that the tracker was given
  AccuracyReport accuracy;                     // of the boxes that a user gets
  std::optional<AccuracyReport> own_accuracy;  // of the plug-in's own boxes, published or not
  std::optional<double> fps;                   // one over the mean time of the tracker's call
  double start_up_ms = 0.0;
  double held = 0.0;    // share of frames whose box has score 0
  double hidden = 0.0;  // share of frames without a box
};

EvalRecord judge_pass(const Pass& pass, const Sequence& sequence, const std::string& tracker, int run);

// A figure of a record, under the name that it has in files.
struct EvalFigure {
  const char* key;
  std::optional<double> (*of)(const EvalRecord&);
};

// success_auc, precision_20px, above_half, fps, start_up_ms, held, hidden, own_success_auc, own_precision_20px,
// own_above_half.
constexpr std::size_t kEvalFigures = 10;
const std::array<EvalFigure, kEvalFigures>& eval_figures();

struct Spread {
  double mean = 0.0;
  std::optional<double> deviation;  // the sample's (over n - 1); none below two values
};

// None for no values.
std::optional<Spread> spread_of(const std::vector<double>& values);

// A row of the table: a tracker on a sequence over its runs, or over all sequences.
struct EvalRow {
  std::string sequence;  // empty: all
  std::string tracker;
  std::size_t runs = 0;       // that the deviations are taken over
  std::size_t sequences = 1;  // that have a result
  std::size_t frames = 0;     // that count, of one run
  std::array<std::optional<Spread>, kEvalFigures> figures;
};

// A row per sequence and tracker that has a record, in the order given, then one per tracker with a record. There every
// sequence weighs the same, whatever its length; the deviation is that of the mean over all sequences from run to run,
// taken over the runs that finished all.
std::vector<EvalRow> eval_rows(const std::vector<EvalRecord>& records,
                               const std::vector<std::string>& sequences,
                               const std::vector<std::string>& trackers);

// The curves of a tracker, means like those of its last row.
struct EvalCurves {
  std::string tracker;
  std::array<double, kSuccessThresholds> success{};
  std::array<double, kPrecisionLimits> precision{};
};

// Of each tracker with a record, in the order given.
std::vector<EvalCurves> eval_curves(const std::vector<EvalRecord>& records,
                                    const std::vector<std::string>& sequences,
                                    const std::vector<std::string>& trackers);

}  // namespace ostrel_host
