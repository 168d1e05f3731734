#include <NvInfer.h>
#include <host_cuda/control.h>

#include <atomic>
#include <memory>

#include "engine.h"
#include "faults.h"

namespace ostrel::tensorrt_onednn {
namespace {

// Beyond the real one it reports its destruction while engines of it live.
class Runtime final : public nvinfer1::IRuntime {
 public:
  explicit Runtime(nvinfer1::ILogger& logger) : logger_(logger) {}

  ~Runtime() noexcept override {
    if (*engines_ != 0) log_error(logger_, "~IRuntime", "destroyed while an engine of it lived");
  }

  nvinfer1::ICudaEngine* deserializeCudaEngine(void const* blob, std::size_t size) noexcept override {
    constexpr const char* kCall = "deserializeCudaEngine";
    if (told_to_fail(logger_, kCall)) return nullptr;
    return guarded<nvinfer1::ICudaEngine*>(logger_, kCall, nullptr, [&] {
      const auto network = std::make_shared<Network>();
      load_network(blob, size, network.get());
      warn_of_float32(*network);
      return std::make_unique<CudaEngine>(logger_, network, engines_).release();
    });
  }

 private:
  void warn_of_float32(const Network& network) {
    const Precision asked = network.graph.precision;
    if (asked == Precision::kFloat16) {
      logger_.log(nvinfer1::ILogger::Severity::kWARNING,
                  "deserializeCudaEngine: the model asks for float16, which is for GPUs; float32 is used");
    } else if (asked == Precision::kBfloat16 && !network.bfloat16) {
      logger_.log(nvinfer1::ILogger::Severity::kWARNING,
                  "deserializeCudaEngine: the model asks for bfloat16, which this processor lacks; float32 "
                  "is used");
    }
  }

  nvinfer1::ILogger& logger_;
  std::shared_ptr<std::atomic<int>> engines_ = std::make_shared<std::atomic<int>>(0);
};

}  // namespace
}  // namespace ostrel::tensorrt_onednn

namespace nvinfer1 {

IRuntime* createInferRuntime(ILogger& logger) noexcept {
  using namespace ostrel::tensorrt_onednn;
  constexpr const char* kCall = "createInferRuntime";
  if (told_to_fail(logger, kCall)) return nullptr;
  return guarded<IRuntime*>(logger, kCall, nullptr,
                            [&] { return std::make_unique<Runtime>(logger).release(); });
}

}  // namespace nvinfer1
