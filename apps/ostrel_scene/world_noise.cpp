#include "world_noise.h"

#include <cmath>
#include <opencv2/imgproc.hpp>

namespace ostrel_scene {
namespace {

constexpr int kWavelengths = 64;
constexpr int kCellsPerWavelength = 4;
constexpr int kSide = kWavelengths * kCellsPerWavelength;

std::uint64_t mixed(std::uint64_t value) {
  value ^= value >> 30;
  value *= 0xBF58476D1CE4E5B9ULL;
  value ^= value >> 27;
  value *= 0x94D049BB133111EBULL;
  return value ^ (value >> 31);
}

float to_unit(std::uint64_t value) {
  return static_cast<float>(value >> 40) / static_cast<float>(1U << 24U);
}

}  // namespace

float hashed(std::uint32_t seed, int a, int b) {
  const auto key =
      (static_cast<std::uint64_t>(static_cast<std::uint32_t>(a)) << 32U) | static_cast<std::uint32_t>(b);
  return to_unit(mixed(mixed(key + 0x9E3779B97F4A7C15ULL) + seed));
}

std::uint64_t Dice::next() {
  return mixed(state_ += 0x9E3779B97F4A7C15ULL);
}

float Dice::between(float low, float high) {
  return low + (high - low) * to_unit(next());
}

int Dice::whole(int low, int high) {
  return low + static_cast<int>(next() % static_cast<std::uint64_t>(high - low + 1));
}

// White noise, smoothed: unlike values on a lattice it shows no rows and columns.
NoisePlane::NoisePlane(std::uint32_t seed) : grid_(static_cast<std::size_t>(kSide) * kSide) {
  constexpr int kMargin = 16;
  constexpr double kSmoothing_cells = 1.25;
  Dice dice(seed);
  cv::Mat grid(kSide, kSide, CV_32F, grid_.data());
  for (float& value : grid_) value = dice.between(-1.0F, 1.0F);
  cv::Mat wide;
  cv::copyMakeBorder(grid, wide, kMargin, kMargin, kMargin, kMargin, cv::BORDER_WRAP);
  cv::GaussianBlur(wide, wide, cv::Size(4 * kMargin / 2 - 1, 4 * kMargin / 2 - 1), kSmoothing_cells);
  cv::Scalar mean, deviation;
  cv::meanStdDev(wide, mean, deviation);
  constexpr double kWantedDeviation = 0.48;
  wide(cv::Rect(kMargin, kMargin, kSide, kSide)).convertTo(grid, CV_32F, kWantedDeviation / deviation[0]);
}

float NoisePlane::at(float x, float y) const {
  constexpr int kMask = kSide - 1;
  const float gx = x * kCellsPerWavelength, gy = y * kCellsPerWavelength;
  const float fx = std::floor(gx), fy = std::floor(gy);
  const int x0 = static_cast<int>(fx) & kMask, y0 = static_cast<int>(fy) & kMask;
  const int x1 = (x0 + 1) & kMask, y1 = (y0 + 1) & kMask;
  const float wx = gx - fx, wy = gy - fy;
  const float* top = &grid_[static_cast<std::size_t>(y0) * kSide];
  const float* bottom = &grid_[static_cast<std::size_t>(y1) * kSide];
  const float upper = top[x0] + (top[x1] - top[x0]) * wx;
  const float lower = bottom[x0] + (bottom[x1] - bottom[x0]) * wx;
  return upper + (lower - upper) * wy;
}

}  // namespace ostrel_scene
