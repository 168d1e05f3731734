// How well boxes follow the ground truth, by the two usual figures (Wu, Lim, Yang: Online Object Tracking, a
// Benchmark, CVPR 2013).
#pragma once

#include <array>
#include <nlohmann/json.hpp>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

namespace ostrel_host {

constexpr int kSuccessThresholds = 21;  // overlaps 0, 0.05, .. 1
constexpr int kPrecisionLimits = 51;    // distances 0, 1, .. 50 px
constexpr int kPrecisionLimit_px = 20;

struct AccuracyReport {
  std::size_t frames = 0;                            // those that count
  double success_auc = 0.0;                          // the mean of `success`
  double precision_20px = 0.0;                       // share of frames whose centres are at most 20 px apart
  double above_half = 0.0;                           // share of frames with an overlap above 0.5
  std::array<double, kSuccessThresholds> success{};  // share of frames with more overlap than the threshold
  std::array<double, kPrecisionLimits> precision{};  // share of frames with centres at most so far apart
};

// Whether a box has a size. One without stands for no box: the target is absent, or the tracker has none.
bool has_size(const cv::Rect2d& box);

// Intersection over union, 0 where either box has no size.
double overlap(const cv::Rect2d& a, const cv::Rect2d& b);

double centre_distance_px(const cv::Rect2d& a, const cv::Rect2d& b);

// Box i against truth i. Frames whose truth has no size do not count, a box without size is a miss by either figure;
// the longer list's rest is left out.
AccuracyReport score_boxes(const std::vector<cv::Rect2d>& boxes, const std::vector<cv::Rect2d>& truth);

// A box x,y,w,h per line; an empty line and one that holds nan is a box without size, but empty lines at the end are
// none. Throws BadInput for a file that cannot be read, holds no line, or has a line that is no box.
std::vector<cv::Rect2d> read_boxes(const std::string& file);

nlohmann::ordered_json to_json_report(const AccuracyReport& report);

// One line for people.
std::string to_line(const AccuracyReport& report);

}  // namespace ostrel_host
