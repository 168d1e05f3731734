// What the stand-in refuses and reports beyond the real thing.
#include <gmock/gmock.h>
#include <host_cuda/control.h>

#include <mutex>

#include "platform/tensorrt_onednn/several_outputs.h"

namespace ostrel::testing {
namespace {

using ::testing::HasSubstr;

TEST(StrictEngine, RefusesAddressesThatAreNoDeviceMemoryOfTheSize) {
  LoadedEngine loaded(several_outputs());
  BoundContext context(loaded.engine.get());
  context.run({random_tensor({2, 3, 8, 8}, 1)});
  const DeviceMemory small(2 * 3 * 8 * 8 * sizeof(float) - 4);
  EXPECT_TRUE(context.get()->setTensorAddress("x", small.get()));
  EXPECT_FALSE(context.get()->enqueueV3(context.stream().get()));
  alignas(256) static float on_host[2 * 3 * 8 * 8];
  EXPECT_TRUE(context.get()->setTensorAddress("x", on_host));
  EXPECT_FALSE(context.get()->enqueueV3(context.stream().get()));
  EXPECT_THAT(loaded.logger.errors(),
              HasSubstr("the address of tensor \"x\" is no device memory of 1536 bytes"));
}

TEST(StrictEngine, RefusesADeadStream) {
  LoadedEngine loaded(several_outputs());
  BoundContext context(loaded.engine.get());
  context.run({random_tensor({2, 3, 8, 8}, 1)});
  cudaStream_t stream = nullptr;
  ASSERT_EQ(cudaStreamCreateWithFlags(&stream, cudaStreamNonBlocking), cudaSuccess);
  ASSERT_EQ(cudaStreamDestroy(stream), cudaSuccess);
  EXPECT_FALSE(context.get()->enqueueV3(stream));
}

TEST(StrictEngine, ReportsAContextThatIsDestroyedUnderItsWork) {
  if (host_cuda::stream_mode() == host_cuda::StreamMode::kEager) return;  // no work is ever on its way there
  LoadedEngine loaded(several_outputs());
  Stream stream;
  auto gate = std::make_shared<std::mutex>();
  gate->lock();
  ASSERT_EQ(
      host_cuda::enqueue(stream.get(), "gate", [gate] { const std::lock_guard<std::mutex> wait(*gate); }),
      cudaSuccess);
  std::vector<std::unique_ptr<DeviceMemory>> memory;
  std::unique_ptr<nvinfer1::IExecutionContext> context(loaded.engine->createExecutionContext());
  ASSERT_TRUE(context->setInputShape("x", dims_of({1, 3, 8, 8})));
  for (const char* name : {"x", "half", "double", "rectified"}) {
    memory.push_back(std::make_unique<DeviceMemory>(3 * 8 * 8 * sizeof(float)));
    ASSERT_TRUE(context->setTensorAddress(name, memory.back()->get()));
  }
  ASSERT_TRUE(context->enqueueV3(stream.get()));
  context.reset();
  EXPECT_THAT(loaded.logger.errors(), HasSubstr("destroyed while its work was pending"));
  gate->unlock();
  stream.wait();
}

}  // namespace
}  // namespace ostrel::testing
