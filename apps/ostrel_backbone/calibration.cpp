#include "calibration.h"

#include <algorithm>
#include <cmath>

#include "random_normal.h"

namespace ostrel::backbone {
namespace {

constexpr double kBranchDeviation = 0.5;  // the shortcut leads, so that places stay sharp
constexpr double kGrid = 65536.0;  // scales and shifts lie on a grid of 2^-16: the same on every machine
constexpr double kSmallestDeviation = 1e-3;
constexpr int kRectangles = 64;

double on_grid(double value) {
  return std::round(value * kGrid) / kGrid;
}

struct Moments {
  double mean;
  double deviation;
};

Moments moments(const double* values, std::size_t count) {
  double sum = 0.0;
  for (std::size_t i = 0; i < count; ++i) sum += values[i];
  const double mean = sum / static_cast<double>(count);
  double squares = 0.0;
  for (std::size_t i = 0; i < count; ++i) squares += (values[i] - mean) * (values[i] - mean);
  return {mean, std::sqrt(squares / static_cast<double>(count))};
}

void scale_filter(Convolution* convolution, int out, double scale) {
  float* weight =
      convolution->weights.data() + convolution->weights_per_output() * static_cast<std::size_t>(out);
  for (std::size_t i = 0; i < convolution->weights_per_output(); ++i) {
    weight[i] = static_cast<float>(weight[i] * scale);
  }
}

void scale_bias(Convolution* convolution, double scale) {
  for (float& value : convolution->bias) value = static_cast<float>(value * scale);
}

void scale_output(Convolution* convolution, double scale) {
  for (int out = 0; out < convolution->out_channels; ++out) scale_filter(convolution, out, scale);
  scale_bias(convolution, scale);
}

// Centres and scales every output channel; returns the calibrated convolution's output.
FeaturePlanes normalise(Convolution* convolution, const FeaturePlanes& source, double deviation) {
  FeaturePlanes planes = convolve(source, *convolution);
  for (int out = 0; out < convolution->out_channels; ++out) {
    double* const values = planes.plane(out);
    const Moments found = moments(values, planes.plane_size());
    const double scale = on_grid(deviation / std::max(found.deviation, kSmallestDeviation));
    const double shift = on_grid(-found.mean * scale);
    scale_filter(convolution, out, scale);
    convolution->bias[static_cast<std::size_t>(out)] = static_cast<float>(shift);
    for (std::size_t i = 0; i < planes.plane_size(); ++i) values[i] = values[i] * scale + shift;
  }
  return planes;
}

FeaturePlanes run_block(const ResidualBlock& block, const FeaturePlanes& source) {
  FeaturePlanes inner = convolve(source, block.first);
  rectify(&inner);
  FeaturePlanes target = convolve(inner, block.second);
  add(&target, block.has_shortcut ? convolve(source, block.shortcut) : source);
  rectify(&target);
  return target;
}

FeaturePlanes calibrate_block(ResidualBlock* block, const FeaturePlanes& source) {
  FeaturePlanes inner = normalise(&block->first, source, 1.0);
  rectify(&inner);
  FeaturePlanes target = normalise(&block->second, inner, kBranchDeviation);
  add(&target, block->has_shortcut ? normalise(&block->shortcut, source, 1.0) : source);
  rectify(&target);
  return target;
}

// Multiplies the output of a stage. A block with a convolution in its shortcut takes the scale in its last
// convolutions; behind it everything is positively homogeneous but for the biases.
void scale_stage(Stage* stage, double scale) {
  for (ResidualBlock& block : stage->blocks) {
    if (block.has_shortcut) {
      scale_output(&block.second, scale);
      scale_output(&block.shortcut, scale);
    } else {
      scale_bias(&block.first, scale);
      scale_bias(&block.second, scale);
    }
  }
}

FeaturePlanes normalised_picture(const TrunkNetwork& network, const FeaturePlanes& picture) {
  FeaturePlanes planes = picture;
  for (int channel = 0; channel < 3; ++channel) {
    const auto c = static_cast<std::size_t>(channel);
    double* values = planes.plane(channel);
    for (std::size_t i = 0; i < planes.plane_size(); ++i) {
      values[i] = (values[i] - network.mean[c]) / network.deviation[c];
    }
  }
  return planes;
}

void draw_rectangle(FeaturePlanes* picture, RandomNormal* random) {
  const int side = picture->width;
  const int left = random->below(side);
  const int top = random->below(side);
  const int right = std::min(side, left + 2 + random->below(side / 4 + 1));
  const int bottom = std::min(side, top + 2 + random->below(side / 4 + 1));
  for (int channel = 0; channel < 3; ++channel) {
    const double colour = random->below(256);
    for (int y = top; y < bottom; ++y) {
      std::fill(picture->plane(channel) + static_cast<std::ptrdiff_t>(y) * side + left,
                picture->plane(channel) + static_cast<std::ptrdiff_t>(y) * side + right, colour);
    }
  }
}

void draw_ground(FeaturePlanes* picture, RandomNormal* random) {
  for (int channel = 0; channel < 3; ++channel) {
    const double corner = 60 + random->below(80);
    double* value = picture->plane(channel);
    for (int y = 0; y < picture->height; ++y) {
      for (int x = 0; x < picture->width; ++x) *value++ = corner + 60.0 * (x + y) / (2.0 * picture->width);
    }
  }
}

}  // namespace

FeaturePlanes calibration_picture(int side, std::uint32_t seed) {
  RandomNormal random(seed ^ 0x5ca1ab1eU);
  FeaturePlanes picture(3, side, side);
  draw_ground(&picture, &random);
  for (int i = 0; i < kRectangles; ++i) draw_rectangle(&picture, &random);
  for (double& value : picture.values) value = std::clamp(std::round(value + 4.0 * random()), 0.0, 255.0);
  return picture;
}

void calibrate(TrunkNetwork* network, const FeaturePlanes& picture) {
  FeaturePlanes planes = normalise(&network->stem, normalised_picture(*network, picture), 1.0);
  rectify(&planes);
  planes = max_pool(planes, kPoolKernel, kPoolStride);
  for (Stage& stage : network->stages) {
    for (ResidualBlock& block : stage.blocks) planes = calibrate_block(&block, planes);
    // Without a convolution in its first shortcut a stage would have to scale its input; that is no output's stage.
    if (!stage.blocks.front().has_shortcut) continue;
    const double scale = on_grid(kOutputRms / root_mean_square(planes));
    scale_stage(&stage, scale);
    for (double& value : planes.values) value *= scale;
  }
}

std::vector<FeaturePlanes> run_trunk(const TrunkNetwork& network, const FeaturePlanes& picture) {
  FeaturePlanes planes = convolve(normalised_picture(network, picture), network.stem);
  rectify(&planes);
  planes = max_pool(planes, kPoolKernel, kPoolStride);
  std::vector<FeaturePlanes> outputs;
  for (const Stage& stage : network.stages) {
    for (const ResidualBlock& block : stage.blocks) planes = run_block(block, planes);
    outputs.push_back(planes);
  }
  return outputs;
}

}  // namespace ostrel::backbone
