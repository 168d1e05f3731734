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

// A box as a line x,y,w,h, six significant digits. boxes.txt holds the tracker's own.
std::string box_line(const cv::Rect2d& box);

// JSON as text, on one line or indented. Words of a plug-in may hold any bytes; what is no UTF-8 is replaced.
std::string printed(const nlohmann::ordered_json& object, int indent = -1);

// Makes the folder and those above it where they are not there. Throws BadInput where that fails.
void make_result_folder(const std::filesystem::path& folder);

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
