// Regions and sizes on the command line and in files of boxes.
#pragma once

#include <IAlgoPlugin.h>

#include <opencv2/core.hpp>
#include <string>

namespace ostrel_host {

// Four numbers "x,y,w,h", separated by commas, blanks or tabs, with nothing behind them. Throws BadInput.
cv::Rect2d parse_numbers(const std::string& text);

// The same, rounded to whole pixels, as the plug-in takes it. Whether it has a size is the plug-in's to judge.
BBox parse_region(const std::string& text);

// Throws BadInput where the region has a size and no pixel of it lies in the frame.
void require_inside(const BBox& region, cv::Size frame_px);

// "WxH", two whole numbers. Throws BadInput.
cv::Size parse_size(const std::string& text);

std::string to_text(const BBox& box);  // "x,y,w,h"

}  // namespace ostrel_host
