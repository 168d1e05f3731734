// The files of a run: boxes.jsonl, boxes.txt, summary.json.
#pragma once

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "plugin_session.h"

namespace ostrel_host {

// A line of boxes.jsonl: frame, x, y, w, h and score of the published box (null without one), status, detail, phase,
// update_ms.
nlohmann::ordered_json jsonl_line(std::size_t frame, const StepResult& result);

// A line of boxes.txt: the tracker's own box as x,y,w,h, six significant digits.
std::string box_line(const StepResult& result);

class ResultFiles {
 public:
  // Makes the folder where needed. Throws BadInput where it or the files cannot be written.
  explicit ResultFiles(const std::filesystem::path& folder);

  // `more` is an object whose members go behind the others in the line of boxes.jsonl.
  void write_frame(std::size_t frame, const StepResult& result, const nlohmann::ordered_json& more = {});
  void write_summary(const nlohmann::ordered_json& summary);

  const std::filesystem::path& folder() const { return folder_; }

 private:
  std::filesystem::path folder_;
  std::ofstream jsonl_;
  std::ofstream boxes_;
};

}  // namespace ostrel_host
