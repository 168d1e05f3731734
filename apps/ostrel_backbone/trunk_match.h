// Finds the trunk of ResNet-18 (He et al., "Deep residual learning for image recognition", 2016, table 1) in an
// exported model, whatever its nodes are called.
#pragma once

#include "source_graph.h"
#include "trunk_network.h"

namespace ostrel::backbone {

constexpr std::int64_t kOldestSourceOpset = 9;
constexpr std::int64_t kNewestSourceOpset = 17;

// How the source network wants its input.
struct SourceInput {
  std::array<double, 3> mean{0.485, 0.456, 0.406};  // red, green, blue; of ImageNet
  std::array<double, 3> deviation{0.229, 0.224, 0.225};
  bool normalisation_given = false;  // mean or deviation were asked for and are no defaults
  double range = 0.0;       // the largest value of a picture to which the numbers above, or the model's own
                            // normalisation, refer; 0: 1 for numbers that are given, 255 for the model's own
  bool blue_first = false;  // its plane 0 is blue
};

// The trunk with every normalisation folded, for planes red, green, blue of values 0 to 255; the normalisation of
// the picture stays in front (`mean`, `deviation`), since zeros are padded behind it. Its stages are layer1, layer2
// and layer3, as far as the model goes. A normalisation that the model itself begins with takes the place of
// `input`'s. Throws ModelError for an operator set outside 9 to 17 and for a
// graph that is no ResNet-18, with the place that differs.
TrunkNetwork match_trunk(const SourceGraph& graph, const SourceInput& input);

}  // namespace ostrel::backbone
