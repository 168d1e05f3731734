// Writes the trunk of ResNet-18 (He et al., "Deep residual learning for image recognition", 2016, table 1) up
// to stride 16 as an ONNX model with random weights.
//
// Input `input`: N x 3 x H x W floats, red plane first, values 0 to 255; the normalisation is inside.
// Outputs `layer2` (stride 8, 128 channels) and `layer3` (stride 16, 256 channels), each scaled so that its
// root mean square on a picture of edges, colours and noise is about 0.3. The tiny variant has `layer2` at
// stride 2 with 8 channels and `layer3` at stride 4 with 16 channels.
//
// The same options give the same bytes on every machine.
#pragma once

#include <cstdint>
#include <string>

#include "trunk_graph.h"

namespace ostrel::backbone {

enum class TrunkOutputs { kLayer2, kLayer3, kBoth };

constexpr int kFullInputSize = 192;
constexpr int kTinyInputSize = 32;
constexpr int kSmallestInputSize = 16;
constexpr int kLargestInputSize = 1024;

struct TrunkOptions {
  std::uint32_t seed = 1;
  bool tiny = false;
  TrunkOutputs outputs = TrunkOutputs::kBoth;
  int batch = 0;                              // 0: settled when the model runs
  int input_size = 0;                         // height and width; 0: 192, or 32 for the tiny variant
  bool dynamic_spatial = false;               // height and width settled when the model runs
  Precision precision = Precision::kFloat32;  // asks for it; a machine without it runs float32
};

// False with a text for options that make no usable model; among them a size that gives an output map with an
// odd side: such a map has no middle for the frequencies of an even search region ("odd map sides").
bool check_trunk_options(const TrunkOptions& options, std::string* error);

// The model's bytes; empty with a text for unusable options.
std::string trunk_bytes(const TrunkOptions& options, std::string* error = nullptr);

// False with a text for unusable options or a file that cannot be written.
bool write_trunk(const TrunkOptions& options, const std::string& path, std::string* error = nullptr);

}  // namespace ostrel::backbone
