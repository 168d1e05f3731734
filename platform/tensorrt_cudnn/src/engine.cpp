#include "engine.h"

#include <log.h>

#include "execution_context.h"

namespace ostrel::tensorrt_cudnn {

CudaEngine::CudaEngine(nvinfer1::ILogger& logger, std::shared_ptr<const Network> network,
                       std::shared_ptr<std::atomic<int>> engines)
    : logger_(logger),
      network_(std::move(network)),
      tensors_(io_tensors(network_->graph)),
      engines_(std::move(engines)) {
  ++*engines_;
}

CudaEngine::~CudaEngine() noexcept {
  if (*contexts_ != 0) log_error(logger_, "~ICudaEngine", "destroyed while an execution context of it lived");
  --*engines_;
}

int32_t CudaEngine::getNbIOTensors() const noexcept {
  return static_cast<int32_t>(tensors_.size());
}

char const* CudaEngine::getIOTensorName(int32_t index) const noexcept {
  if (index >= 0 && index < static_cast<int32_t>(tensors_.size()))
    return tensors_[static_cast<std::size_t>(index)].name.c_str();
  log_error(logger_, "getIOTensorName", "no such tensor");
  return nullptr;
}

nvinfer1::TensorIOMode CudaEngine::getTensorIOMode(char const* tensorName) const noexcept {
  const std::size_t index = find_tensor(tensors_, tensorName);
  if (index < tensors_.size()) return tensors_[index].mode;
  log_error(logger_, "getTensorIOMode", "no such tensor");
  return nvinfer1::TensorIOMode::kNONE;
}

nvinfer1::Dims CudaEngine::getTensorShape(char const* tensorName) const noexcept {
  constexpr const char* kCall = "ICudaEngine::getTensorShape";
  return guarded(logger_, kCall, no_dims(), [&] {
    const std::size_t index = find_tensor(tensors_, tensorName);
    if (index == tensors_.size()) throw ModelError("no such tensor");
    return to_dims(network_->sizes[static_cast<std::size_t>(tensors_[index].value)]);
  });
}

nvinfer1::IExecutionContext* CudaEngine::createExecutionContext(
    nvinfer1::ExecutionContextAllocationStrategy strategy) noexcept {
  return guarded<nvinfer1::IExecutionContext*>(logger_, "createExecutionContext", nullptr, [&] {
    if (strategy == nvinfer1::ExecutionContextAllocationStrategy::kUSER_MANAGED) {
      throw ModelError("memory that the user manages is not supported");
    }
    return new ExecutionContext(logger_, network_, tensors_, contexts_);
  });
}

}  // namespace ostrel::tensorrt_cudnn
