// What lens and sensor do to a picture: softness, vignetting, drift of the exposure, noise.
#pragma once

#include <cstdint>
#include <opencv2/core.hpp>

namespace ostrel_scene {

class Sensor {
 public:
  Sensor(cv::Size picture, std::uint32_t seed);

  // Changes an 8-bit picture in place; the noise follows from seed and time.
  void expose(double time_s, cv::Mat& image) const;

 private:
  void develop_row(const std::uint8_t* source, const std::uint16_t* gains, const std::int8_t* noise,
                   int exposure, std::uint8_t* out) const;

  std::uint32_t seed_;
  cv::Mat vignette_;  // CV_16UC1, kUnityGain where nothing is lost
  cv::Mat grain_;     // CV_8SC3, larger than the picture
};

}  // namespace ostrel_scene
