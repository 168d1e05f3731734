#include "engine.h"

#include <host_cuda/control.h>

#include "execution_context.h"
#include "faults.h"

namespace ostrel::tensorrt_onednn {

CudaEngine::CudaEngine(nvinfer1::ILogger& logger, std::shared_ptr<Network> network,
                       std::shared_ptr<std::atomic<int>> engines)
    : EngineShell(logger, network, std::move(engines)), network_(std::move(network)) {}

int32_t CudaEngine::getNbIOTensors() const noexcept {
  return told_to_fail(logger(), "getNbIOTensors") ? 0 : EngineShell::getNbIOTensors();
}

char const* CudaEngine::getIOTensorName(int32_t index) const noexcept {
  return told_to_fail(logger(), "getIOTensorName") ? nullptr : EngineShell::getIOTensorName(index);
}

nvinfer1::TensorIOMode CudaEngine::getTensorIOMode(char const* tensorName) const noexcept {
  if (told_to_fail(logger(), "getTensorIOMode")) return nvinfer1::TensorIOMode::kNONE;
  return EngineShell::getTensorIOMode(tensorName);
}

nvinfer1::Dims CudaEngine::getTensorShape(char const* tensorName) const noexcept {
  constexpr const char* kCall = "ICudaEngine::getTensorShape";
  if (told_to_fail(logger(), kCall)) return no_dims();
  return guarded(logger(), kCall, no_dims(), [&] {
    Sizes answer;
    if (host_cuda::take_answer(kCall, &answer)) return to_dims(answer);
    return EngineShell::getTensorShape(tensorName);
  });
}

nvinfer1::IExecutionContext* CudaEngine::createExecutionContext(
    nvinfer1::ExecutionContextAllocationStrategy strategy) noexcept {
  constexpr const char* kCall = "createExecutionContext";
  if (told_to_fail(logger(), kCall)) return nullptr;
  return guarded<nvinfer1::IExecutionContext*>(logger(), kCall, nullptr, [&] {
    check_strategy(strategy);
    return std::make_unique<ExecutionContext>(logger(), network_, tensors(), contexts()).release();
  });
}

}  // namespace ostrel::tensorrt_onednn
