// Names, shapes, addresses and runs, as the product uses them.
#include <gmock/gmock.h>

#include "platform/tensorrt_onednn/reference_operators.h"
#include "platform/tensorrt_onednn/several_outputs.h"

namespace ostrel::testing {
namespace {

using nvinfer1::TensorIOMode;
using ::testing::HasSubstr;

constexpr double kTolerance = 5e-5;

Tensor half_of(const Tensor& source) {
  return reference_max_pool(source, {2, 2, 2, 2}, 4, 4);
}

TEST(Engine, ListsInputsThenOutputsInTheModelsOrder) {
  LoadedEngine loaded(several_outputs());
  ASSERT_NE(loaded.engine, nullptr) << loaded.logger.errors();
  ASSERT_EQ(loaded.engine->getNbIOTensors(), 4);
  const std::pair<const char*, TensorIOMode> expected[] = {{"x", TensorIOMode::kINPUT},
                                                           {"half", TensorIOMode::kOUTPUT},
                                                           {"double", TensorIOMode::kOUTPUT},
                                                           {"rectified", TensorIOMode::kOUTPUT}};
  for (int i = 0; i < 4; ++i) {
    EXPECT_STREQ(loaded.engine->getIOTensorName(i), expected[i].first);
    EXPECT_EQ(loaded.engine->getTensorIOMode(expected[i].first), expected[i].second);
  }
}

TEST(Engine, AnswersForUnknownNamesAndPositions) {
  LoadedEngine loaded(several_outputs());
  EXPECT_EQ(loaded.engine->getIOTensorName(4), nullptr);
  EXPECT_EQ(loaded.engine->getIOTensorName(-1), nullptr);
  EXPECT_EQ(loaded.engine->getTensorIOMode("y"), TensorIOMode::kNONE);
  EXPECT_EQ(loaded.engine->getTensorIOMode(nullptr), TensorIOMode::kNONE);
  EXPECT_EQ(loaded.engine->getTensorShape("y").nbDims, -1);
  EXPECT_EQ(loaded.engine->getTensorShape(nullptr).nbDims, -1);
  EXPECT_EQ(loaded.logger.lines(nvinfer1::ILogger::Severity::kERROR).size(), 6U);
}

TEST(Engine, ShowsDynamicSizesAsNegative) {
  LoadedEngine loaded(several_outputs());
  EXPECT_EQ(shape_of(loaded.engine->getTensorShape("x")), (Shape{-1, 3, 8, 8}));
  EXPECT_EQ(shape_of(loaded.engine->getTensorShape("half")), (Shape{-1, 3, 4, 4}));
  BoundContext context(loaded.engine.get());
  EXPECT_EQ(shape_of(context.get()->getTensorShape("x")), (Shape{-1, 3, 8, 8}));
  EXPECT_EQ(shape_of(context.get()->getTensorShape("half")), (Shape{-1, 3, 4, 4}));
  EXPECT_EQ(context.get()->getTensorShape("y").nbDims, -1);
}

TEST(Engine, RunsEveryBatchThatIsSet) {
  LoadedEngine loaded(several_outputs());
  BoundContext context(loaded.engine.get());
  for (const std::int64_t batch : {3, 1, 4, 3, 2, 5, 6, 7, 8, 9, 10, 3}) {
    const Tensor source = random_tensor({batch, 3, 8, 8}, static_cast<unsigned>(batch));
    const auto found = context.run({source});
    ASSERT_EQ(found.size(), 3U);
    expect_near(found[0], half_of(source), 0.0);
    expect_near(found[1], reference_arithmetic('+', source, source), 0.0);
    expect_near(found[2], reference_relu(half_of(source)), 0.0);
  }
  EXPECT_EQ(loaded.logger.errors(), "");
}

TEST(Engine, RefusesShapesThatItWasNotBuiltFor) {
  LoadedEngine loaded(several_outputs());
  BoundContext context(loaded.engine.get());
  ASSERT_TRUE(context.get()->setInputShape("x", dims_of({2, 3, 8, 8})));
  struct Case {
    const char* reason;
    const char* name;
    Shape shape;
  };
  const Case cases[] = {{"another channel count", "x", {2, 4, 8, 8}},
                        {"another height", "x", {2, 3, 9, 8}},
                        {"no batch", "x", {0, 3, 8, 8}},
                        {"a negative batch", "x", {-1, 3, 8, 8}},
                        {"fewer dimensions", "x", {3, 8, 8}},
                        {"more dimensions", "x", {2, 3, 8, 8, 1}},
                        {"an output", "half", {2, 3, 4, 4}},
                        {"an unknown name", "y", {2, 3, 8, 8}},
                        {"no name", nullptr, {2, 3, 8, 8}},
                        {"a batch beyond sense", "x", {1LL << 40, 3, 8, 8}}};
  for (const Case& test : cases) {
    SCOPED_TRACE(test.reason);
    const std::size_t before = loaded.logger.lines(nvinfer1::ILogger::Severity::kERROR).size();
    EXPECT_FALSE(context.get()->setInputShape(test.name, dims_of(test.shape)));
    EXPECT_EQ(loaded.logger.lines(nvinfer1::ILogger::Severity::kERROR).size(), before + 1);
    EXPECT_EQ(shape_of(context.get()->getTensorShape("x")), (Shape{2, 3, 8, 8}));
    EXPECT_EQ(shape_of(context.get()->getTensorShape("half")), (Shape{2, 3, 4, 4}));
  }
}

TEST(Engine, TakesItsOwnShapeWhereAllIsStatic) {
  const Shape shape{2, 3, 4, 4};
  OnnxModelBuilder model("static");
  model.input("x", shape).node("Relu", {"x"}, {"y"}).output("y", shape);
  LoadedEngine loaded(model.bytes());
  BoundContext context(loaded.engine.get());
  EXPECT_EQ(shape_of(context.get()->getTensorShape("y")), shape);  // without setInputShape
  EXPECT_TRUE(context.get()->setInputShape("x", dims_of(shape)));
  EXPECT_FALSE(context.get()->setInputShape("x", dims_of({1, 3, 4, 4})));
  const Tensor source = random_tensor(shape, 1);
  expect_near(context.run({source})[0], reference_relu(source), 0.0);
}

TEST(Engine, TakesDynamicHeightAndWidth) {
  OnnxModelBuilder model("dynamic");
  NodeAttributes attributes;
  attributes.lists = {{"kernel_shape", {3, 3}}, {"strides", {2, 2}}};
  model.input("x", {1, 2, -1, -1}).node("MaxPool", {"x"}, {"y"}, attributes).output("y", {});
  LoadedEngine loaded(model.bytes());
  EXPECT_EQ(shape_of(loaded.engine->getTensorShape("y")), (Shape{1, 2, -1, -1}));
  BoundContext context(loaded.engine.get());
  const ReferenceWindow window{3, 3, 2, 2};
  const Tensor wide = random_tensor({1, 2, 5, 9}, 1);
  expect_near(context.run({wide})[0], reference_max_pool(wide, window, 2, 4), 0.0);
  const Tensor high = random_tensor({1, 2, 7, 3}, 2);
  expect_near(context.run({high})[0], reference_max_pool(high, window, 3, 1), 0.0);
  EXPECT_FALSE(context.get()->setInputShape("x", dims_of({1, 2, 2, 9})));  // smaller than the window
  EXPECT_TRUE(context.get()->enqueueV3(context.stream().get()));           // with the shape before
  EXPECT_EQ(shape_of(context.get()->getTensorShape("y")), (Shape{1, 2, 3, 1}));
}

TEST(Engine, TakesTensorsOfOtherThanFourDimensions) {
  for (const Shape& shape : {Shape{5}, Shape{3, 4}, Shape{2, 3, 4}, Shape{2, 1, 3, 2, 4}}) {
    OnnxModelBuilder model("rank");
    model.input("x", shape).node("Relu", {"x"}, {"y"}).output("y", shape);
    const Tensor source = random_tensor(shape, 1);
    expect_near(run_model(model.bytes(), {source})[0], reference_relu(source), 0.0);
  }
}

TEST(Engine, FailsToEnqueueUntilEveryTensorIsBound) {
  OnnxModelBuilder model("unused");
  const Shape shape{1, 1, 2, 2};
  model.input("unused", shape).input("x", shape).node("Relu", {"x"}, {"y"}).node("Add", {"x", "x"}, {"z"});
  model.output("y", shape).output("z", shape);
  LoadedEngine loaded(model.bytes());
  ASSERT_NE(loaded.engine, nullptr) << loaded.logger.errors();
  const std::unique_ptr<nvinfer1::IExecutionContext> context(loaded.engine->createExecutionContext());
  const Stream stream;
  const DeviceMemory memory(16);
  for (const char* name : {"x", "y", "z", "unused"}) {
    EXPECT_FALSE(context->enqueueV3(stream.get())) << name;
    EXPECT_TRUE(context->setTensorAddress(name, memory.get()));
  }
  EXPECT_THAT(loaded.logger.errors(), HasSubstr("tensor \"unused\" has no address"));
  EXPECT_TRUE(context->enqueueV3(stream.get()));
  EXPECT_TRUE(context->setTensorAddress("z", nullptr));
  EXPECT_FALSE(context->enqueueV3(stream.get()));
  stream.wait();
}

TEST(Engine, FailsToEnqueueWithoutAnInputShape) {
  LoadedEngine loaded(several_outputs());
  const std::unique_ptr<nvinfer1::IExecutionContext> context(loaded.engine->createExecutionContext());
  const Stream stream;
  EXPECT_FALSE(context->enqueueV3(stream.get()));
  EXPECT_THAT(loaded.logger.errors(), HasSubstr("an input shape is not set"));
}

TEST(Engine, RefusesAddressesThatAreNotAligned) {
  LoadedEngine loaded(several_outputs());
  BoundContext context(loaded.engine.get());
  context.run({random_tensor({2, 3, 8, 8}, 1)});
  const DeviceMemory memory(1024);
  EXPECT_FALSE(context.get()->setTensorAddress("x", static_cast<char*>(memory.get()) + 16));
  EXPECT_THAT(loaded.logger.errors(), HasSubstr("not aligned to 256 bytes"));
  EXPECT_FALSE(context.get()->setTensorAddress("y", memory.get()));
  EXPECT_FALSE(context.get()->setTensorAddress(nullptr, memory.get()));
}

// Shapes and addresses are those of the call, whatever is set before the work runs.
TEST(Engine, KeepsShapesAndAddressesOfTheMomentOfTheCall) {
  LoadedEngine loaded(several_outputs());
  BoundContext context(loaded.engine.get());
  const Tensor source = random_tensor({4, 3, 8, 8}, 1);
  context.bind({source});
  context.upload({source});
  ASSERT_TRUE(context.get()->enqueueV3(context.stream().get()));
  ASSERT_TRUE(context.get()->setInputShape("x", dims_of({1, 3, 8, 8})));
  const DeviceMemory elsewhere(4 * 3 * 8 * 8 * sizeof(float));
  ASSERT_TRUE(context.get()->setTensorAddress("half", elsewhere.get()));
  ASSERT_TRUE(context.get()->setInputShape("x", dims_of({4, 3, 8, 8})));
  expect_near(context.download()[0], half_of(source), 0.0);
}

TEST(Engine, WritesNothingBehindASmallerBatch) {
  LoadedEngine loaded(several_outputs());
  BoundContext context(loaded.engine.get());
  const Tensor three = random_tensor({3, 3, 8, 8}, 1);
  context.run({three});
  ASSERT_TRUE(context.get()->setInputShape("x", dims_of({1, 3, 8, 8})));
  context.upload({random_tensor({1, 3, 8, 8}, 2)});
  ASSERT_TRUE(context.get()->enqueueV3(context.stream().get()));
  ASSERT_TRUE(context.get()->setInputShape("x", dims_of({3, 3, 8, 8})));
  const Tensor found = context.download()[1];
  const Tensor expected = reference_arithmetic('+', three, three);
  for (std::size_t i = 192; i < found.values.size(); ++i) ASSERT_EQ(found.values[i], expected.values[i]);
}

// Many operators work in place; the caller's input is not theirs.
TEST(Engine, NeverWritesItsInput) {
  const Tensor source = random_tensor({1, 1, 4, 4}, 1);
  for (const char* operation : {"Relu", "Mul"}) {
    OnnxModelBuilder model("in_place");
    model.input("x", source.shape).constant("half", {1}, std::vector<float>{0.5F});
    std::vector<std::string> operands{"x"};
    if (std::string(operation) == "Mul") operands.emplace_back("half");
    model.node(operation, operands, {"y"}).output("y", {});
    LoadedEngine loaded(model.bytes());
    BoundContext context(loaded.engine.get());
    context.run({source});
    EXPECT_EQ(context.download_tensor(0, source.values.size()), source.values) << operation;
  }
}

TEST(Engine, NeedsNoBytesAfterTheLoad) {
  auto bytes = std::make_unique<std::string>(several_outputs());
  LoadedEngine loaded(*bytes);
  bytes.reset();
  BoundContext context(loaded.engine.get());
  const Tensor source = random_tensor({2, 3, 8, 8}, 1);
  expect_near(context.run({source})[0], half_of(source), 0.0);
}

TEST(Engine, ReportsDestructionInTheWrongOrder) {
  auto loaded = std::make_unique<LoadedEngine>(several_outputs());
  std::unique_ptr<nvinfer1::IExecutionContext> context(loaded->engine->createExecutionContext());
  loaded->engine.reset();
  EXPECT_THAT(loaded->logger.errors(), HasSubstr("destroyed while an execution context of it lived"));
  context.reset();
  const std::string bytes = several_outputs();
  loaded->engine.reset(loaded->runtime->deserializeCudaEngine(bytes.data(), bytes.size()));
  loaded->runtime.reset();
  EXPECT_THAT(loaded->logger.errors(), HasSubstr("destroyed while an engine of it lived"));
}

TEST(Engine, RefusesMemoryThatTheUserManages) {
  LoadedEngine loaded(several_outputs());
  EXPECT_EQ(
      loaded.engine->createExecutionContext(nvinfer1::ExecutionContextAllocationStrategy::kUSER_MANAGED),
      nullptr);
}

TEST(Version, IsThatOfTheInterface) {
  static_assert(NV_TENSORRT_MAJOR == 10 && NV_TENSORRT_MINOR == 3);
  EXPECT_EQ(NV_TENSORRT_VERSION, 100300L);
}

}  // namespace
}  // namespace ostrel::testing
