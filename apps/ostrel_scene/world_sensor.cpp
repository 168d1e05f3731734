#include "world_sensor.h"

#include <algorithm>
#include <cmath>
#include <opencv2/core/utility.hpp>
#include <opencv2/imgproc.hpp>

#include "world_noise.h"

namespace ostrel_scene {
namespace {

constexpr int kUnityGain = 1 << 12;
constexpr float kCornerLoss = 0.16F;
constexpr double kSoftness_px = 0.62;
constexpr int kGrainMargin_px = 96;
constexpr double kGrainUnit = 24.0;  // one standard deviation of the stored noise
constexpr double kChroma = 0.45;     // of the noise of a channel against that of the brightness
constexpr double kExposureDrift = 0.025, kDriftRound_s = 17.0;
// Noise in grey levels: a part that is always there, and one that grows with the light.
constexpr int kDarkNoise_256ths = 380, kLightNoise_256ths = 4;

cv::Mat make_vignette(cv::Size size) {
  cv::Mat gains(size, CV_16UC1);
  const float half_diagonal =
      0.5F * std::hypot(static_cast<float>(size.width), static_cast<float>(size.height));
  for (int y = 0; y < size.height; ++y) {
    for (int x = 0; x < size.width; ++x) {
      const float dx = static_cast<float>(x) + 0.5F - 0.5F * static_cast<float>(size.width);
      const float dy = static_cast<float>(y) + 0.5F - 0.5F * static_cast<float>(size.height);
      const float out = std::hypot(dx, dy) / half_diagonal;
      gains.at<std::uint16_t>(y, x) =
          cv::saturate_cast<std::uint16_t>(kUnityGain * (1.0F - kCornerLoss * out * out));
    }
  }
  return gains;
}

// Brightness noise with a little colour; slightly smooth, as interpolated sensor pixels are.
cv::Mat make_grain(cv::Size picture, std::uint32_t seed) {
  const cv::Size size(picture.width + kGrainMargin_px, picture.height + kGrainMargin_px);
  cv::RNG generator(seed + 77U);
  cv::Mat bright(size, CV_32FC1), colour(size, CV_32FC3), all;
  generator.fill(bright, cv::RNG::NORMAL, 0.0, kGrainUnit);
  generator.fill(colour, cv::RNG::NORMAL, 0.0, kGrainUnit * kChroma * 2.4);
  cv::GaussianBlur(bright, bright, cv::Size(3, 3), 0.5);
  cv::GaussianBlur(colour, colour, cv::Size(5, 5), 1.1);
  cv::merge(std::vector<cv::Mat>{bright, bright, bright}, all);
  all += colour;
  cv::Mat grain;
  all.convertTo(grain, CV_8SC3);
  return grain;
}

}  // namespace

Sensor::Sensor(cv::Size picture, std::uint32_t seed)
    : seed_(seed), vignette_(make_vignette(picture)), grain_(make_grain(picture, seed)) {}

void Sensor::develop_row(const std::uint8_t* source, const std::uint16_t* gains, const std::int8_t* noise,
                         int exposure, std::uint8_t* out) const {
  for (int i = 0; i < 3 * vignette_.cols; ++i) {
    const int value = source[i] * ((gains[i / 3] * exposure) >> 12) >> 12;
    const int spread = kDarkNoise_256ths + kLightNoise_256ths * value;
    const int noisy = value + ((noise[i] * spread) >> 13);
    out[i] = static_cast<std::uint8_t>(std::clamp(noisy, 0, 255));
  }
}

void Sensor::expose(double time_s, cv::Mat& image) const {
  cv::GaussianBlur(image, image, cv::Size(5, 5), kSoftness_px);
  const auto moment = static_cast<int>(std::lround(time_s * 1000.0));
  const cv::Point shift(static_cast<int>(hashed(seed_, moment, 1) * kGrainMargin_px),
                        static_cast<int>(hashed(seed_, moment, 2) * kGrainMargin_px));
  const double drift = 1.0 + kExposureDrift * std::sin(2.0 * 3.14159265358979 * time_s / kDriftRound_s);
  const int exposure = static_cast<int>(std::lround(drift * kUnityGain));
  cv::parallel_for_(cv::Range(0, image.rows), [&](const cv::Range& rows) {
    for (int y = rows.start; y < rows.end; ++y) {
      const auto* noise = grain_.ptr<std::int8_t>(y + shift.y) + 3 * shift.x;
      auto* row = image.ptr<std::uint8_t>(y);
      develop_row(row, vignette_.ptr<std::uint16_t>(y), noise, exposure, row);
    }
  });
}

}  // namespace ostrel_scene
