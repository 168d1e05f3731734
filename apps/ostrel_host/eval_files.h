// The files of an evaluation: boxes as they come, eval.csv, eval.json.
#pragma once

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "eval_statistics.h"

namespace ostrel_host {

// "sequence,tracker,run,frames,counted" and the figures; cells as RFC 4180 has them, empty where there is no figure.
std::string csv_header();
std::string csv_line(const EvalRecord& record);

// A record with its figures, null where there is none, and its curves.
nlohmann::ordered_json record_json(const EvalRecord& record);
// A row with "mean" and "deviation" of each figure.
nlohmann::ordered_json row_json(const EvalRow& row);
nlohmann::ordered_json curves_json(const EvalCurves& curves);

class EvalFiles {
 public:
  // Makes the folder where needed, and takes away the report and the plots of an earlier evaluation, so that none
  // stands beside passes that it does not tell of. Throws BadInput where it or eval.csv cannot be written.
  explicit EvalFiles(const std::filesystem::path& folder);

  // A finished pass: its row of eval.csv, and boxes/TRACKER/SEQUENCE-runN.txt with the box that counts per frame, a
  // line of nan without one. For the plug-in also SEQUENCE-runN.own.txt and SEQUENCE-runN.jsonl. Throws
  // std::runtime_error where they cannot be written.
  void write_pass(const Pass& pass, const EvalRecord& record);

  // eval.json. Throws std::runtime_error where it cannot be written.
  void write_report(const nlohmann::ordered_json& report) const;

  const std::filesystem::path& folder() const { return folder_; }

 private:
  std::filesystem::path folder_;
  std::ofstream csv_;
};

}  // namespace ostrel_host
