#include "accuracy.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <numeric>

#include "bad_input.h"
#include "region.h"

namespace ostrel_host {
namespace {

constexpr char kSeparators[] = " \t\r,;";

bool is_blank(const std::string& line) {
  return line.find_first_not_of(kSeparators) == std::string::npos;
}

// Empty, or nothing but numbers of which one is nan.
bool is_absent(const std::string& line) {
  bool absent = is_blank(line);
  std::size_t at = line.find_first_not_of(kSeparators);
  while (at != std::string::npos) {
    const char* const word = line.c_str() + at;
    char* end = nullptr;
    const double number = std::strtod(word, &end);
    if (end == word) return false;
    absent = absent || std::isnan(number);
    at = line.find_first_not_of(kSeparators, at + static_cast<std::size_t>(end - word));
  }
  return absent;
}

cv::Rect2d parse_box(const std::string& line, std::size_t number, const std::string& file) {
  try {
    return is_absent(line) ? cv::Rect2d() : parse_numbers(line);
  } catch (const BadInput&) {
    throw BadInput("line " + std::to_string(number) + " of '" + file + "' is no box: x,y,w,h is needed");
  }
}

// Counts of frames per threshold.
struct Tally {
  std::size_t frames = 0;
  std::size_t above_half = 0;
  std::array<std::size_t, kSuccessThresholds> success{};
  std::array<std::size_t, kPrecisionLimits> precision{};

  void add(const cv::Rect2d& box, const cv::Rect2d& truth) {
    ++frames;
    if (!has_size(box)) return;
    const double shared = overlap(box, truth);
    const double distance_px = centre_distance_px(box, truth);
    if (shared > 0.5) ++above_half;
    for (std::size_t i = 0; i < success.size(); ++i) {
      if (shared > static_cast<double>(i) / (kSuccessThresholds - 1)) ++success[i];
    }
    for (std::size_t i = 0; i < precision.size(); ++i) {
      if (distance_px <= static_cast<double>(i)) ++precision[i];
    }
  }
};

}  // namespace

bool has_size(const cv::Rect2d& box) {
  return box.width > 0.0 && box.height > 0.0;
}

double overlap(const cv::Rect2d& a, const cv::Rect2d& b) {
  if (!has_size(a) || !has_size(b)) return 0.0;
  const double width = std::min(a.x + a.width, b.x + b.width) - std::max(a.x, b.x);
  const double height = std::min(a.y + a.height, b.y + b.height) - std::max(a.y, b.y);
  if (width <= 0.0 || height <= 0.0) return 0.0;
  const double shared = width * height;
  // Rounding may leave one box a hair larger than itself.
  return std::min(1.0, shared / (a.width * a.height + b.width * b.height - shared));
}

double centre_distance_px(const cv::Rect2d& a, const cv::Rect2d& b) {
  return std::hypot(a.x + 0.5 * a.width - b.x - 0.5 * b.width, a.y + 0.5 * a.height - b.y - 0.5 * b.height);
}

AccuracyReport score_boxes(const std::vector<cv::Rect2d>& boxes, const std::vector<cv::Rect2d>& truth) {
  Tally tally;
  for (std::size_t i = 0; i < std::min(boxes.size(), truth.size()); ++i) {
    if (has_size(truth[i])) tally.add(boxes[i], truth[i]);
  }
  AccuracyReport report;
  report.frames = tally.frames;
  if (tally.frames == 0) return report;
  const auto share = [&](std::size_t count) {
    return static_cast<double>(count) / static_cast<double>(tally.frames);
  };
  std::transform(tally.success.begin(), tally.success.end(), report.success.begin(), share);
  std::transform(tally.precision.begin(), tally.precision.end(), report.precision.begin(), share);
  const auto passes = std::accumulate(tally.success.begin(), tally.success.end(), std::size_t{0});
  report.success_auc = share(passes) / kSuccessThresholds;
  report.precision_20px = report.precision[kPrecisionLimit_px];
  report.above_half = share(tally.above_half);
  return report;
}

std::vector<cv::Rect2d> read_boxes(const std::string& file) {
  std::ifstream stream(file);
  if (!stream) throw BadInput("the boxes '" + file + "' cannot be read");
  std::vector<cv::Rect2d> boxes;
  std::size_t until_last = 0;
  for (std::string line; std::getline(stream, line);) {
    boxes.push_back(parse_box(line, boxes.size() + 1, file));
    if (!is_blank(line)) until_last = boxes.size();
  }
  boxes.resize(until_last);
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
