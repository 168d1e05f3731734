// Gives a random trunk the scales that training would have given it.
#pragma once

#include <cstdint>

#include "trunk_network.h"

namespace ostrel::backbone {

// Root mean square that each stage's output is scaled to.
constexpr double kOutputRms = 0.3;

// A picture of 3 x side x side with shaded ground, rectangles of random colour and some noise; values 0 to
// 255.
FeaturePlanes calibration_picture(int side, std::uint32_t seed);

// Runs the picture through the network, layer by layer, and folds into each convolution what batch
// normalisation over that picture would do; then scales each stage so that its output has kOutputRms.
void calibrate(TrunkNetwork* network, const FeaturePlanes& picture);

// Output of every stage for a picture of values 0 to 255.
std::vector<FeaturePlanes> run_trunk(const TrunkNetwork& network, const FeaturePlanes& picture);

}  // namespace ostrel::backbone
