// Every call can be made to fail, and shapes to be told wrongly, once and at the wanted call.
#include <gmock/gmock.h>
#include <host_cuda/control.h>

#include "platform/tensorrt_onednn/engine_fixture.h"

namespace ostrel::testing {
namespace {

constexpr int kStatus = 7;
const Shape kShape{1, 1, 2, 2};

std::string relu_model() {
  OnnxModelBuilder model("relu");
  return model.input("x", {-1, 1, 2, 2}).node("Relu", {"x"}, {"y"}).output("y", {}).bytes();
}

class TensorRtFault : public ::testing::Test {
 protected:
  void TearDown() override { host_cuda::clear_faults(); }
};

TEST_F(TensorRtFault, FailsTheRuntime) {
  RecordingLogger logger;
  host_cuda::fail_call("createInferRuntime", 1, kStatus);
  EXPECT_EQ(nvinfer1::createInferRuntime(logger), nullptr);
  EXPECT_EQ(logger.errors(), "createInferRuntime: told to fail with status 7\n");
  const std::unique_ptr<nvinfer1::IRuntime> runtime(nvinfer1::createInferRuntime(logger));
  EXPECT_NE(runtime, nullptr);
}

TEST_F(TensorRtFault, FailsTheEngine) {
  host_cuda::fail_call("deserializeCudaEngine", 1, kStatus);
  const LoadedEngine loaded(relu_model());
  EXPECT_EQ(loaded.engine, nullptr);
  EXPECT_EQ(loaded.logger.errors(), "deserializeCudaEngine: told to fail with status 7\n");
}

TEST_F(TensorRtFault, FailsEachCallOfTheEngine) {
  const LoadedEngine loaded(relu_model());
  for (const char* call : {"getNbIOTensors", "getIOTensorName", "getTensorIOMode",
                           "ICudaEngine::getTensorShape", "createExecutionContext"}) {
    host_cuda::fail_call(call, 1, kStatus);
  }
  EXPECT_EQ(loaded.engine->getNbIOTensors(), 0);
  EXPECT_EQ(loaded.engine->getIOTensorName(0), nullptr);
  EXPECT_EQ(loaded.engine->getTensorIOMode("x"), nvinfer1::TensorIOMode::kNONE);
  EXPECT_EQ(loaded.engine->getTensorShape("x").nbDims, -1);
  EXPECT_EQ(loaded.engine->createExecutionContext(), nullptr);
  EXPECT_EQ(loaded.engine->getNbIOTensors(), 2);
  EXPECT_STREQ(loaded.engine->getIOTensorName(0), "x");
  EXPECT_EQ(loaded.engine->getTensorIOMode("x"), nvinfer1::TensorIOMode::kINPUT);
  EXPECT_EQ(loaded.engine->getTensorShape("x").nbDims, 4);
}

TEST_F(TensorRtFault, FailsEachCallOfTheContext) {
  const LoadedEngine loaded(relu_model());
  BoundContext context(loaded.engine.get());
  const Tensor source = random_tensor(kShape, 1);
  context.run({source});
  const DeviceMemory memory(16);
  for (const char* call : {"setInputShape", "getTensorShape", "setTensorAddress", "enqueueV3"}) {
    host_cuda::fail_call(call, 1, kStatus);
  }
  EXPECT_FALSE(context.get()->setInputShape("x", dims_of({2, 1, 2, 2})));
  EXPECT_EQ(context.get()->getTensorShape("x").nbDims, -1);
  EXPECT_FALSE(context.get()->setTensorAddress("x", memory.get()));
  EXPECT_FALSE(context.get()->enqueueV3(context.stream().get()));
  EXPECT_EQ(shape_of(context.get()->getTensorShape("x")), kShape);  // a failed call has no effect
  expect_near(context.run({source})[0], run_model(relu_model(), {source})[0], 0.0);
}

TEST_F(TensorRtFault, AnswersOneShapeWrongly) {
  const LoadedEngine loaded(relu_model());
  const BoundContext context(loaded.engine.get());
  ASSERT_TRUE(context.get()->setInputShape("x", dims_of(kShape)));
  host_cuda::answer_call("getTensorShape", 2, {9, 9});
  EXPECT_EQ(shape_of(context.get()->getTensorShape("x")), kShape);
  EXPECT_EQ(shape_of(context.get()->getTensorShape("x")), (Shape{9, 9}));
  EXPECT_EQ(shape_of(context.get()->getTensorShape("x")), kShape);
}

TEST_F(TensorRtFault, AnswersTheShapeOfOneTensorWrongly) {
  const LoadedEngine loaded(relu_model());
  const BoundContext context(loaded.engine.get());
  ASSERT_TRUE(context.get()->setInputShape("x", dims_of(kShape)));
  host_cuda::answer_call("getTensorShape(y)", 1, {1, 2, 3, 4});
  EXPECT_EQ(shape_of(context.get()->getTensorShape("x")), kShape);
  EXPECT_EQ(shape_of(context.get()->getTensorShape("y")), (Shape{1, 2, 3, 4}));
  EXPECT_EQ(shape_of(context.get()->getTensorShape("y")), kShape);
}

TEST_F(TensorRtFault, AnswersTheEnginesShapeWrongly) {
  const LoadedEngine loaded(relu_model());
  host_cuda::answer_call("ICudaEngine::getTensorShape", 1, {3, 2, 2});
  EXPECT_EQ(shape_of(loaded.engine->getTensorShape("x")), (Shape{3, 2, 2}));
  EXPECT_EQ(shape_of(loaded.engine->getTensorShape("x")), (Shape{-1, 1, 2, 2}));
}

TEST_F(TensorRtFault, CountsItsCalls) {
  const LoadedEngine loaded(relu_model());
  host_cuda::reset_counters();
  BoundContext context(loaded.engine.get());
  context.run({random_tensor(kShape, 1)});
  const host_cuda::Counters counters = host_cuda::counters();
  EXPECT_EQ(counters.calls_of("enqueueV3"), 1);
  EXPECT_EQ(counters.calls_of("setInputShape"), 1);
  EXPECT_EQ(counters.enqueued.at("enqueueV3"), 1);
}

}  // namespace
}  // namespace ostrel::testing
