// Bytes that are no usable model give no engine and one clear line, never a crash.
#include <gmock/gmock.h>
#include <onnx/onnx_pb.h>

#include <functional>
#include <random>

#include "platform/tensorrt_onednn/engine_fixture.h"

namespace ostrel::testing {
namespace {

using ::testing::HasSubstr;

// Expects a refusal with exactly one line, which holds `text`.
void expect_refused(const std::string& bytes, const std::string& text) {
  const LoadedEngine loaded(bytes);
  EXPECT_EQ(loaded.engine, nullptr);
  const auto lines = loaded.logger.lines(nvinfer1::ILogger::Severity::kERROR);
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_THAT(lines[0], HasSubstr("deserializeCudaEngine: "));
  EXPECT_THAT(lines[0], HasSubstr(text));
}

const Shape kShape{1, 2, 6, 6};

// One node from `x` to `y`, with constants that a case may read.
std::string one_node(const std::string& operation, const std::vector<std::string>& inputs,
                     const NodeAttributes& attributes = {}) {
  OnnxModelBuilder model("one");
  model.input("x", kShape);
  model.constant("w", {4, 2, 3, 3}, std::vector<float>(72, 0.5F));
  model.constant("w3", {4, 3, 3, 3}, std::vector<float>(108, 0.5F));
  model.constant("w1d", {4, 2, 3}, std::vector<float>(24, 0.5F));
  model.constant("five", {5}, std::vector<float>(5, 1.0F));
  model.constant("two", {2}, std::vector<float>(2, 1.0F));
  model.constant("scales", {4}, std::vector<float>{1, 1, 2, 2});
  model.constant("batch_scales", {4}, std::vector<float>{2, 1, 2, 2});
  model.constant("tiny_scales", {4}, std::vector<float>{1, 1, 0.01F, 1});
  model.constant("whole", {2}, std::vector<std::int64_t>{1, 2});
  return model.node(operation, inputs, {"y"}, attributes).output("y", {}).bytes();
}

NodeAttributes lists(const std::map<std::string, std::vector<std::int64_t>>& values) {
  NodeAttributes attributes;
  attributes.lists = values;
  return attributes;
}

NodeAttributes text(const std::string& name, const std::string& value) {
  NodeAttributes attributes;
  attributes.texts[name] = value;
  return attributes;
}

NodeAttributes integer(const std::string& name, std::int64_t value) {
  NodeAttributes attributes;
  attributes.integers[name] = value;
  return attributes;
}

TEST(RefusedNode, IsNamedWithItsReason) {
  struct Case {
    std::string operation;
    std::vector<std::string> inputs;
    NodeAttributes attributes;
    const char* reason;
  };
  const Case cases[] = {
      {"Softmax", {"x"}, {}, "operator \"Softmax\" of node \"y\" is not supported"},
      {"Gemm", {"x", "two"}, {}, "operator \"Gemm\" of node \"y\" is not supported"},
      {"Relu", {"nothing"}, {}, "tensor \"nothing\" is read before it is defined"},
      {"Relu", {"x", "x"}, {}, "wrong number of inputs"},
      {"Relu", {"two"}, {}, "reads a constant"},
      {"Add", {"x"}, {}, "wrong number of inputs"},
      {"Add", {"x", ""}, {}, "an input is missing"},
      {"Add", {"x", "whole"}, {}, "reads whole numbers"},
      {"Add", {"x", "five"}, {}, "do not match"},
      {"Conv", {"x"}, {}, "wrong number of inputs"},
      {"Conv", {"x", "x"}, {}, "input 1 must be a constant"},
      {"Conv", {"x", "whole"}, {}, "input 1 must hold floats"},
      {"Conv", {"x", "w1d"}, {}, "only convolutions of two dimensions are supported"},
      {"Conv", {"x", "w3"}, {}, "do not fit the channels"},
      {"Conv", {"x", "w", "two"}, {}, "the bias does not fit the weights"},
      {"Conv", {"x", "w"}, lists({{"kernel_shape", {5, 5}}}), "kernel_shape differs from the weights"},
      {"Conv", {"x", "w"}, lists({{"strides", {0, 1}}}), "attribute strides is out of range"},
      {"Conv", {"x", "w"}, lists({{"pads", {-1, 0, 0, 0}}}), "attribute pads is out of range"},
      {"Conv", {"x", "w"}, lists({{"pads", {0, 0}}}), "attribute pads is not for two dimensions"},
      {"Conv", {"x", "w"}, lists({{"dilations", {4, 4}}}), "is smaller than the window"},
      {"Conv", {"x", "w"}, integer("group", 3), "group does not divide the channels"},
      {"Conv", {"x", "w"}, integer("group", 0), "group does not divide the channels"},
      {"Conv", {"x", "w"}, integer("strides", 2), "attribute strides has a wrong type"},
      {"Conv", {"x", "w"}, text("auto_pad", "SOMEHOW"), "auto_pad \"SOMEHOW\" is not supported"},
      {"MaxPool", {"x"}, {}, "attribute kernel_shape is missing"},
      {"MaxPool",
       {"x"},
       lists({{"kernel_shape", {2, 2}}, {"pads", {2, 0, 0, 0}}}),
       "padding is not below the kernel"},
      {"MaxPool", {"x"}, lists({{"kernel_shape", {9, 9}}}), "is smaller than the window"},
      {"BatchNormalization", {"x", "two", "two", "two"}, {}, "wrong number of inputs"},
      {"BatchNormalization", {"x", "two", "two", "two", "five"}, {}, "parameters differ in size"},
      {"BatchNormalization", {"x", "five", "five", "five", "five"}, {}, "do not fit"},
      {"BatchNormalization", {"x", "two", "two", "two", "two"}, integer("training_mode", 1), "training_mode"},
      {"Resize", {"x"}, {}, "needs four constant scales or sizes"},
      {"Resize", {"x", "", "x"}, {}, "input 2 must be a constant"},
      {"Resize", {"x", "", "two"}, {}, "needs four constant scales or sizes"},
      {"Resize", {"x", "", "batch_scales"}, {}, "scales batch or channels"},
      {"Resize", {"x", "", "tiny_scales"}, {}, "gives a map without elements"},
      {"Resize", {"x", "", "scales"}, text("mode", "cubic"), "mode \"cubic\" is not supported"},
      {"Resize", {"x", "", "scales"}, text("nearest_mode", "odd"), "nearest_mode \"odd\" is not supported"},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.operation + ": " + test.reason);
    expect_refused(one_node(test.operation, test.inputs, test.attributes), test.reason);
  }
}

// A good model, changed as a message.
std::string changed(const std::function<void(onnx::ModelProto*)>& change) {
  onnx::ModelProto model;
  EXPECT_TRUE(model.ParseFromString(one_node("Conv", {"x", "w"})));
  change(&model);
  return model.SerializeAsString();
}

TEST(RefusedModel, IsToldWithItsReason) {
  struct Case {
    const char* reason;
    std::function<void(onnx::ModelProto*)> change;
  };
  const auto dim = [](onnx::ModelProto* model) {
    return model->mutable_graph()->mutable_input(0)->mutable_type()->mutable_tensor_type()->mutable_shape();
  };
  const Case cases[] = {
      {"the model has no graph with outputs", [](auto* model) { model->clear_graph(); }},
      {"the model has no graph with outputs", [](auto* model) { model->mutable_graph()->clear_output(); }},
      {"the model names no operator set", [](auto* model) { model->clear_opset_import(); }},
      {"operator set 9 is not supported",
       [](auto* model) { model->mutable_opset_import(0)->set_version(9); }},
      {"operator set 99 is not supported",
       [](auto* model) { model->mutable_opset_import(0)->set_version(99); }},
      {"has no shape of 1 to 8 dimensions", [&](auto* model) { dim(model)->clear_dim(); }},
      {"has a size out of range", [&](auto* model) { dim(model)->mutable_dim(0)->set_dim_value(1LL << 50); }},
      {"has a size out of range", [&](auto* model) { dim(model)->mutable_dim(3)->set_dim_value(0); }},
      {"does not hold 32-bit floats",
       [](auto* model) {
         model->mutable_graph()->mutable_input(0)->mutable_type()->mutable_tensor_type()->set_elem_type(
             onnx::TensorProto::UINT8);
       }},
      {"has a wrong amount of data",
       [](auto* model) { model->mutable_graph()->mutable_initializer(0)->set_dims(0, 5); }},
      {"has a wrong amount of data",
       [](auto* model) { model->mutable_graph()->mutable_initializer(0)->mutable_raw_data()->pop_back(); }},
      {"is too large",
       [](auto* model) {
         for (int i = 0; i < 4; ++i) model->mutable_graph()->mutable_initializer(0)->set_dims(i, 1 << 24);
       }},
      {"has no element count",
       [](auto* model) { model->mutable_graph()->mutable_initializer(0)->set_dims(0, -4); }},
      {"is neither FLOAT nor INT64",
       [](auto* model) {
         model->mutable_graph()->mutable_initializer(0)->set_data_type(onnx::TensorProto::DOUBLE);
       }},
      {"lies outside the model's bytes",
       [](auto* model) {
         model->mutable_graph()->mutable_initializer(0)->set_data_location(onnx::TensorProto::EXTERNAL);
       }},
      {"a tensor has no name",
       [](auto* model) { model->mutable_graph()->mutable_initializer(0)->clear_name(); }},
      {"tensor \"x\" is defined twice",
       [](auto* model) { model->mutable_graph()->mutable_node(0)->set_output(0, "x"); }},
      {"must have one output", [](auto* model) { model->mutable_graph()->mutable_node(0)->add_output("z"); }},
      {"must have one output", [](auto* model) { model->mutable_graph()->mutable_node(0)->clear_output(); }},
      {"only the attribute value is supported",
       [](auto* model) {
         model->mutable_graph()->mutable_node(0)->set_op_type("Constant");
         model->mutable_graph()->mutable_node(0)->clear_input();
       }},
      {"is not supported",
       [](auto* model) { model->mutable_graph()->mutable_node(0)->set_domain("elsewhere"); }},
      {"output \"w\" is a constant",
       [](auto* model) { model->mutable_graph()->mutable_output(0)->set_name("w"); }},
      {"is listed twice or is an input",
       [](auto* model) { model->mutable_graph()->mutable_output(0)->set_name("x"); }},
      {"is listed twice or is an input",
       [](auto* model) { *model->mutable_graph()->add_output() = model->graph().output(0); }},
      {"precision \"int8\" is not supported",
       [](auto* model) {
         model->add_metadata_props()->set_key("precision");
         model->mutable_metadata_props(0)->set_value("int8");
       }},
      {"more than 16 inputs and outputs",
       [](auto* model) {
         for (int i = 0; i < 16; ++i) {
           *model->mutable_graph()->add_input() = model->graph().input(0);
           model->mutable_graph()->mutable_input(i + 1)->set_name("more" + std::to_string(i));
         }
       }},
  };
  const LoadedEngine unchanged(changed([](auto*) {}));
  ASSERT_NE(unchanged.engine, nullptr) << unchanged.logger.errors();
  for (const Case& test : cases) {
    SCOPED_TRACE(test.reason);
    expect_refused(changed(test.change), test.reason);
  }
}

TEST(AcceptedModel, MayListItsConstantsAmongTheInputs) {
  const LoadedEngine loaded(changed([](auto* model) {
    auto* input = model->mutable_graph()->add_input();
    input->set_name("w");
  }));
  ASSERT_NE(loaded.engine, nullptr) << loaded.logger.errors();
  EXPECT_EQ(loaded.engine->getNbIOTensors(), 2);
}

TEST(AcceptedModel, MayHoldItsConstantsAsListsAndAsNodes) {
  const Tensor source = random_tensor(kShape, 1);
  const auto as_list = changed([](auto* model) {
    auto* tensor = model->mutable_graph()->mutable_initializer(0);
    tensor->clear_raw_data();
    for (int i = 0; i < 72; ++i) tensor->add_float_data(0.5F);
  });
  const auto as_node = changed([](auto* model) {
    auto* graph = model->mutable_graph();
    onnx::NodeProto convolution = graph->node(0);
    graph->mutable_node(0)->Clear();
    graph->mutable_node(0)->set_op_type("Constant");
    graph->mutable_node(0)->add_output("made");
    auto* attribute = graph->mutable_node(0)->add_attribute();
    attribute->set_name("value");
    attribute->set_type(onnx::AttributeProto::TENSOR);
    *attribute->mutable_t() = graph->initializer(0);
    convolution.set_input(1, "made");
    *graph->add_node() = convolution;
  });
  const Tensor expected = run_model(one_node("Conv", {"x", "w"}), {source})[0];
  expect_near(run_model(as_list, {source})[0], expected, 0.0);
  expect_near(run_model(as_node, {source})[0], expected, 0.0);
}

TEST(RefusedBytes, AreNone) {
  RecordingLogger logger;
  const std::unique_ptr<nvinfer1::IRuntime> runtime(nvinfer1::createInferRuntime(logger));
  EXPECT_EQ(runtime->deserializeCudaEngine(nullptr, 0), nullptr);
  EXPECT_EQ(runtime->deserializeCudaEngine(nullptr, 100), nullptr);
  EXPECT_EQ(runtime->deserializeCudaEngine("x", 0), nullptr);
  EXPECT_EQ(logger.errors(),
            "deserializeCudaEngine: there are no bytes\ndeserializeCudaEngine: there are no bytes\n"
            "deserializeCudaEngine: there are no bytes\n");
}

// The operator set comes behind the graph, so no cut leaves a whole model.
TEST(RefusedBytes, AreCutAnywhere) {
  OnnxModelBuilder model("cut");
  model.input("x", kShape).constant("w", {4, 2, 3, 3}, std::vector<float>(72, 0.5F));
  model.node("Conv", {"x", "w"}, {"a"}).node("Relu", {"a"}, {"y"}).output("y", {1, 4, 4, 4});
  const std::string whole = model.bytes();
  for (std::size_t length = 0; length < whole.size(); ++length) {
    const LoadedEngine loaded(whole.substr(0, length));
    ASSERT_EQ(loaded.engine, nullptr) << length << " of " << whole.size();
    ASSERT_EQ(loaded.logger.lines(nvinfer1::ILogger::Severity::kERROR).size(), 1U) << length;
  }
}

TEST(RefusedBytes, AreRandom) {
  std::mt19937 generator(1);
  for (int round = 0; round < 300; ++round) {
    std::string bytes(1 + generator() % 400, '\0');
    for (char& byte : bytes) byte = static_cast<char>(generator());
    const LoadedEngine loaded(bytes);
    ASSERT_EQ(loaded.engine, nullptr);
    ASSERT_NE(loaded.logger.errors(), "");
  }
}

// A flipped byte may leave a usable model; it must be refused or run.
TEST(DamagedBytes, AreRefusedOrRun) {
  const std::string whole = one_node("Conv", {"x", "w"});
  std::mt19937 generator(2);
  for (int round = 0; round < 1000; ++round) {
    std::string bytes = whole;
    for (int i = 0; i < 1 + round % 3; ++i)
      bytes[generator() % bytes.size()] = static_cast<char>(generator());
    const LoadedEngine loaded(bytes);
    if (loaded.engine == nullptr) {
      ASSERT_NE(loaded.logger.errors(), "");
      continue;
    }
    const std::unique_ptr<nvinfer1::IExecutionContext> context(loaded.engine->createExecutionContext());
    ASSERT_NE(context, nullptr);
    for (int32_t i = 0; i < loaded.engine->getNbIOTensors(); ++i) {
      EXPECT_GE(context->getTensorShape(loaded.engine->getIOTensorName(i)).nbDims, 1);
    }
  }
}

}  // namespace
}  // namespace ostrel::testing
