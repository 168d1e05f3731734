#include "support/strided_engine.h"

#include <gtest/gtest.h>
#include <onnx_model_builder.h>

#include <random>

using ostrel_tracker::tracking_runtime::tracker::atom::FeatureMap;

namespace ostrel_test {
namespace {

constexpr const char* kOutputNames[3] = {"fine", "coarse", "third"};
constexpr float kPixelScale = 1.0F / 256.0F;

std::size_t weight_index(int channel, int plane, int row, int column, int side) {
  return static_cast<std::size_t>(((channel * 3 + plane) * side + row) * side + column);
}

double pixel(const cv::Mat& patch, int plane, int y, int x) {
  return patch.at<cv::Vec3b>(y, x)[2 - plane];  // planes are red, green, blue
}

double convolve_at(const cv::Mat& patch, const std::vector<float>& weights, int side, int channel, int y,
                   int x) {
  double sum = 0.0;
  for (int plane = 0; plane < 3; ++plane) {
    for (int i = 0; i < side; ++i) {
      for (int j = 0; j < side; ++j) {
        sum += pixel(patch, plane, y * side + i, x * side + j) *
               static_cast<double>(weights[weight_index(channel, plane, i, j, side)]);
      }
    }
  }
  return sum;
}

}  // namespace

std::vector<float> StridedEngine::weights(int index) const {
  const int side = kOutputStrides[index];
  std::mt19937 generator(seed * 16 + static_cast<std::uint32_t>(index));
  std::vector<float> values(weight_index(kOutputChannels[index], 0, 0, 0, side));
  for (float& value : values) {
    value = (static_cast<float>(generator() % 2001) / 1000.0F - 1.0F) * kPixelScale;
  }
  return values;
}

std::string StridedEngine::bytes() const {
  const ostrel::backbone::Shape input{batch, 3, open_sides ? -1 : height, open_sides ? -1 : width};
  ostrel::backbone::OnnxModelBuilder builder("strided");
  if (two_inputs) builder.input("unused", input);
  builder.input("input", input);
  for (int k = 0; k < outputs; ++k) {
    const std::int64_t side = kOutputStrides[k];
    const std::string weights_name = std::string(kOutputNames[k]) + "_weights";
    builder.constant(weights_name, {kOutputChannels[k], 3, side, side}, weights(k));
    ostrel::backbone::NodeAttributes attributes;
    attributes.lists = {{"kernel_shape", {side, side}}, {"strides", {side, side}}, {"pads", {0, 0, 0, 0}}};
    builder.node("Conv", {"input", weights_name}, {kOutputNames[k]}, attributes);
    builder.output(kOutputNames[k], {batch, kOutputChannels[k], open_sides ? -1 : height / side,
                                     open_sides ? -1 : width / side});
  }
  return builder.bytes();
}

FeatureMap StridedEngine::expected(int index, const cv::Mat& patch) const {
  const int side = kOutputStrides[index];
  const std::vector<float> filter = weights(index);
  FeatureMap map{1, kOutputChannels[index], patch.rows / side, patch.cols / side, {}};
  for (int channel = 0; channel < map.channels; ++channel) {
    for (int y = 0; y < map.height; ++y) {
      for (int x = 0; x < map.width; ++x) {
        map.data.push_back(static_cast<float>(convolve_at(patch, filter, side, channel, y, x)));
      }
    }
  }
  return map;
}

cv::Mat random_patch(int height, int width, std::uint32_t seed) {
  std::mt19937 generator(seed);
  cv::Mat patch(height, width, CV_8UC3);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width * 3; ++x) patch.ptr(y)[x] = static_cast<unsigned char>(generator() % 256);
  }
  return patch;
}

void expect_same_features(const FeatureMap& expected, const FeatureMap& actual) {
  ASSERT_EQ(actual.samples, expected.samples);
  ASSERT_EQ(actual.channels, expected.channels);
  ASSERT_EQ(actual.height, expected.height);
  ASSERT_EQ(actual.width, expected.width);
  ASSERT_EQ(actual.data.size(), expected.data.size());
  for (std::size_t i = 0; i < expected.data.size(); ++i) {
    ASSERT_NEAR(actual.data[i], expected.data[i], kFeatureTolerance) << "value " << i;
  }
}

}  // namespace ostrel_test
