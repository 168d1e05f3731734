// OpenCV's trackers, to stand beside the plug-in.
#pragma once

#include <opencv2/core.hpp>
#include <opencv2/video/tracking.hpp>
#include <string>
#include <vector>

namespace ostrel_host {

// "csrt,kcf,mosse,mil", any of them in any order; an empty text is none. Throws BadInput for another name.
std::vector<std::string> parse_peers(const std::string& list);

// A fresh tracker with its own default parameters. `name` is one of those.
cv::Ptr<cv::Tracker> make_peer(const std::string& name);

// Fixes what these trackers draw at random: OpenCV's generators and the C library's.
void seed_peers(unsigned seed);

}  // namespace ostrel_host
