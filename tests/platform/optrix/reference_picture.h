// Plain double-precision loops that say what the picture library owes.
#pragma once

#include <cuda_runtime.h>
#include <gtest/gtest.h>
#include <optrix/optrix_picture.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace optrix_test {

// Host pixels, three bytes a pixel, blue first.
struct BgrImage {
  int width = 0;
  int height = 0;
  std::vector<std::uint8_t> bytes;

  optrix::HostBgr view() const { return {bytes.data(), width, height, 3 * static_cast<std::size_t>(width)}; }
};

struct Nv12Image {
  int width = 0;
  int height = 0;
  std::vector<std::uint8_t> luma;
  std::vector<std::uint8_t> chroma;

  int chroma_width() const { return (width + 1) / 2; }
  int chroma_height() const { return (height + 1) / 2; }
  optrix::HostNv12 view() const {
    return {luma.data(),
            chroma.data(),
            width,
            height,
            static_cast<std::size_t>(width),
            2 * static_cast<std::size_t>(chroma_width())};
  }
};

inline std::vector<std::uint8_t> random_bytes(std::size_t size, std::mt19937& random) {
  std::uniform_int_distribution<int> byte(0, 255);
  std::vector<std::uint8_t> bytes(size);
  for (std::uint8_t& value : bytes) value = static_cast<std::uint8_t>(byte(random));
  return bytes;
}

inline BgrImage random_bgr(int width, int height, std::mt19937& random) {
  return {width, height,
          random_bytes(3 * static_cast<std::size_t>(width) * static_cast<std::size_t>(height), random)};
}

inline Nv12Image random_nv12(int width, int height, std::mt19937& random) {
  Nv12Image image{width, height, {}, {}};
  image.luma = random_bytes(static_cast<std::size_t>(width) * static_cast<std::size_t>(height), random);
  image.chroma = random_bytes(
      2 * static_cast<std::size_t>(image.chroma_width()) * static_cast<std::size_t>(image.chroma_height()),
      random);
  return image;
}

// Bilinear value of a plane of interleaved bytes, coordinates clamped to the edge.
inline double bilinear(const std::vector<std::uint8_t>& plane, int width, int height, int pixel_bytes,
                       int channel, double x, double y) {
  x = std::clamp(x, 0.0, static_cast<double>(width - 1));
  y = std::clamp(y, 0.0, static_cast<double>(height - 1));
  const int x0 = static_cast<int>(x), y0 = static_cast<int>(y);
  const int x1 = std::min(x0 + 1, width - 1), y1 = std::min(y0 + 1, height - 1);
  const auto at = [&](int px, int py) {
    return static_cast<double>(plane[static_cast<std::size_t>((py * width + px) * pixel_bytes + channel)]);
  };
  const double fx = x - x0, fy = y - y0;
  return (1 - fy) * ((1 - fx) * at(x0, y0) + fx * at(x1, y0)) +
         fy * ((1 - fx) * at(x0, y1) + fx * at(x1, y1));
}

// Red, green, blue of a picture at a coordinate, 0 to 255.
inline std::array<double, 3> colour_at(const BgrImage& image, double x, double y) {
  const auto channel = [&](int c) { return bilinear(image.bytes, image.width, image.height, 3, c, x, y); };
  return {channel(2), channel(1), channel(0)};
}

inline std::array<double, 3> colour_at(const Nv12Image& image, double x, double y) {
  const double inside_x = std::clamp(x, 0.0, static_cast<double>(image.width - 1));
  const double inside_y = std::clamp(y, 0.0, static_cast<double>(image.height - 1));
  const auto chroma = [&](int c) {
    return bilinear(image.chroma, image.chroma_width(), image.chroma_height(), 2, c, (inside_x - 0.5) / 2,
                    (inside_y - 0.5) / 2) -
           128;
  };
  const double grey =
      (bilinear(image.luma, image.width, image.height, 1, 0, inside_x, inside_y) - 16) * 255 / 219;
  // ITU-R BT.709 with Kr = 0.2126 and Kb = 0.0722.
  const double cb = chroma(0) * 255 / 224, cr = chroma(1) * 255 / 224;
  const double red = grey + 2 * (1 - 0.2126) * cr;
  const double blue = grey + 2 * (1 - 0.0722) * cb;
  const double green = (grey - 0.2126 * red - 0.0722 * blue) / 0.7152;
  return {std::clamp(red, 0.0, 255.0), std::clamp(green, 0.0, 255.0), std::clamp(blue, 0.0, 255.0)};
}

// The planes that a batch owes, red first, 0 to 255.
template <typename Image>
std::vector<double> reference_batch(const Image& image, const std::vector<optrix::AffineCrop>& crops,
                                    int out_width, int out_height) {
  const std::size_t plane = static_cast<std::size_t>(out_width) * static_cast<std::size_t>(out_height);
  std::vector<double> values(crops.size() * 3 * plane);
  for (std::size_t n = 0; n < crops.size(); ++n) {
    for (int j = 0; j < out_height; ++j) {
      for (int i = 0; i < out_width; ++i) {
        const double x = crops[n].offset_x + static_cast<double>(crops[n].scale_x) * i;
        const double y = crops[n].offset_y + static_cast<double>(crops[n].scale_y) * j;
        const std::array<double, 3> rgb = colour_at(image, x, y);
        const std::size_t pixel = static_cast<std::size_t>(j * out_width + i);
        for (std::size_t c = 0; c < 3; ++c) values[(n * 3 + c) * plane + pixel] = rgb[c];
      }
    }
  }
  return values;
}

// The batch's values on the host, after its ready event.
inline std::vector<float> downloaded(const optrix::TensorBatch& batch) {
  std::vector<float> values(batch.bytes / sizeof(float));
  EXPECT_EQ(cudaEventSynchronize(batch.ready_event), cudaSuccess);
  EXPECT_EQ(cudaMemcpy(values.data(), batch.data, batch.bytes, cudaMemcpyDeviceToHost), cudaSuccess);
  return values;
}

inline optrix::TensorBatch resample(const optrix::OptrixPicture& picture,
                                    const std::vector<optrix::AffineCrop>& crops, int out_width,
                                    int out_height) {
  bool ok = false;
  optrix::TensorBatch batch = picture.getAffineBatchFloat32(
      crops, out_width, out_height, optrix::ColorOrder::kRgb, optrix::NormPreset::kByteRange, false, &ok);
  EXPECT_TRUE(ok);
  return batch;
}

}  // namespace optrix_test
