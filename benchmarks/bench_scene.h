// The picture that frame calls are measured with.
#pragma once

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

namespace ostrel_bench {

constexpr int kWidth_px = 1280;
constexpr int kHeight_px = 720;
inline const cv::Rect_<int> kTarget_px{600, 320, 64, 48};

/// A blurred background and a target of stronger contrast, the same for every program.
inline cv::Mat scene() {
  cv::Mat image(kHeight_px, kWidth_px, CV_8UC3);
  cv::RNG random(7);
  random.fill(image, cv::RNG::UNIFORM, 0, 256);
  cv::GaussianBlur(image, image, {0, 0}, 3.0);
  cv::Mat target = image(kTarget_px);
  random.fill(target, cv::RNG::UNIFORM, 0, 256);
  cv::GaussianBlur(target, target, {0, 0}, 2.0);
  target.convertTo(target, -1, 2.0, -60.0);
  return image;
}

}  // namespace ostrel_bench
