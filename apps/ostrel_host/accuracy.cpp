#include "accuracy.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>

#include "bad_input.h"
#include "region.h"

namespace ostrel_host {
namespace {

bool has_size(const cv::Rect2d& box) {
  return box.width > 0.0 && box.height > 0.0;
}

bool is_absent(const std::string& line) {
  return line.find("nan") != std::string::npos || line.find("NaN") != std::string::npos;
}

}  // namespace

double overlap(const cv::Rect2d& a, const cv::Rect2d& b) {
  if (!has_size(a) || !has_size(b)) return 0.0;
  const double width = std::min(a.x + a.width, b.x + b.width) - std::max(a.x, b.x);
  const double height = std::min(a.y + a.height, b.y + b.height) - std::max(a.y, b.y);
  if (width <= 0.0 || height <= 0.0) return 0.0;
  const double shared = width * height;
  return shared / (a.width * a.height + b.width * b.height - shared);
}

double centre_distance_px(const cv::Rect2d& a, const cv::Rect2d& b) {
  return std::hypot(a.x + 0.5 * a.width - b.x - 0.5 * b.width, a.y + 0.5 * a.height - b.y - 0.5 * b.height);
}

AccuracyReport score_boxes(const std::vector<cv::Rect2d>& boxes, const std::vector<cv::Rect2d>& truth) {
  AccuracyReport report;
  std::size_t near = 0, good = 0, passes = 0;
  for (std::size_t i = 0; i < std::min(boxes.size(), truth.size()); ++i) {
    if (!has_size(truth[i])) continue;
    ++report.frames;
    const double shared = overlap(boxes[i], truth[i]);
    for (int step = 0; step < kSuccessThresholds; ++step) {
      if (shared > static_cast<double>(step) / (kSuccessThresholds - 1)) ++passes;
    }
    if (shared > 0.5) ++good;
    if (centre_distance_px(boxes[i], truth[i]) <= kPrecisionLimit_px) ++near;
  }
  if (report.frames == 0) return report;
  const double frames = static_cast<double>(report.frames);
  report.success_auc = static_cast<double>(passes) / (kSuccessThresholds * frames);
  report.precision_20px = static_cast<double>(near) / frames;
  report.above_half = static_cast<double>(good) / frames;
  return report;
}

std::vector<cv::Rect2d> read_boxes(const std::string& file) {
  std::ifstream stream(file);
  if (!stream) throw BadInput("the boxes '" + file + "' cannot be read");
  std::vector<cv::Rect2d> boxes;
  for (std::string line; std::getline(stream, line);) {
    if (line.empty() || line == "\r") continue;
    boxes.push_back(is_absent(line) ? cv::Rect2d() : parse_numbers(line));
  }
  if (boxes.empty()) throw BadInput("the file '" + file + "' holds no boxes");
  return boxes;
}

nlohmann::ordered_json to_json_report(const AccuracyReport& report) {
  return {{"frames", report.frames},
          {"success_auc", report.success_auc},
          {"precision_20px", report.precision_20px},
          {"above_half", report.above_half}};
}

std::string to_line(const AccuracyReport& report) {
  char text[160];
  std::snprintf(text, sizeof text,
                "%zu frames: success AUC %.3f, precision at 20 px %.3f, overlap above 0.5 %.3f",
                report.frames, report.success_auc, report.precision_20px, report.above_half);
  return text;
}

}  // namespace ostrel_host
