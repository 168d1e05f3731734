// A residual network with random weights, as a training framework would hold it, and its ONNX exports in the dialects
// that exporters speak.
#pragma once

#include <plain_forward.h>

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace onnx {
class ModelProto;
}

namespace ostrel::testing {

// A convolution without a bias and the batch normalisation behind it.
struct NormalisedLayer {
  backbone::Convolution convolution;
  std::vector<float> gamma;
  std::vector<float> beta;
  std::vector<float> mean;
  std::vector<float> variance;
};

struct SourceBlock {
  std::vector<NormalisedLayer> branch;    // two of 3 x 3, or the three of a bottleneck
  std::vector<NormalisedLayer> shortcut;  // none or one
};

struct SourceResnet {
  NormalisedLayer stem;
  std::vector<std::vector<SourceBlock>> stages;
};

struct ResnetShape {
  std::array<int, 4> blocks{2, 2, 2, 2};
  std::array<int, 4> channels{64, 128, 256, 512};
  bool bottleneck = false;
  int first_stride = 1;  // of layer1
};

SourceResnet make_resnet(const ResnetShape& shape, std::uint32_t seed);

// ResNet-18, made once.
const SourceResnet& resnet18();

struct Dialect {
  const char* reason = "plain";
  int opset = 13;
  bool folded = false;          // batch normalisation folded by the exporter
  bool constant_nodes = false;  // weights in Constant nodes
  bool float_data = false;      // weights listed one by one
  bool listed_as_inputs = false;
  bool identities = false;  // Identity nodes between, and before shared weights
  bool numbered = false;    // values called "12", nodes without names
  bool split_bias = false;  // the folded bias is added by a node of its own
  std::int64_t batch = -1;
  int side = 224;
  enum class Head { kGemm, kMatMul, kReshape, kNone } head = Head::kGemm;
  enum class Front { kNone, kBytes, kUnit, kDivides } front = Front::kNone;  // own normalisation
  int stages = 4;
};

std::string export_resnet(const SourceResnet& net, const Dialect& dialect);

// The same after a change of the model's fields.
std::string export_resnet(const SourceResnet& net, const Dialect& dialect,
                          const std::function<void(onnx::ModelProto*)>& change);

// What each stage gives for a picture of values 0 to 255, as the network means it: normalised first, then padded;
// batch normalisation by its formula. Double precision.
std::vector<backbone::FeaturePlanes> forward(const SourceResnet& net, const backbone::FeaturePlanes& picture,
                                             const std::array<double, 3>& mean = {0.485, 0.456, 0.406},
                                             const std::array<double, 3>& deviation = {0.229, 0.224, 0.225});

}  // namespace ostrel::testing
