#include "texture.h"

#include <algorithm>
#include <opencv2/imgproc.hpp>
#include <random>

namespace ostrel_scene {
namespace {

constexpr int kOctaves = 5;
constexpr int kCoarsestCell_px = 160;
constexpr int kClutterPerMegapixel = 180;

// The distributions of the standard library differ between its implementations; the raw generator does not.
int between(std::mt19937& random, int low, int high) {
  return low + static_cast<int>(random() % static_cast<std::uint32_t>(high - low + 1));
}

cv::Mat coarse_noise(cv::Size cells, std::mt19937& random) {
  cv::Mat noise(cells, CV_32FC3);
  for (int y = 0; y < cells.height; ++y) {
    for (int x = 0; x < cells.width; ++x) {
      for (int c = 0; c < 3; ++c)
        noise.at<cv::Vec3f>(y, x)[c] = static_cast<float>(between(random, -100, 100));
    }
  }
  return noise;
}

void scatter_rectangles(cv::Mat& image, std::mt19937& random) {
  const int count = std::max(12, static_cast<int>(image.total() * kClutterPerMegapixel / 1000000));
  for (int i = 0; i < count; ++i) {
    const cv::Point corner(between(random, 0, image.cols - 1), between(random, 0, image.rows - 1));
    const cv::Size size(between(random, 4, 40), between(random, 4, 40));
    const cv::Scalar colour(between(random, 40, 190), between(random, 40, 190), between(random, 40, 190));
    cv::rectangle(image, cv::Rect(corner, size), colour, cv::FILLED);
  }
}

}  // namespace

cv::Mat landscape_texture(cv::Size size_px, std::uint32_t seed) {
  std::mt19937 random(seed);
  cv::Mat sum(size_px, CV_32FC3, cv::Scalar::all(112));
  float amplitude = 0.45F;
  for (int octave = 0, cell_px = kCoarsestCell_px; octave < kOctaves; ++octave, cell_px /= 2) {
    const cv::Size cells(size_px.width / cell_px + 2, size_px.height / cell_px + 2);
    cv::Mat layer;
    cv::resize(coarse_noise(cells, random), layer, size_px, 0, 0, cv::INTER_CUBIC);
    cv::scaleAdd(layer, amplitude, sum, sum);
    amplitude *= 0.6F;
  }
  cv::Mat image;
  sum.convertTo(image, CV_8UC3);
  scatter_rectangles(image, random);
  return image;
}

cv::Mat patchwork_texture(int side_px, int cells, std::uint32_t seed) {
  std::mt19937 random(seed);
  cv::Mat blocks(cells, cells, CV_8UC3);
  for (int y = 0; y < cells; ++y) {
    for (int x = 0; x < cells; ++x) {
      // Each channel is near one of the ends, so that neighbours differ.
      for (int c = 0; c < 3; ++c) {
        const int value = (random() & 1U) != 0 ? between(random, 190, 250) : between(random, 5, 70);
        blocks.at<cv::Vec3b>(y, x)[c] = static_cast<std::uint8_t>(value);
      }
    }
  }
  cv::Mat texture;
  cv::resize(blocks, texture, cv::Size(side_px, side_px), 0, 0, cv::INTER_NEAREST);
  return texture;
}

}  // namespace ostrel_scene
