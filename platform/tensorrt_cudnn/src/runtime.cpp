#include <NvInfer.h>
#include <log.h>

#include <atomic>
#include <memory>

#include "engine.h"

namespace ostrel::tensorrt_cudnn {
namespace {

std::shared_ptr<const Network> load_network(const void* bytes, std::size_t size) {
  const auto network = std::make_shared<Network>();
  load_graph(bytes, size, network.get());
  if (network->graph.precision == Precision::kFloat16) network->format = Format::kChannelsLastFloat16;
  network->constants = DeviceConstants(network->graph, network->format);
  return network;
}

// Reports its destruction while engines of it live.
class Runtime final : public nvinfer1::IRuntime {
 public:
  explicit Runtime(nvinfer1::ILogger& logger) : logger_(logger) {}

  ~Runtime() noexcept override {
    if (*engines_ != 0) log_error(logger_, "~IRuntime", "destroyed while an engine of it lived");
  }

  nvinfer1::ICudaEngine* deserializeCudaEngine(void const* blob, std::size_t size) noexcept override {
    return guarded<nvinfer1::ICudaEngine*>(logger_, "deserializeCudaEngine", nullptr, [&] {
      const std::shared_ptr<const Network> network = load_network(blob, size);
      if (network->graph.precision == Precision::kBfloat16) {
        logger_.log(
            nvinfer1::ILogger::Severity::kWARNING,
            "deserializeCudaEngine: the model asks for bfloat16, which is for processors; float32 is used");
      }
      return std::make_unique<CudaEngine>(logger_, network, engines_).release();
    });
  }

 private:
  nvinfer1::ILogger& logger_;
  std::shared_ptr<std::atomic<int>> engines_ = std::make_shared<std::atomic<int>>(0);
};

}  // namespace
}  // namespace ostrel::tensorrt_cudnn

namespace nvinfer1 {

IRuntime* createInferRuntime(ILogger& logger) noexcept {
  using namespace ostrel::tensorrt_cudnn;
  return guarded<IRuntime*>(logger, "createInferRuntime", nullptr,
                            [&] { return std::make_unique<Runtime>(logger).release(); });
}

}  // namespace nvinfer1
