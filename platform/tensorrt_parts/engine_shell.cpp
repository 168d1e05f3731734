#include "engine_shell.h"

#include "log.h"

namespace ostrel::tensorrt_parts {

EngineShell::EngineShell(nvinfer1::ILogger& logger, std::shared_ptr<const LoadedGraph> loaded,
                         std::shared_ptr<std::atomic<int>> engines)
    : logger_(logger),
      loaded_(std::move(loaded)),
      tensors_(io_tensors(loaded_->graph)),
      engines_(std::move(engines)) {
  ++*engines_;
}

EngineShell::~EngineShell() noexcept {
  if (*contexts_ != 0) log_error(logger_, "~ICudaEngine", "destroyed while an execution context of it lived");
  --*engines_;
}

int32_t EngineShell::getNbIOTensors() const noexcept {
  return static_cast<int32_t>(tensors_.size());
}

char const* EngineShell::getIOTensorName(int32_t index) const noexcept {
  if (index >= 0 && index < static_cast<int32_t>(tensors_.size()))
    return tensors_[static_cast<std::size_t>(index)].name.c_str();
  log_error(logger_, "getIOTensorName", "no such tensor");
  return nullptr;
}

nvinfer1::TensorIOMode EngineShell::getTensorIOMode(char const* tensorName) const noexcept {
  const std::size_t index = find_tensor(tensors_, tensorName);
  if (index < tensors_.size()) return tensors_[index].mode;
  log_error(logger_, "getTensorIOMode", "no such tensor");
  return nvinfer1::TensorIOMode::kNONE;
}

nvinfer1::Dims EngineShell::getTensorShape(char const* tensorName) const noexcept {
  return guarded(logger_, "ICudaEngine::getTensorShape", no_dims(), [&] {
    const std::size_t index = find_tensor(tensors_, tensorName);
    if (index == tensors_.size()) throw ModelError("no such tensor");
    return to_dims(loaded_->sizes[static_cast<std::size_t>(tensors_[index].value)]);
  });
}

void EngineShell::check_strategy(nvinfer1::ExecutionContextAllocationStrategy strategy) {
  if (strategy == nvinfer1::ExecutionContextAllocationStrategy::kUSER_MANAGED) {
    throw ModelError("memory that the user manages is not supported");
  }
}

}  // namespace ostrel::tensorrt_parts
