// The library of a build without TensorRT: it refuses every engine with a clear line.
#include "platform/tensorrt_onednn/recording_logger.h"

namespace ostrel::testing {
namespace {

TEST(DeclarationsOnly, RefusesToLoadAnEngine) {
  RecordingLogger logger;
  const std::unique_ptr<nvinfer1::IRuntime> runtime(nvinfer1::createInferRuntime(logger));
  ASSERT_NE(runtime, nullptr);
  EXPECT_EQ(runtime->deserializeCudaEngine("bytes", 5), nullptr);
  EXPECT_EQ(logger.errors(), "this build has TensorRT declarations only; it cannot load an engine\n");
}

}  // namespace
}  // namespace ostrel::testing
