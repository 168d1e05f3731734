// Pictures of tables, drawn by gnuplot from a script and a table that stay beside the picture, so that whoever wants
// another view edits the script and draws again.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace ostrel_host {

struct PlotTable {
  std::vector<std::string> columns;
  std::vector<std::vector<double>>
      rows;  // each as long as `columns`; a value that is not finite leaves a gap
};

// Tab separated, the names in the first line behind a '#'. Throws std::runtime_error where the file cannot be written.
void write_table(const std::filesystem::path& file, const PlotTable& table);

// Throws std::runtime_error where the file cannot be written.
void write_script(const std::filesystem::path& file, const std::string& script);

// A text as a literal of gnuplot's language, which takes no mark-up from it (with "noenhanced").
std::string plot_literal(const std::string& text);

// Runs gnuplot on a script of `folder`, in that folder. Empty on success, else what kept it from it, in one line.
std::string draw_plot(const std::filesystem::path& folder, const std::string& script);

}  // namespace ostrel_host
