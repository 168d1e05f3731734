// Square crops of pictures, as the tracker's search regions are: what a neck is measured on.
#pragma once

#include <opencv2/core.hpp>
#include <string>
#include <vector>

namespace ostrel::backbone {

constexpr int kSmallestCropCount = 1;
constexpr int kLargestCropCount = 512;

// `count` crops of side x side (8 bits; blue, green, red) from the pictures in a folder and the folders in it, taken
// evenly over the pictures in the order of their names. Places and sizes are drawn from a fixed seed: the same
// folder gives the same crops. Throws ModelError for a folder without readable pictures.
std::vector<cv::Mat> crops_of_folder(const std::string& folder, int count, int side);

// The same from scenes that the project renders; needs no data.
std::vector<cv::Mat> crops_of_scenes(int count, int side);

}  // namespace ostrel::backbone
