#include "eval_plots.h"

#include <algorithm>
#include <cstdio>
#include <numeric>

namespace ostrel_host {
namespace {

using Value = double (*)(const EvalCurves&);

double area(const EvalCurves& curves) {
  return std::accumulate(curves.success.begin(), curves.success.end(), 0.0) / kSuccessThresholds;
}

double precision(const EvalCurves& curves) {
  return curves.precision[kPrecisionLimit_px];
}

// The trackers in the order of a plot's legend.
std::vector<EvalCurves> best_first(std::vector<EvalCurves> curves, Value value) {
  std::stable_sort(curves.begin(), curves.end(),
                   [value](const EvalCurves& a, const EvalCurves& b) { return value(a) > value(b); });
  return curves;
}

template <typename Curve>
PlotTable table_of(const char* axis, double last, const std::vector<EvalCurves>& curves,
                   const Curve& curve_of) {
  PlotTable table{{axis}, {}};
  for (const EvalCurves& tracker : curves) table.columns.push_back(tracker.tracker);
  const std::size_t points = curve_of(EvalCurves()).size();
  for (std::size_t i = 0; i < points; ++i) {
    std::vector<double> row{last * static_cast<double>(i) / static_cast<double>(points - 1)};
    for (const EvalCurves& tracker : curves) row.push_back(curve_of(tracker)[i]);
    table.rows.push_back(std::move(row));
  }
  return table;
}

struct PlotText {
  const char* stem;
  const char* title;
  const char* axis;
  const char* key;
};

std::string legend_of(const EvalCurves& curves, Value value) {
  char text[16];
  std::snprintf(text, sizeof text, " [%.3f]", value(curves));
  return plot_literal(curves.tracker + text);
}

// The part of the plot command that draws column i + 2 of the table; after eight colours the dashes change.
std::string curve_of(std::size_t i, const std::string& stem, const std::string& legend) {
  const std::string table = i == 0 ? "'" + stem + ".tsv'" : ", \\\n     ''";
  return table + " using 1:" + std::to_string(i + 2) + " with lines linewidth 2 linetype " +
         std::to_string(i + 1) + " dashtype " + std::to_string(i / 8 + 1) + " title " + legend;
}

std::string script_of(const PlotText& text, const std::vector<EvalCurves>& curves, Value value) {
  const std::string stem = text.stem;
  std::string script =
      "set terminal pngcairo size 960,720 font 'DejaVu Sans,11' noenhanced background rgb 'white'\n"
      "set output '" +
      stem + ".png'\nset datafile separator tab\nset title '" + text.title + "'\nset xlabel '" + text.axis +
      "'\nset ylabel 'share of frames'\nset yrange [0:1]\n"
      "set grid linecolor rgb '#e4e4e4' linetype 1\nset tics nomirror out\n"
      "set border 3 linecolor rgb '#606060'\nset key " +
      text.key + " reverse Left samplen 3\nplot ";
  for (std::size_t i = 0; i < curves.size(); ++i) script += curve_of(i, stem, legend_of(curves[i], value));
  return script + "\n";
}

std::string draw(const std::filesystem::path& folder, const PlotText& text, const PlotTable& table,
                 const std::string& script) {
  const std::string stem = text.stem;
  write_table(folder / (stem + ".tsv"), table);
  write_script(folder / (stem + ".gp"), script);
  return draw_plot(folder, stem + ".gp");
}

}  // namespace

PlotTable success_table(const std::vector<EvalCurves>& curves) {
  return table_of("overlap", 1.0, best_first(curves, area),
                  [](const EvalCurves& tracker) { return tracker.success; });
}

PlotTable precision_table(const std::vector<EvalCurves>& curves) {
  return table_of("distance_px", kPrecisionLimits - 1, best_first(curves, precision),
                  [](const EvalCurves& tracker) { return tracker.precision; });
}

std::string draw_eval_plots(const std::filesystem::path& folder, const std::vector<EvalCurves>& curves) {
  if (curves.empty()) return "no results";
  const PlotText success{"success", "Success [AUC]", "overlap threshold", "bottom left"};
  const PlotText distance{"precision", "Precision [at 20 px]", "distance of the centres, px", "bottom right"};
  std::string problem =
      draw(folder, success, success_table(curves), script_of(success, best_first(curves, area), area));
  if (!problem.empty()) return problem;
  return draw(folder, distance, precision_table(curves),
              script_of(distance, best_first(curves, precision), precision));
}

}  // namespace ostrel_host
