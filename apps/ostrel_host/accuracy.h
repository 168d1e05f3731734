// How well boxes follow the ground truth, by the two usual figures (Wu, Lim, Yang: Online Object Tracking, a
// Benchmark, CVPR 2013).
#pragma once

#include <nlohmann/json.hpp>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

namespace ostrel_host {

struct AccuracyReport {
  std::size_t frames = 0;
  double success_auc =
      0.0;  // mean over the thresholds 0, 0.05, .. 1 of the share of frames with more overlap
  double precision_20px = 0.0;  // share of frames whose centres are at most 20 px apart
  double above_half = 0.0;      // share of frames with an overlap above 0.5
};

constexpr int kSuccessThresholds = 21;
constexpr double kPrecisionLimit_px = 20.0;

// Intersection over union, 0 where either box has no size.
double overlap(const cv::Rect2d& a, const cv::Rect2d& b);

double centre_distance_px(const cv::Rect2d& a, const cv::Rect2d& b);

// Box i against truth i. Frames whose truth has no size (the target is absent) do not count; the longer list's rest is
// left out.
AccuracyReport score_boxes(const std::vector<cv::Rect2d>& boxes, const std::vector<cv::Rect2d>& truth);

// A box x,y,w,h per line; a line that holds nan is a box without size. Throws BadInput for a file that cannot be
// read, is empty, or has a line that is no box.
std::vector<cv::Rect2d> read_boxes(const std::string& file);

nlohmann::ordered_json to_json_report(const AccuracyReport& report);

// One line for people.
std::string to_line(const AccuracyReport& report);

}  // namespace ostrel_host
