#include "result_files.h"

#include <cstdio>

#include "bad_input.h"

namespace ostrel_host {
namespace {

std::ofstream opened(const std::filesystem::path& file) {
  std::ofstream stream(file, std::ios::trunc);
  if (!stream) throw BadInput("'" + file.string() + "' cannot be written");
  return stream;
}

}  // namespace

nlohmann::ordered_json jsonl_line(std::size_t frame, const StepResult& result) {
  nlohmann::ordered_json line;
  line["frame"] = frame;
  for (const char* key : {"x", "y", "w", "h", "score"}) line[key] = nullptr;
  if (result.published) {
    line["x"] = result.published->box.x;
    line["y"] = result.published->box.y;
    line["w"] = result.published->box.w;
    line["h"] = result.published->box.h;
    line["score"] = result.published->score;
  }
  line["status"] = result.state.status;
  line["detail"] = result.state.detail;
  line["phase"] = result.state.phase;
  line["update_ms"] = result.update_ms;
  return line;
}

std::string box_line(const cv::Rect2d& box) {
  char text[96];
  std::snprintf(text, sizeof text, "%.6g,%.6g,%.6g,%.6g", box.x, box.y, box.width, box.height);
  return text;
}

std::string printed(const nlohmann::ordered_json& object, int indent) {
  return object.dump(indent, ' ', false, nlohmann::json::error_handler_t::replace);
}

void make_result_folder(const std::filesystem::path& folder) {
  std::error_code problem;
  std::filesystem::create_directories(folder, problem);
  if (!std::filesystem::is_directory(folder)) {
    throw BadInput("the folder '" + folder.string() + "' cannot be made");
  }
}

ResultFiles::ResultFiles(const std::filesystem::path& folder) : folder_(folder) {
  make_result_folder(folder);
  jsonl_ = opened(folder / "boxes.jsonl");
  boxes_ = opened(folder / "boxes.txt");
}

void ResultFiles::write_frame(std::size_t frame, const StepResult& result,
                              const nlohmann::ordered_json& more) {
  nlohmann::ordered_json line = jsonl_line(frame, result);
  for (const auto& [key, value] : more.items()) line[key] = value;
  jsonl_ << printed(line) << '\n';
  boxes_ << box_line(result.state.own_box()) << '\n';
}

void ResultFiles::write_summary(const nlohmann::ordered_json& summary) {
  jsonl_.flush();
  boxes_.flush();
  std::ofstream stream = opened(folder_ / "summary.json");
  stream << printed(summary, 2) << '\n';
  stream.flush();
  if (!jsonl_ || !boxes_ || !stream) {
    throw std::runtime_error("the results in '" + folder_.string() + "' could not be written");
  }
}

}  // namespace ostrel_host
