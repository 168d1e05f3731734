// What the runtime asks of cuDNN and of the device, and what it tells when they refuse.
#include <gmock/gmock.h>
#include <host_cuda/control.h>

#include "platform/tensorrt_onednn/trunk_models.h"

namespace ostrel::testing {
namespace {

using ::testing::HasSubstr;

constexpr int kNotSupported = 3000;        // CUDNN_STATUS_NOT_SUPPORTED
constexpr int kNotSupportedLayout = 3004;  // of the same category
constexpr int kExecutionFailed = 5000;     // CUDNN_STATUS_EXECUTION_FAILED

// A convolution with or without a ReLU behind it.
std::string one_convolution(bool rectified) {
  const Tensor weights = random_tensor({2, 2, 3, 3}, 2);
  OnnxModelBuilder model("one");
  model.input("x", {-1, 2, 6, 6}).constant("w", weights.shape, weights.values);
  model.node("Conv", {"x", "w"}, {"c"});
  if (rectified) model.node("Relu", {"c"}, {"y"});
  return model.output(rectified ? "y" : "c", {}).bytes();
}

class CudnnCalls : public ::testing::Test {
 protected:
  void TearDown() override { host_cuda::clear_faults(); }
};

TEST_F(CudnnCalls, MakeOneOfAConvolutionWithItsSumAndRelu) {
  LoadedEngine loaded(backbone::trunk_bytes(tiny_trunk()));
  BoundContext context(loaded.engine.get());
  host_cuda::reset_counters();
  context.run({picture_of(backbone::calibration_picture(32, 1))});
  EXPECT_EQ(host_cuda::counters().launches_of("relu_kernel"), 0);
  EXPECT_GT(host_cuda::counters().calls_of("cudnnConvolutionBiasActivationForward"), 0);
}

TEST_F(CudnnCalls, SetUpAllMemoryBeforeTheRun) {
  LoadedEngine loaded(backbone::trunk_bytes(tiny_trunk()));
  BoundContext context(loaded.engine.get());
  const Tensor picture = picture_of(backbone::calibration_picture(32, 1));
  context.bind({picture});
  context.upload({picture});
  host_cuda::reset_counters();
  ASSERT_TRUE(context.get()->enqueueV3(context.stream().get()));
  const host_cuda::Counters counters = host_cuda::counters();
  EXPECT_EQ(counters.calls_of("cudaMalloc") + counters.calls_of("cudaFree"), 0);
  EXPECT_EQ(counters.synchronisations + counters.blocking_copies + counters.null_stream_work, 0);
  EXPECT_EQ(counters.calls_of("cudnnCreateTensorDescriptor"), 0);
}

TEST_F(CudnnCalls, SetUpNothingForABatchThatIsKnown) {
  LoadedEngine loaded(one_convolution(true));
  BoundContext context(loaded.engine.get());
  const auto batch = [&](std::int64_t samples) {
    return context.get()->setInputShape("x", dims_of({samples, 2, 6, 6}));
  };
  ASSERT_TRUE(batch(1) && batch(3));
  host_cuda::reset_counters();
  EXPECT_TRUE(batch(1) && batch(3));
  EXPECT_EQ(host_cuda::counters().calls_of("cudaMalloc"), 0);
}

TEST_F(CudnnCalls, FreeAllMemory) {
  const auto before = host_cuda::counters();
  {
    LoadedEngine loaded(backbone::trunk_bytes(tiny_trunk()));
    BoundContext context(loaded.engine.get());
    for (std::int64_t batch = 1; batch <= 10; ++batch) {
      ASSERT_TRUE(
          context.get()->setInputShape(loaded.engine->getIOTensorName(0), dims_of({batch, 3, 32, 32})));
    }
  }
  EXPECT_EQ(host_cuda::counters().live_device_bytes, before.live_device_bytes);
}

TEST_F(CudnnCalls, FallBackToTheOtherAlgorithm) {
  const Tensor source = random_tensor({1, 2, 6, 6}, 1);
  const auto expected = run_model(one_convolution(true), {source});
  LoadedEngine loaded(one_convolution(true));
  BoundContext context(loaded.engine.get());
  host_cuda::fail_call("cudnnGetConvolutionForwardWorkspaceSize", 1, kNotSupported);
  expect_near(context.run({source})[0], expected[0], 1e-6);
  EXPECT_EQ(loaded.logger.errors(), "");
}

// The other algorithm cannot go at once without a ReLU.
TEST_F(CudnnCalls, RunTheOtherAlgorithmInPartsWithoutARelu) {
  const Tensor source = random_tensor({1, 2, 6, 6}, 1);
  const auto expected = run_model(one_convolution(false), {source});
  LoadedEngine loaded(one_convolution(false));
  BoundContext context(loaded.engine.get());
  host_cuda::fail_call("cudnnGetConvolutionForwardWorkspaceSize", 1, kNotSupported);
  host_cuda::reset_counters();
  expect_near(context.run({source})[0], expected[0], 1e-6);
  EXPECT_EQ(host_cuda::counters().calls_of("cudnnConvolutionBiasActivationForward"), 0);
  EXPECT_EQ(loaded.logger.errors(), "");
}

TEST_F(CudnnCalls, RefuseTheShapeWhereNoAlgorithmIsLeft) {
  LoadedEngine loaded(one_convolution(true));
  BoundContext context(loaded.engine.get());
  host_cuda::fail_call("cudnnGetConvolutionForwardWorkspaceSize", 1, kNotSupported);
  host_cuda::fail_call("cudnnGetConvolutionForwardWorkspaceSize", 2, kNotSupported);
  EXPECT_FALSE(context.get()->setInputShape("x", dims_of({1, 2, 6, 6})));
  EXPECT_THAT(
      loaded.logger.errors(),
      HasSubstr("setInputShape: cudnnGetConvolutionForwardWorkspaceSize: CUDNN_STATUS_NOT_SUPPORTED"));
  EXPECT_EQ(shape_of(context.get()->getTensorShape("x")), (Shape{-1, 2, 6, 6}));
  EXPECT_TRUE(context.get()->setInputShape("x", dims_of({1, 2, 6, 6})));
}

// Residuals lie in the target or elsewhere; both occur in a trunk.
TEST_F(CudnnCalls, GoInPartsWhereCudnnDoesNotTakeAllAtOnce) {
  TrunkOptions options = tiny_trunk();
  const Tensor picture = picture_of(backbone::calibration_picture(32, 3));
  for (const auto precision : {backbone::Precision::kFloat32, backbone::Precision::kFloat16}) {
    options.precision = precision;
    const auto expected = run_model(backbone::trunk_bytes(options), {picture});
    LoadedEngine loaded(backbone::trunk_bytes(options));
    BoundContext context(loaded.engine.get());
    host_cuda::fail_every_call("cudnnConvolutionBiasActivationForward", kNotSupportedLayout);
    host_cuda::reset_counters();
    const auto first = context.run({picture});
    const auto tried = host_cuda::counters().calls_of("cudnnConvolutionBiasActivationForward");
    EXPECT_EQ(host_cuda::counters().calls_of("cudnnConvolutionForward"), tried);
    const auto second = context.run({picture});
    EXPECT_EQ(host_cuda::counters().calls_of("cudnnConvolutionBiasActivationForward"), tried)
        << "what was refused once is not tried again";
    EXPECT_EQ(host_cuda::counters().calls_of("cudnnAddTensor"), 2 * tried);
    EXPECT_EQ(loaded.logger.errors(), "");
    host_cuda::clear_faults();
    ASSERT_EQ(first.size(), expected.size());
    const double tolerance = precision == backbone::Precision::kFloat32 ? 1e-6 : 4e-3;  // a rounding more
    for (std::size_t i = 0; i < expected.size(); ++i) {
      EXPECT_LT(relative_rms_difference(first[i], expected[i]), tolerance) << i;
      expect_near(second[i], first[i], 0.0);
    }
  }
}

TEST_F(CudnnCalls, TellWhatFailsAtTheLoad) {
  for (const char* call :
       {"cudaMalloc", "cudaStreamCreateWithFlags", "cudaMemcpyAsync", "cudaStreamSynchronize"}) {
    host_cuda::fail_call(call, 1, cudaErrorUnknown);
    const LoadedEngine loaded(one_convolution(true));
    EXPECT_EQ(loaded.engine, nullptr) << call;
    EXPECT_THAT(loaded.logger.errors(), HasSubstr(std::string("deserializeCudaEngine: ") + call + ": "))
        << call;
    EXPECT_EQ(cudaPeekAtLastError(), cudaSuccess) << call;
  }
}

TEST_F(CudnnCalls, TellWhatFailsAtTheContext) {
  LoadedEngine loaded(one_convolution(true));
  host_cuda::fail_call("cudnnCreate", 1, kNotSupported);
  EXPECT_EQ(loaded.engine->createExecutionContext(), nullptr);
  EXPECT_THAT(loaded.logger.errors(),
              HasSubstr("createExecutionContext: cudnnCreate: CUDNN_STATUS_NOT_SUPPORTED"));
}

TEST_F(CudnnCalls, TellWhatFailsAtTheShape) {
  const char* calls[] = {"cudnnCreateTensorDescriptor",
                         "cudnnSetTensor4dDescriptor",
                         "cudnnCreateFilterDescriptor",
                         "cudnnSetFilter4dDescriptor",
                         "cudnnCreateConvolutionDescriptor",
                         "cudnnSetConvolution2dDescriptor",
                         "cudnnSetConvolutionGroupCount",
                         "cudnnSetConvolutionMathType",
                         "cudnnCreateActivationDescriptor",
                         "cudnnSetActivationDescriptor",
                         "cudaMalloc"};
  for (const char* call : calls) {
    LoadedEngine loaded(one_convolution(true));
    BoundContext context(loaded.engine.get());
    const bool of_cuda = std::string(call) == "cudaMalloc";
    host_cuda::fail_call(call, 1, of_cuda ? static_cast<int>(cudaErrorMemoryAllocation) : kNotSupported);
    EXPECT_FALSE(context.get()->setInputShape("x", dims_of({1, 2, 6, 6}))) << call;
    EXPECT_THAT(loaded.logger.errors(), HasSubstr(std::string("setInputShape: ") + call + ": ")) << call;
    EXPECT_TRUE(context.get()->setInputShape("x", dims_of({1, 2, 6, 6}))) << call;
  }
}

TEST_F(CudnnCalls, TellWhatFailsInTheRun) {
  const Tensor source = random_tensor({1, 2, 6, 6}, 1);
  LoadedEngine loaded(one_convolution(true));
  BoundContext context(loaded.engine.get());
  context.bind({source});
  context.upload({source});
  const auto expect_told = [&](const char* call) {
    host_cuda::fail_call(call, 1, kExecutionFailed);
    EXPECT_FALSE(context.get()->enqueueV3(context.stream().get())) << call;
    EXPECT_THAT(loaded.logger.errors(),
                HasSubstr(std::string("enqueueV3: ") + call + ": CUDNN_STATUS_EXECUTION_FAILED"));
  };
  expect_told("cudnnSetStream");
  expect_told("cudnnConvolutionBiasActivationForward");
  host_cuda::fail_call("cudnnConvolutionBiasActivationForward", 1, kNotSupported);
  expect_told("cudnnConvolutionForward");
  expect_told("cudnnAddTensor");
  EXPECT_TRUE(context.get()->enqueueV3(context.stream().get()));
  context.stream().wait();
}

}  // namespace
}  // namespace ostrel::testing
