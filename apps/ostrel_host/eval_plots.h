// The curves of an evaluation as pictures.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "eval_statistics.h"
#include "plot.h"

namespace ostrel_host {

// A column of thresholds and a column per tracker, best first.
PlotTable success_table(const std::vector<EvalCurves>& curves);    // overlap 0 to 1
PlotTable precision_table(const std::vector<EvalCurves>& curves);  // distance 0 to 50 px

// success.png and precision.png with .gp and .tsv beside each; the legend gives the AUC, and the precision at 20 px.
// Empty on success, else what kept gnuplot from it, in one line. Throws std::runtime_error where a file cannot be
// written.
std::string draw_eval_plots(const std::filesystem::path& folder, const std::vector<EvalCurves>& curves);

}  // namespace ostrel_host
