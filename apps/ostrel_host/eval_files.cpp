#include "eval_files.h"

#include <cstdio>
#include <stdexcept>

#include "bad_input.h"
#include "result_files.h"

namespace ostrel_host {
namespace {

namespace fs = std::filesystem;
using nlohmann::ordered_json;

std::string csv_cell(const std::string& text) {
  if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
  std::string cell = "\"";
  for (const char c : text) cell += c == '"' ? "\"\"" : std::string(1, c);
  return cell + "\"";
}

std::string csv_number(const std::optional<double>& value) {
  if (!value) return {};
  char text[32];
  std::snprintf(text, sizeof text, "%.6g", *value);
  return text;
}

ordered_json number_or_null(const std::optional<double>& value) {
  return value ? ordered_json(*value) : ordered_json(nullptr);
}

void write_text(const fs::path& file, const std::string& text) {
  std::ofstream stream(file, std::ios::trunc | std::ios::binary);
  stream << text;
  stream.close();
  if (!stream) throw std::runtime_error("'" + file.string() + "' cannot be written");
}

std::string lines_of(const std::vector<cv::Rect2d>& boxes) {
  std::string text;
  for (const cv::Rect2d& box : boxes) text += (has_size(box) ? box_line(box) : "nan,nan,nan,nan") + "\n";
  return text;
}

std::string lines_of(const std::vector<ordered_json>& records) {
  std::string text;
  for (const ordered_json& record : records) text += printed(record) + "\n";
  return text;
}

std::vector<cv::Rect2d> boxes_of(const Pass& pass) {
  std::vector<cv::Rect2d> boxes;
  for (const PassFrame& frame : pass.frames) boxes.push_back(frame.box);
  return boxes;
}

}  // namespace

std::string csv_header() {
  std::string line = "sequence,tracker,run,frames,counted";
  for (const EvalFigure& figure : eval_figures()) line += std::string(",") + figure.key;
  return line;
}

std::string csv_line(const EvalRecord& record) {
  std::string line = csv_cell(record.sequence) + "," + csv_cell(record.tracker) + "," +
                     std::to_string(record.run) + "," + std::to_string(record.frames) + "," +
                     std::to_string(record.accuracy.frames);
  for (const EvalFigure& figure : eval_figures()) line += "," + csv_number(figure.of(record));
  return line;
}

ordered_json record_json(const EvalRecord& record) {
  ordered_json object{{"sequence", record.sequence},
                      {"tracker", record.tracker},
                      {"run", record.run},
                      {"frames", record.frames},
                      {"counted", record.accuracy.frames}};
  for (const EvalFigure& figure : eval_figures()) object[figure.key] = number_or_null(figure.of(record));
  object["success"] = record.accuracy.success;
  object["precision"] = record.accuracy.precision;
  return object;
}

ordered_json row_json(const EvalRow& row) {
  ordered_json object{{"sequence", row.sequence.empty() ? ordered_json(nullptr) : ordered_json(row.sequence)},
                      {"tracker", row.tracker},
                      {"runs", row.runs},
                      {"sequences", row.sequences},
                      {"counted", row.frames}};
  for (std::size_t i = 0; i < kEvalFigures; ++i) {
    const auto& figure = row.figures[i];
    ordered_json& member = object[eval_figures()[i].key];
    if (figure) member = {{"mean", figure->mean}, {"deviation", number_or_null(figure->deviation)}};
  }
  return object;
}

ordered_json curves_json(const EvalCurves& curves) {
  return {{"tracker", curves.tracker}, {"success", curves.success}, {"precision", curves.precision}};
}

EvalFiles::EvalFiles(const fs::path& folder) : folder_(folder) {
  make_result_folder(folder);
  for (const char* name : {"eval.json", "success.png", "precision.png"}) {
    std::error_code none_there;
    fs::remove(folder / name, none_there);
  }
  csv_.open(folder / "eval.csv", std::ios::trunc);
  csv_ << csv_header() << '\n' << std::flush;
  if (!csv_) throw BadInput("'" + (folder / "eval.csv").string() + "' cannot be written");
}

void EvalFiles::write_pass(const Pass& pass, const EvalRecord& record) {
  const fs::path folder = folder_ / "boxes" / record.tracker;
  const std::string stem = record.sequence + "-run" + std::to_string(record.run);
  make_result_folder(folder);
  write_text(folder / (stem + ".txt"), lines_of(boxes_of(pass)));
  if (!pass.own_boxes.empty()) write_text(folder / (stem + ".own.txt"), lines_of(pass.own_boxes));
  if (!pass.records.empty()) write_text(folder / (stem + ".jsonl"), lines_of(pass.records));
  csv_ << csv_line(record) << '\n' << std::flush;
  if (!csv_) throw std::runtime_error("'" + (folder_ / "eval.csv").string() + "' cannot be written");
}

void EvalFiles::write_report(const ordered_json& report) const {
  write_text(folder_ / "eval.json", printed(report, 2) + "\n");
}

}  // namespace ostrel_host
