#include "trunk_network.h"

#include <cmath>

#include "calibration.h"
#include "random_normal.h"
#include "stem_filters.h"

namespace ostrel::backbone {
namespace {

constexpr int kCalibrationSide = 192;  // large enough for 144 places in the coarsest map
constexpr int kTinyCalibrationSide = 64;

Convolution random_convolution(int in, int out, int kernel, int stride, RandomNormal* normal) {
  Convolution convolution{in, out, kernel, stride, {}, {}};
  convolution.weights.resize(convolution.weights_per_output() * static_cast<std::size_t>(out));
  convolution.bias.assign(static_cast<std::size_t>(out), 0.0F);
  // He et al., "Delving deep into rectifiers", eq. 10.
  const double deviation = std::sqrt(2.0 / static_cast<double>(convolution.weights_per_output()));
  for (float& weight : convolution.weights) weight = static_cast<float>((*normal)() * deviation);
  return convolution;
}

ResidualBlock random_block(int in, int out, int stride, RandomNormal* normal) {
  ResidualBlock block;
  block.first = random_convolution(in, out, 3, stride, normal);
  block.second = random_convolution(out, out, 3, 1, normal);
  block.has_shortcut = stride != 1 || in != out;
  if (block.has_shortcut) block.shortcut = random_convolution(in, out, 1, stride, normal);
  return block;
}

Stage random_stage(const std::string& name, int blocks, int in, int out, int stride, RandomNormal* normal) {
  Stage stage{name, {}};
  for (int i = 0; i < blocks; ++i) {
    stage.blocks.push_back(random_block(i == 0 ? in : out, out, i == 0 ? stride : 1, normal));
  }
  return stage;
}

Convolution random_stem(int channels, int kernel, int stride, RandomNormal* normal) {
  Convolution stem = random_convolution(3, channels, kernel, stride, normal);
  set_stem_filters(&stem);
  return stem;
}

}  // namespace

TrunkNetwork make_random_trunk(bool tiny, std::uint32_t seed) {
  RandomNormal normal(seed);
  TrunkNetwork network;
  network.mean = {0.485 * 255.0, 0.456 * 255.0, 0.406 * 255.0};
  network.deviation = {0.229 * 255.0, 0.224 * 255.0, 0.225 * 255.0};
  if (tiny) {
    network.stem = random_stem(12, 3, 1, &normal);
    network.stages.push_back(random_stage("layer2", 1, 12, 8, 1, &normal));
    network.stages.push_back(random_stage("layer3", 1, 8, 16, 2, &normal));
  } else {
    network.stem = random_stem(64, 7, 2, &normal);
    network.stages.push_back(random_stage("layer1", 2, 64, 64, 1, &normal));
    network.stages.push_back(random_stage("layer2", 2, 64, 128, 2, &normal));
    network.stages.push_back(random_stage("layer3", 2, 128, 256, 2, &normal));
  }
  calibrate(&network, calibration_picture(tiny ? kTinyCalibrationSide : kCalibrationSide, seed));
  return network;
}

int map_side(const TrunkNetwork& network, std::size_t stage, int input_size) {
  int side = strided_size(input_size, network.stem.kernel, network.stem.stride);
  side = strided_size(side, kPoolKernel, kPoolStride);
  for (std::size_t i = 0; i <= stage; ++i) {
    const Convolution& first = network.stages[i].blocks.front().first;
    side = strided_size(side, first.kernel, first.stride);
  }
  return side;
}

}  // namespace ostrel::backbone
