#include <NvInfer.h>

#include <new>

namespace nvinfer1 {
namespace {

// Serves a build without TensorRT: everything links, and loading an engine says what is missing.
class DeclarationsRuntime final : public IRuntime {
 public:
  explicit DeclarationsRuntime(ILogger& logger) : logger_(logger) {}

  ICudaEngine* deserializeCudaEngine(void const* /*blob*/, std::size_t /*size*/) noexcept override {
    logger_.log(ILogger::Severity::kERROR,
                "this build has TensorRT declarations only; it cannot load an engine");
    return nullptr;
  }

 private:
  ILogger& logger_;
};

}  // namespace

IRuntime* createInferRuntime(ILogger& logger) noexcept {
  return new (std::nothrow) DeclarationsRuntime(logger);
}

}  // namespace nvinfer1
