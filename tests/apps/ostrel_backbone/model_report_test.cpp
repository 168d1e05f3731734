// What `inspect` tells about a model.
#include <gmock/gmock.h>
#include <model_error.h>
#include <model_report.h>
#include <onnx/onnx_pb.h>
#include <trunk_writer.h>

#include "apps/ostrel_backbone/exported_resnet.h"

namespace ostrel::backbone {
namespace {

using testing::Dialect;
using ::testing::HasSubstr;
using ::testing::StartsWith;

// One 3 x 3 convolution of stride 2 to 4 channels as "fine", a 1 x 1 of stride 2 on it to 6 channels as "coarse".
std::string two_layers(const std::vector<std::string>& outputs, int side, const Shape& input = {}) {
  OnnxModelBuilder model("two_layers");
  model.input("x", input.empty() ? Shape{-1, 3, side, side} : input);
  const auto layer = [&model](const std::string& name, const std::string& source, const Shape& shape) {
    const auto count = static_cast<std::size_t>(shape[0] * shape[1] * shape[2] * shape[3]);
    model.constant(name + "_w", shape, std::vector<float>(count, 0.1F));
    NodeAttributes attributes;
    const std::int64_t padding = (shape[2] - 1) / 2;
    attributes.lists = {{"strides", {2, 2}}, {"pads", {padding, padding, padding, padding}}};
    model.node("Conv", {source, name + "_w"}, {name}, attributes);
  };
  layer("fine", "x", {4, 3, 3, 3});
  layer("coarse", "fine", {6, 4, 1, 1});
  model.node("Relu", {"fine"}, {"third"});
  for (const std::string& name : outputs) {
    const std::int64_t half = (side + 1) / 2;
    const bool coarse = name == "coarse";
    model.output(name, {-1, coarse ? 6 : 4, coarse ? (half + 1) / 2 : half, coarse ? (half + 1) / 2 : half});
  }
  return model.bytes();
}

TEST(ModelReport, CountsTheWorkOfEachOutput) {
  const ModelReport report = report_model(two_layers({"fine", "coarse"}, 192));
  const double fine = 96.0 * 96 * 4 * 27;
  const double coarse = 48.0 * 48 * 6 * 4;
  ASSERT_EQ(report.outputs.size(), 2U);
  EXPECT_EQ(report.outputs[0].multiply_adds, fine);
  EXPECT_EQ(report.outputs[1].multiply_adds, fine + coarse);
  EXPECT_EQ(report.multiply_adds, fine + coarse);
  EXPECT_EQ(report.parameters, 4 * 27 + 6 * 4);
  EXPECT_EQ(report.operations, (std::map<std::string, int>{{"Conv", 2}, {"Relu", 1}}));
  EXPECT_EQ(report.outputs[1].port.shape, (Shape{-1, 6, 48, 48}));
  EXPECT_EQ(report.opset, 13);
  EXPECT_EQ(report.precision, "float32");
}

TEST(ModelReport, ReadsAsLinesThatAScriptCanCut) {
  const std::string bytes = two_layers({"fine", "coarse"}, 192);
  EXPECT_EQ(report_text(report_model(bytes)),
            "file         " + std::to_string(bytes.size()) +
                " bytes, operator set 13, made by ostrel_backbone\n"
                "input        x [?, 3, 192, 192]\n"
                "output       fine [?, 4, 96, 96], 1.0 million multiply-adds\n"
                "output       coarse [?, 6, 48, 48], 1.1 million multiply-adds\n"
                "operations   Conv 2, Relu 1\n"
                "parameters   132\n"
                "work         1.1 million multiply-adds a sample\n"
                "precision    float32\n"
                "verdict      the tracker takes it: features from \"coarse\", 6 channels, stride 4 (\"fine\" "
                "is not "
                "read)\n");
}

TEST(ModelReport, TellsTheTrunksFigures) {
  TrunkOptions options;
  options.precision = Precision::kBfloat16;
  const ModelReport report = report_model(trunk_bytes(options));
  // He et al., table 1, cut behind conv4_x, for 192 x 192: layer by layer, by hand.
  const double stem = 96.0 * 96 * 64 * 147;
  const double layer1 = 4.0 * 48 * 48 * 64 * 576;
  const double layer2 = 24.0 * 24 * 128 * (576 + 64 + 3 * 1152);
  const double layer3 = 12.0 * 12 * 256 * (1152 + 128 + 3 * 2304);
  EXPECT_EQ(report.outputs[0].multiply_adds, stem + layer1 + layer2);
  EXPECT_EQ(report.outputs[1].multiply_adds, stem + layer1 + layer2 + layer3);
  EXPECT_EQ(report.precision, "bfloat16");
  EXPECT_TRUE(report.taken);
  EXPECT_EQ(
      report.verdict,
      "the tracker takes it: features from \"layer3\", 256 channels, stride 16 (\"layer2\" is not read)");
}

TEST(ModelReport, SaysWhyTheTrackerWouldNotTakeAModel) {
  struct Case {
    const char* verdict;
    std::string bytes;
  };
  OnnxModelBuilder two_inputs("two_inputs");
  two_inputs.input("x", {-1, 3, 32, 32}).input("y", {-1, 3, 32, 32}).node("Add", {"x", "y"}, {"z"});
  two_inputs.output("z", {-1, 3, 32, 32});
  OnnxModelBuilder grey("grey");
  grey.input("x", {-1, 1, 32, 32}).node("Relu", {"x"}, {"z"}).output("z", {-1, 1, 32, 32});
  OnnxModelBuilder flat("flat");
  flat.input("x", {-1, 3, 32}).node("Relu", {"x"}, {"z"}).output("z", {-1, 3, 32});
  OnnxModelBuilder unknown("unknown");
  unknown.input("x", {-1, 3, 32, 32}).node("Tanh", {"x"}, {"z"}).output("z", {-1, 3, 32, 32});
  OnnxModelBuilder other_batch("other_batch");
  other_batch.input("x", {-1, 3, 32, 32}).node("Relu", {"x"}, {"z"}).output("z", {1, 3, 32, 32});
  const Case cases[] = {
      {"it has 2 inputs, one is wanted", two_inputs.bytes()},
      {"its input [?, 1, 32, 32] is not batch x 3 x height x width", grey.bytes()},
      {"its input [?, 3, 32] is not batch x 3 x height x width", flat.bytes()},
      {"its pictures are 32 x 32, the tracker's are 192 x 192", two_layers({"fine", "coarse"}, 32)},
      {"its batch is fixed at 3, but the start of a run shows it single pictures",
       two_layers({"fine"}, 192, {3, 3, 192, 192})},
      {"it has 3 outputs, one or two are wanted", two_layers({"fine", "coarse", "third"}, 32)},
      {"its features \"coarse\" [?, 6, 7, 7] have an odd side", two_layers({"fine", "coarse"}, 28)},
      {"its features \"fine\" [?, 4, 15, 15] have an odd side", two_layers({"fine"}, 30)},
      {"output \"z\" has another batch than the input", other_batch.bytes()},
      {"operator \"Tanh\" of node \"z\" is not supported", unknown.bytes()},
  };
  for (const Case& test : cases) {
    const ModelReport report = report_model(test.bytes);
    EXPECT_FALSE(report.taken);
    EXPECT_EQ(report.verdict, std::string("the tracker does not take it: ") + test.verdict);
  }
}

// Only the features that are read must have even sides.
TEST(ModelReport, LooksAtTheOutputThatIsRead) {
  EXPECT_EQ(report_model(two_layers({"fine", "coarse"}, 30)).verdict,
            "the tracker does not take it: its pictures are 30 x 30, the tracker's are 192 x 192");
  EXPECT_TRUE(report_model(two_layers({"coarse"}, 192)).taken);
  EXPECT_TRUE(report_model(two_layers({"fine"}, 192, {-1, 3, -1, -1})).taken);
}

TEST(ModelReport, TellsWhatABatchOfOneMeans) {
  TrunkOptions options;
  options.batch = 1;
  options.outputs = TrunkOutputs::kLayer2;
  EXPECT_EQ(
      report_model(trunk_bytes(options)).verdict,
      "the tracker takes it: features from \"layer2\", 128 channels, stride 8; with its batch of one at one "
      "search scale only ([1.0])");
}

TEST(ModelReport, PointsToTheImportForAWholeResnet) {
  const ModelReport report = report_model(export_resnet(testing::resnet18(), {}));
  EXPECT_FALSE(report.taken);
  EXPECT_THAT(report.verdict,
              HasSubstr("it is a ResNet-18 up to layer3 and `ostrel_backbone import` can cut it"));
  EXPECT_THAT(report_text(report), HasSubstr("work         not counted: operator \"GlobalAveragePool\""));
  EXPECT_THAT(report_text(report), ::testing::Not(HasSubstr("0.0 million")));
  EXPECT_GT(report.parameters, 11000000);
  const ModelReport trunk = report_model(trunk_bytes({}));  // counted from its graph
  EXPECT_EQ(report.trunk_multiply_adds, trunk.multiply_adds);
  EXPECT_THAT(report_text(report),
              HasSubstr("its trunk    1030.4 million multiply-adds a sample of 192 x 192 up to layer3\n"));
  EXPECT_THAT(report_text(trunk), ::testing::Not(HasSubstr("its trunk")));
}

TEST(ModelReport, IsMadeForOldModelsAndForWeightsThatLieElsewhere) {
  Dialect old;
  old.stages = 3;
  old.opset = 9;
  EXPECT_THAT(report_model(export_resnet(testing::resnet18(), old)).verdict,
              StartsWith("the tracker does not take it: operator set 9 is not supported; it is a ResNet-18"));
  Dialect plain;
  plain.stages = 3;
  const std::string elsewhere = export_resnet(testing::resnet18(), plain, [](onnx::ModelProto* model) {
    auto* weights = model->mutable_graph()->mutable_initializer(0);
    weights->clear_raw_data();
    weights->set_data_location(onnx::TensorProto::EXTERNAL);
  });
  EXPECT_EQ(report_model(elsewhere).verdict,
            "the tracker does not take it: constant \"conv1.weight\" lies outside the model's bytes");
}

TEST(ModelReport, IsRefusedForBytesThatAreNoModel) {
  EXPECT_THROW(report_model("no model"), ModelError);
  EXPECT_THROW(report_model(""), ModelError);
}

}  // namespace
}  // namespace ostrel::backbone
