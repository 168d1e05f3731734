// What a user's ResNet-18 becomes: the same features, whatever dialect it was exported in.
#include <calibration.h>
#include <feature_trunk.h>
#include <gmock/gmock.h>
#include <model_report.h>
#include <trunk_match.h>

#include <algorithm>
#include <cmath>
#include <map>

#include "apps/ostrel_backbone/exported_resnet.h"
#include "platform/tensorrt_onednn/engine_fixture.h"

namespace ostrel::testing {
namespace {

using backbone::Feature;
using backbone::FeaturePlanes;
using backbone::FeatureTrunk;
using backbone::SourceInput;

constexpr int kSide = 64;
// Features are about 1; relative error of 32-bit sums over some thousand products, through 13 layers.
constexpr double kFloatTolerance = 5e-4;

Tensor tensor_of(const FeaturePlanes& planes) {
  Tensor tensor{{1, planes.channels, planes.height, planes.width}, {}};
  for (const double value : planes.values) tensor.values.push_back(static_cast<float>(value));
  return tensor;
}

std::string model_bytes(const FeatureTrunk& trunk, int side = kSide) {
  OnnxModelBuilder model("test");
  backbone::FeatureModelOptions options;
  options.input_size = side;
  check_feature_model(trunk, options);
  write_feature_model(trunk, options, &model);
  return model.bytes();
}

FeatureTrunk import(const std::string& bytes, int stride, Feature feature = Feature::kStage,
                    const SourceInput& input = {}) {
  return lay_out(match_trunk(backbone::read_source_graph(bytes), input), stride, feature);
}

FeaturePlanes picture() {
  return backbone::calibration_picture(kSide, 5);
}

// The features of the source network, once for all tests.
const std::vector<FeaturePlanes>& source_stages() {
  static const std::vector<FeaturePlanes> kStages = forward(resnet18(), picture());
  return kStages;
}

void expect_features(const FeatureTrunk& trunk, const FeaturePlanes& expected,
                     const FeaturePlanes& shown = picture()) {
  const auto found = run_model(model_bytes(trunk), {tensor_of(shown)});
  ASSERT_EQ(found.size(), 1U);
  expect_near(found[0], tensor_of(expected), kFloatTolerance);
}

std::vector<Dialect> dialects() {
  std::vector<Dialect> all(10);
  all[0].reason = "batch normalisation as nodes, a head, a named batch";
  all[1].reason = "batch normalisation folded by the exporter";
  all[1].folded = true;
  all[2].reason = "operator set 9, weights listed among the inputs, another head";
  all[2].opset = 9;
  all[2].listed_as_inputs = true;
  all[2].head = Dialect::Head::kReshape;
  all[3].reason = "operator set 17, weights in Constant nodes, numbers for names";
  all[3].opset = 17;
  all[3].constant_nodes = true;
  all[3].numbered = true;
  all[4].reason = "weights listed one by one, a fixed batch of four";
  all[4].float_data = true;
  all[4].batch = 4;
  all[4].head = Dialect::Head::kMatMul;
  all[5].reason = "Identity nodes everywhere";
  all[5].identities = true;
  all[6].reason = "the folded bias added by a node of its own";
  all[6].folded = true;
  all[6].split_bias = true;
  all[7].reason = "cut behind layer3, with a normalisation of its own";
  all[7].stages = 3;
  all[7].head = Dialect::Head::kNone;
  all[7].front = Dialect::Front::kBytes;
  all[8].reason = "a normalisation of its own that divides";
  all[8].front = Dialect::Front::kDivides;
  all[9].reason = "operator set 11, another input size";
  all[9].opset = 11;
  all[9].side = 288;
  return all;
}

TEST(TrunkImport, GivesTheSourcesFeaturesInEveryDialectUpToTheBorder) {
  for (const Dialect& dialect : dialects()) {
    SCOPED_TRACE(dialect.reason);
    const std::string bytes = export_resnet(resnet18(), dialect);
    expect_features(import(bytes, 16), source_stages()[2]);
  }
}

TEST(TrunkImport, CutsBehindTheStageOfTheStride) {
  const std::string bytes = export_resnet(resnet18(), {});
  EXPECT_GT(root_mean_square(source_stages()[1]), 0.1);  // there is something to compare
  expect_features(import(bytes, 8), source_stages()[1]);
  OnnxModelBuilder model("cut");
  write_feature_model(import(bytes, 8), {}, &model);
  const LoadedEngine loaded(model.bytes());
  ASSERT_EQ(loaded.engine->getNbIOTensors(), 2);
  EXPECT_EQ(shape_of(loaded.engine->getTensorShape("input")), (Shape{-1, 3, 192, 192}));
  EXPECT_EQ(shape_of(loaded.engine->getTensorShape("layer2")), (Shape{-1, 128, 24, 24}));
}

// Red and blue change places in the picture that the source network is shown, and in its own numbers.
TEST(TrunkImport, TakesANetworkThatWantsBlueFirst) {
  FeaturePlanes exchanged = picture();
  std::swap_ranges(exchanged.plane(0), exchanged.plane(0) + exchanged.plane_size(), exchanged.plane(2));
  SourceInput input;
  input.blue_first = true;
  Dialect dialect;
  dialect.stages = 3;
  // Given numbers are red, green, blue; the network's planes are blue, green, red.
  const auto given = forward(resnet18(), exchanged, {0.406, 0.456, 0.485}, {0.225, 0.224, 0.229});
  expect_features(import(export_resnet(resnet18(), dialect), 8, Feature::kStage, input), given[1]);
  dialect.front = Dialect::Front::kBytes;
  const auto own = forward(resnet18(), exchanged);
  expect_features(import(export_resnet(resnet18(), dialect), 8, Feature::kStage, input), own[1]);
}

TEST(TrunkImport, TakesTheMeanAndTheDeviationThatAreGiven) {
  SourceInput input;
  input.normalisation_given = true;
  input.mean = {0.5, 0.4, 0.3};
  input.deviation = {0.2, 0.25, 0.3};
  Dialect dialect;
  dialect.stages = 3;
  const std::string bytes = export_resnet(resnet18(), dialect);
  const auto expected = forward(resnet18(), picture(), input.mean, input.deviation);
  expect_features(import(bytes, 8, Feature::kStage, input), expected[1]);
  for (std::size_t i = 0; i < 3; ++i) {
    input.mean[i] *= 255.0;
    input.deviation[i] *= 255.0;
  }
  input.range = 255.0;
  expect_features(import(bytes, 8, Feature::kStage, input), expected[1]);
}

TEST(TrunkImport, TakesANetworkThatNormalisesPicturesOfZeroToOne) {
  SourceInput input;
  input.range = 1.0;
  Dialect dialect;
  dialect.stages = 3;
  dialect.front = Dialect::Front::kUnit;
  expect_features(import(export_resnet(resnet18(), dialect), 8, Feature::kStage, input), source_stages()[1]);
}

// Were the mean folded into the first convolution, the border would see black where it must see the mean.
TEST(TrunkImport, PadsBehindTheNormalisation) {
  FeaturePlanes mean(3, kSide, kSide);
  const double values[] = {0.485 * 255.0, 0.456 * 255.0, 0.406 * 255.0};
  for (int plane = 0; plane < 3; ++plane) std::fill_n(mean.plane(plane), mean.plane_size(), values[plane]);
  const FeatureTrunk trunk = import(export_resnet(resnet18(), {}), 8);
  FeaturePlanes normalised = mean;
  std::fill(normalised.values.begin(), normalised.values.end(), 0.0);
  const FeaturePlanes stem =
      convolve(normalised, trunk.network.stem);  // zeros inside as outside: all cells alike
  for (int channel = 0; channel < stem.channels; ++channel) {
    ASSERT_EQ(stem.plane(channel)[0], stem.plane(channel)[stem.plane_size() / 2 + 16]);
  }
  expect_features(trunk, forward(resnet18(), mean)[1], mean);
}

TEST(TrunkImport, WritesTheBatchTheSizeAndThePrecisionThatAreAskedFor) {
  const FeatureTrunk trunk = import(export_resnet(resnet18(), {}), 8);
  backbone::FeatureModelOptions options;
  options.batch = 2;
  options.input_size = 96;
  for (const auto& [precision, text] :
       std::map<backbone::Precision, std::string>{{backbone::Precision::kFloat32, "float32"},
                                                  {backbone::Precision::kBfloat16, "bfloat16"},
                                                  {backbone::Precision::kFloat16, "float16"}}) {
    options.precision = precision;
    OnnxModelBuilder model("asked");
    write_feature_model(trunk, options, &model);
    const backbone::ModelReport report = backbone::report_model(model.bytes());
    EXPECT_EQ(report.precision, text);
    EXPECT_EQ(report.inputs.front().shape, (Shape{2, 3, 96, 96}));
    EXPECT_EQ(report.outputs.front().port.shape, (Shape{2, 128, 12, 12}));
  }
}

// At every second cell of the dilated stage stands the strided one's value, the border included.
TEST(TrunkImport, DilatesWithoutChangingTheCellsOfTheStridedStage) {
  const FeatureTrunk trunk = import(export_resnet(resnet18(), {}), 8, Feature::kDilated);
  const auto found = run_model(model_bytes(trunk), {tensor_of(picture())});
  ASSERT_EQ(found[0].shape, (Shape{1, 256, 8, 8}));
  const FeaturePlanes& strided = source_stages()[2];
  double between = 0.0;
  for (int channel = 0; channel < 256; ++channel) {
    for (int y = 0; y < 4; ++y) {
      for (int x = 0; x < 4; ++x) {
        const std::size_t cell =
            (static_cast<std::size_t>(channel) * 8 + 2 * static_cast<std::size_t>(y)) * 8 +
            2 * static_cast<std::size_t>(x);
        ASSERT_NEAR(found[0].values[cell], strided.plane(channel)[y * 4 + x], kFloatTolerance);
        between += std::abs(found[0].values[cell + 1] - found[0].values[cell]);
      }
    }
  }
  EXPECT_GT(between, 1.0);  // and the cells between are no copies
  expect_near(found[0], tensor_of(plain_output(trunk, picture())), kFloatTolerance);
}

}  // namespace
}  // namespace ostrel::testing
