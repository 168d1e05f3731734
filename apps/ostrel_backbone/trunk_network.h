// The trunk as data: its layers, its random weights, and their calibration.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "plain_forward.h"

namespace ostrel::backbone {

// Two 3 x 3 convolutions and a shortcut, which is a 1 x 1 convolution where the shape changes.
struct ResidualBlock {
  Convolution first;
  Convolution second;
  Convolution shortcut;
  bool has_shortcut = false;
};

struct Stage {
  std::string name;
  std::vector<ResidualBlock> blocks;
};

// Stem convolution, 3 x 3 maximum of stride 2, then the stages.
struct TrunkNetwork {
  std::array<double, 3> mean{};  // of the planes red, green, blue
  std::array<double, 3> deviation{};
  Convolution stem;
  std::vector<Stage> stages;
};

constexpr int kPoolKernel = 3;
constexpr int kPoolStride = 2;

// Full: stem 7 x 7 of stride 2 with 64 channels, layer1 to layer3 of two blocks each.
// Tiny: stem 3 x 3 with 12 channels, layer2 and layer3 of one block each.
// The stem holds oriented edges, colour differences and random filters; every other convolution is random.
// Each channel is then centred and scaled on a generated picture, so that no channel is dead and none drowns
// the rest.
TrunkNetwork make_random_trunk(bool tiny, std::uint32_t seed);

// Side of the map that a stage gives for an input of `input_size`; `stage` counts from 0.
int map_side(const TrunkNetwork& network, std::size_t stage, int input_size);

}  // namespace ostrel::backbone
