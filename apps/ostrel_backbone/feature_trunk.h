// A trunk and how the tracker's features are formed from its stages.
#pragma once

#include <string>
#include <vector>

#include "trunk_graph.h"
#include "trunk_network.h"

namespace ostrel::backbone {

enum class Feature {
  kStage,    // the last stage as it is
  kDilated,  // layer3 at the stride of layer2
  kJoined,   // layer2, and layer3 brought to the size of layer2
};

struct FeatureTrunk {
  TrunkNetwork network;  // up to the last stage that the features read
  Feature feature = Feature::kStage;
  bool has_neck = false;
  Convolution neck;          // 1 x 1, on the last stage; without a bias where the features are joined
  Convolution shallow_neck;  // joined: 1 x 1, on the stage before
};

// Cuts a trunk of layer1 to layer3 for a stride of 8 or 16 and lays its strides out for the feature. The neck is
// left to be made; kJoined cannot be written without one. Throws ModelError where the trunk has too few stages, and
// for a feature other than kStage at stride 16.
FeatureTrunk lay_out(const TrunkNetwork& trunk, int stride, Feature feature);

// The features before the neck, in double precision: channels of layer2 before those of layer3 where joined.
FeaturePlanes plain_features(const FeatureTrunk& trunk, const FeaturePlanes& picture);

// The same with the neck.
FeaturePlanes plain_output(const FeatureTrunk& trunk, const FeaturePlanes& picture);

int feature_channels(const FeatureTrunk& trunk);  // before the neck
int output_channels(const FeatureTrunk& trunk);
int output_side(const FeatureTrunk& trunk, int input_size);

struct FeatureModelOptions {
  int batch = 0;  // 0: settled when the model runs
  int input_size = 192;
  Precision precision = Precision::kFloat32;
};

// Throws ModelError for a size out of range or one that gives an output with odd sides.
void check_feature_model(const FeatureTrunk& trunk, const FeatureModelOptions& options);

// Input `input`, batch x 3 x size x size; one output, named after its stage, or `features` behind a neck.
// The options must have passed check_feature_model.
void write_feature_model(const FeatureTrunk& trunk, const FeatureModelOptions& options,
                         OnnxModelBuilder* model);

}  // namespace ostrel::backbone
