#include "engine.h"

#include <log.h>

#include "execution_context.h"

namespace ostrel::tensorrt_cudnn {

CudaEngine::CudaEngine(nvinfer1::ILogger& logger, std::shared_ptr<const Network> network,
                       std::shared_ptr<std::atomic<int>> engines)
    : EngineShell(logger, network, std::move(engines)), network_(std::move(network)) {}

nvinfer1::IExecutionContext* CudaEngine::createExecutionContext(
    nvinfer1::ExecutionContextAllocationStrategy strategy) noexcept {
  return guarded<nvinfer1::IExecutionContext*>(logger(), "createExecutionContext", nullptr, [&] {
    check_strategy(strategy);
    return std::make_unique<ExecutionContext>(logger(), network_, tensors(), contexts()).release();
  });
}

}  // namespace ostrel::tensorrt_cudnn
