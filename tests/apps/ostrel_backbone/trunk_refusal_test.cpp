// Graphs that are no ResNet-18, or not whole: one line each that says where and how.
#include <feature_trunk.h>
#include <gmock/gmock.h>
#include <model_error.h>
#include <onnx/onnx_pb.h>
#include <trunk_match.h>

#include <limits>

#include "apps/ostrel_backbone/exported_resnet.h"

namespace ostrel::testing {
namespace {

using backbone::Feature;
using backbone::FeatureTrunk;
using backbone::ModelError;
using backbone::SourceInput;
using ::testing::HasSubstr;

// Cut behind layer3: the rest is heavy and plays no part here.
Dialect cut() {
  Dialect dialect;
  dialect.stages = 3;
  return dialect;
}

std::string refusal(const std::string& bytes, const SourceInput& input = {}) {
  try {
    match_trunk(backbone::read_source_graph(bytes), input);
  } catch (const ModelError& failure) {
    return failure.what();
  }
  return "taken";
}

onnx::NodeProto* nth(onnx::ModelProto* model, const std::string& operation, int index) {
  for (auto& node : *model->mutable_graph()->mutable_node()) {
    if (node.op_type() == operation && index-- == 0) return &node;
  }
  ADD_FAILURE() << "no " << operation;
  return nullptr;
}

onnx::AttributeProto* attribute(onnx::NodeProto* node, const std::string& name) {
  for (auto& found : *node->mutable_attribute()) {
    if (found.name() == name) return &found;
  }
  auto* added = node->add_attribute();
  added->set_name(name);
  return added;
}

void set_number(onnx::NodeProto* node, const std::string& name, std::int64_t value) {
  auto* found = attribute(node, name);
  found->set_type(onnx::AttributeProto::INT);
  found->set_i(value);
}

void set_numbers(onnx::NodeProto* node, const std::string& name, const std::vector<std::int64_t>& values) {
  auto* found = attribute(node, name);
  found->set_type(onnx::AttributeProto::INTS);
  found->clear_ints();
  for (const std::int64_t value : values) found->add_ints(value);
}

onnx::TensorProto* tensor(onnx::ModelProto* model, const std::string& name) {
  for (auto& found : *model->mutable_graph()->mutable_initializer()) {
    if (found.name() == name) return &found;
  }
  ADD_FAILURE() << "no " << name;
  return nullptr;
}

struct ChangedCase {
  const char* text;
  void (*change)(onnx::ModelProto* model);
};

TEST(TrunkRefusal, SaysWhatIsWrongWithTheFile) {
  const std::string bytes = export_resnet(resnet18(), cut());
  EXPECT_EQ(refusal(bytes), "taken");
  EXPECT_EQ(refusal(""), "no ONNX model");
  EXPECT_EQ(refusal("a picture, not a model"), "no ONNX model");
  EXPECT_EQ(refusal(bytes.substr(0, bytes.size() / 2)), "no ONNX model");
}

TEST(TrunkRefusal, SaysWhatIsWrongWithTheGraph) {
  const ChangedCase cases[] = {
      {"operator set 8 is outside 9 to 17", [](auto* m) { m->mutable_opset_import(0)->set_version(8); }},
      {"operator set 18 is outside 9 to 17", [](auto* m) { m->mutable_opset_import(0)->set_version(18); }},
      {"the model names no operator set", [](auto* m) { m->clear_opset_import(); }},
      {"the model has no input", [](auto* m) { m->mutable_graph()->clear_input(); }},
      {"the model has 2 inputs; one picture is wanted",
       [](auto* m) {
         auto* second = m->mutable_graph()->add_input();
         *second = m->graph().input(0);
         second->set_name("mask");
       }},
      {"has the shape [?, 1, 224, 224]; batch x 3 x height x width is wanted",
       [](auto* m) {
         auto* shape =
             m->mutable_graph()->mutable_input(0)->mutable_type()->mutable_tensor_type()->mutable_shape();
         shape->mutable_dim(1)->set_dim_value(1);
       }},
      {"layer1, block 0: unknown operation HardSwish (node \"Relu_",
       [](auto* m) { nth(m, "Relu", 1)->set_op_type("HardSwish"); }},
      {"layer2, block 1: unknown operation com.example.Relu (node \"Relu_",
       [](auto* m) { nth(m, "Relu", 7)->set_domain("com.example"); }},
      {"the stem: Relu expected behind \"BatchNormalization_",
       [](auto* m) { nth(m, "Relu", 0)->set_op_type("Softmax"); }},
      {"is not the maximum of 3 x 3 with stride 2, padded by 1",
       [](auto* m) { set_number(nth(m, "MaxPool", 0), "ceil_mode", 1); }},
      {"is not the maximum of 3 x 3 with stride 2, padded by 1",
       [](auto* m) {
         set_numbers(nth(m, "MaxPool", 0), "pads", {0, 0, 1, 1});
       }},
      {"the stem: Conv (node \"Conv_",
       [](auto* m) {
         set_numbers(nth(m, "Conv", 0), "pads", {2, 2, 3, 3});
       }},
      {"is not padded by 3 on every side",
       [](auto* m) {
         set_numbers(nth(m, "Conv", 0), "pads", {2, 2, 3, 3});
       }},
      {"is grouped", [](auto* m) { set_number(nth(m, "Conv", 1), "group", 64); }},
      {"is dilated",
       [](auto* m) {
         set_numbers(nth(m, "Conv", 2), "dilations", {2, 2});
       }},
      {"has the strides [2, 1]",
       [](auto* m) {
         set_numbers(nth(m, "Conv", 2), "strides", {2, 1});
       }},
      {"layer1, block 0: a convolution is 3 x 3 of stride 2, 64 to 64 channels, expected 3 x 3 of stride 1",
       [](auto* m) {
         set_numbers(nth(m, "Conv", 1), "strides", {2, 2});
       }},
      {"has a kernel_shape that differs from its weights",
       [](auto* m) {
         set_numbers(nth(m, "Conv", 1), "kernel_shape", {5, 5});
       }},
      {"does not add the block's source",
       [](auto* m) { nth(m, "Add", 1)->set_input(1, nth(m, "MaxPool", 0)->output(0)); }},
      {"reads the weights \"layer1.0.conv1.weight\", which the model does not hold",
       [](auto* m) { tensor(m, "layer1.0.conv1.weight")->set_name("lost"); }},
      {"weights are missing: Conv (node \"Conv_",
       [](auto* m) {
         auto* weights = tensor(m, "layer1.0.conv1.weight");
         m->mutable_graph()->add_input()->set_name(weights->name());
         weights->set_name("lost");
       }},
      {"\"conv1.weight\" lies in another file; save the model with its weights inside",
       [](auto* m) {
         tensor(m, "conv1.weight")->clear_raw_data();
         tensor(m, "conv1.weight")->set_data_location(onnx::TensorProto::EXTERNAL);
       }},
      {"\"conv1.weight\" holds FLOAT16; weights must be 32-bit floats",
       [](auto* m) { tensor(m, "conv1.weight")->set_data_type(onnx::TensorProto::FLOAT16); }},
      {"of shape [64, 3, 7, 6] has a wrong amount of data",
       [](auto* m) { tensor(m, "conv1.weight")->set_dims(3, 6); }},
      {"constant \"conv1.weight\" has the shape [64, 3, ?, 7]",
       [](auto* m) { tensor(m, "conv1.weight")->set_dims(2, -7); }},
      {"has a parameter of shape [64] for 128 channels",
       [](auto* m) {
         const auto beta = *tensor(m, "conv1.beta");
         auto* target = tensor(m, "layer2.0.conv1.beta");
         const std::string name = target->name();
         *target = beta;
         target->set_name(name);
       }},
      {"is in training mode",
       [](auto* m) { set_number(nth(m, "BatchNormalization", 3), "training_mode", 1); }},
      {"has a negative variance",
       [](auto* m) {
         auto* variance = tensor(m, "conv1.variance");
         const std::vector<float> values(64, -1.0F);
         variance->set_raw_data(values.data(), values.size() * sizeof(float));
       }},
      {"\"conv1.gamma\" holds values that are no finite numbers",
       [](auto* m) {
         auto* gamma = tensor(m, "conv1.gamma");
         const std::vector<float> values(64, std::numeric_limits<float>::infinity());
         gamma->set_raw_data(values.data(), values.size() * sizeof(float));
       }},
      {"where the model ends", [](auto* m) {
         auto* nodes = m->mutable_graph()->mutable_node();
         while (nodes->Get(nodes->size() - 1).op_type() != "Add") nodes->RemoveLast();
       }}};
  for (const ChangedCase& test : cases) {
    SCOPED_TRACE(test.text);
    const std::string text = refusal(export_resnet(resnet18(), cut(), test.change));
    EXPECT_THAT(text, HasSubstr(test.text));
    EXPECT_EQ(text.find('\n'), std::string::npos);
  }
}

TEST(TrunkRefusal, NamesTheStageThatDiffers) {
  const auto shaped = [](void (*change)(ResnetShape*)) {
    ResnetShape shape;
    shape.channels = {64, 128, 256, 16};
    change(&shape);
    return refusal(export_resnet(make_resnet(shape, 1), cut()));
  };
  EXPECT_EQ(shaped([](ResnetShape* s) {
              s->blocks = {3, 4, 6, 3};
            }),
            "no ResNet-18: layer1: has more than 2 blocks, as ResNet-34 has");
  EXPECT_EQ(shaped([](ResnetShape* s) {
              s->blocks = {2, 3, 2, 1};
            }),
            "no ResNet-18: layer2: has more than 2 blocks, as ResNet-34 has");
  EXPECT_EQ(shaped([](ResnetShape* s) {
              s->blocks = {2, 2, 1, 1};
            }),
            "no ResNet-18: layer3: has 1 block, ResNet-18 has 2");
  EXPECT_EQ(
      shaped([](ResnetShape* s) { s->bottleneck = true; }),
      "no ResNet-18: layer1, block 0: begins with a 1 x 1 convolution: a bottleneck block, as in ResNet-50");
  EXPECT_EQ(shaped([](ResnetShape* s) { s->channels[1] = 96; }),
            "no ResNet-18: layer2, block 0: a convolution is 3 x 3 of stride 2, 64 to 96 channels, expected "
            "3 x 3 of "
            "stride 2, 64 to 128 channels");
  EXPECT_EQ(shaped([](ResnetShape* s) { s->channels[0] = 32; }),
            "no ResNet-18: the stem: a convolution is 7 x 7 of stride 2, 3 to 32 channels, expected 7 x 7 of "
            "stride "
            "2, 3 to 64 channels");
  EXPECT_EQ(shaped([](ResnetShape* s) { s->first_stride = 2; }),
            "no ResNet-18: layer1, block 0: a convolution is 3 x 3 of stride 2, 64 to 64 channels, expected "
            "3 x 3 of "
            "stride 1, 64 to 64 channels");
}

TEST(TrunkRefusal, LooksAtTheFourthStageToo) {
  ResnetShape shape;
  shape.blocks = {2, 2, 2, 1};
  EXPECT_EQ(refusal(export_resnet(make_resnet(shape, 1), {})),
            "no ResNet-18: layer4: has 1 block, ResNet-18 has 2");
}

FeatureTrunk laid_out(int stages, int stride, Feature feature) {
  Dialect dialect;
  dialect.stages = stages;
  dialect.head = Dialect::Head::kNone;
  return lay_out(match_trunk(backbone::read_source_graph(export_resnet(resnet18(), dialect)), {}), stride,
                 feature);
}

std::string layout_refusal(int stages, int stride, Feature feature, int side = 192, bool neck = false) {
  try {
    FeatureTrunk trunk = laid_out(stages, stride, feature);
    trunk.has_neck = neck;
    backbone::FeatureModelOptions options;
    options.input_size = side;
    check_feature_model(trunk, options);
  } catch (const ModelError& failure) {
    return failure.what();
  }
  return "taken";
}

TEST(FeatureLayout, IsRefusedWithAReason) {
  EXPECT_EQ(layout_refusal(2, 8, Feature::kStage), "taken");
  EXPECT_EQ(layout_refusal(2, 16, Feature::kStage), "the model ends behind layer2; layer3 is wanted");
  EXPECT_EQ(layout_refusal(2, 8, Feature::kDilated), "the model ends behind layer2; layer3 is wanted");
  EXPECT_EQ(layout_refusal(2, 8, Feature::kJoined), "the model ends behind layer2; layer3 is wanted");
  EXPECT_EQ(layout_refusal(1, 8, Feature::kStage), "the model ends behind layer1; layer2 is wanted");
  EXPECT_EQ(layout_refusal(0, 8, Feature::kStage), "no ResNet-18: layer1: is missing");
  EXPECT_EQ(layout_refusal(3, 32, Feature::kStage), "stride 32 is neither 8 nor 16");
  EXPECT_EQ(layout_refusal(3, 16, Feature::kDilated), "dilated and joined features have stride 8, not 16");
  EXPECT_EQ(layout_refusal(3, 16, Feature::kJoined), "dilated and joined features have stride 8, not 16");
  EXPECT_EQ(layout_refusal(3, 8, Feature::kJoined), "joined features need a neck");
  EXPECT_EQ(layout_refusal(3, 8, Feature::kJoined, 192, true), "taken");
}

// An odd map inside does no harm; an odd output has no middle for the frequencies of an even search region.
TEST(FeatureLayout, RefusesAnOutputWithOddSides) {
  EXPECT_EQ(layout_refusal(3, 16, Feature::kStage, 200), "odd map sides: input 200 gives maps of 13 x 13");
  EXPECT_EQ(layout_refusal(3, 8, Feature::kStage, 200), "odd map sides: input 200 gives maps of 25 x 25");
  EXPECT_EQ(layout_refusal(3, 16, Feature::kStage, 176), "odd map sides: input 176 gives maps of 11 x 11");
  EXPECT_EQ(layout_refusal(3, 8, Feature::kStage, 176), "taken");
  EXPECT_EQ(layout_refusal(3, 8, Feature::kDilated, 176), "taken");
  EXPECT_EQ(layout_refusal(3, 8, Feature::kDilated, 200), "odd map sides: input 200 gives maps of 25 x 25");
  EXPECT_EQ(layout_refusal(3, 8, Feature::kJoined, 176, true), "taken");
  EXPECT_EQ(layout_refusal(3, 8, Feature::kStage, 8), "input size 8 is outside 16 to 1024");
  EXPECT_EQ(layout_refusal(3, 8, Feature::kStage, 1040), "input size 1040 is outside 16 to 1024");
}

TEST(SourceNormalisation, IsTakenFromOnePlaceOnly) {
  Dialect own = cut();
  own.front = Dialect::Front::kBytes;
  SourceInput given;
  given.normalisation_given = true;
  EXPECT_EQ(refusal(export_resnet(resnet18(), own), given),
            "the model normalises its input itself: a mean and a deviation cannot be given");
}

TEST(SourceNormalisation, OfAnotherRangeIsNoticed) {
  Dialect own = cut();
  own.front = Dialect::Front::kUnit;
  const std::string bytes = export_resnet(resnet18(), own);
  EXPECT_EQ(
      refusal(bytes),
      "the model's own normalisation does not fit pictures of 0 to 255: say with --input-range which values "
      "they are for");
  SourceInput unit;
  unit.range = 1.0;
  EXPECT_EQ(refusal(bytes, unit), "taken");
  SourceInput byte_mean;
  byte_mean.mean = {123.0, 116.0, 103.0};
  byte_mean.deviation = {58.0, 57.0, 57.0};
  EXPECT_EQ(refusal(export_resnet(resnet18(), cut()), byte_mean),
            "the mean and the deviation do not fit pictures of 0 to 1: say with --input-range which values "
            "they are "
            "for");
  byte_mean.range = 255.0;
  EXPECT_EQ(refusal(export_resnet(resnet18(), cut()), byte_mean), "taken");
}

}  // namespace
}  // namespace ostrel::testing
