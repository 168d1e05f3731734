#pragma once

#include <engine_shell.h>

#include "network.h"

namespace ostrel::tensorrt_onednn {

// Every call can be made to fail, and shapes to be wrong.
class CudaEngine final : public EngineShell {
 public:
  // `engines` counts the runtime's live engines.
  CudaEngine(nvinfer1::ILogger& logger, std::shared_ptr<Network> network,
             std::shared_ptr<std::atomic<int>> engines);

  int32_t getNbIOTensors() const noexcept override;
  char const* getIOTensorName(int32_t index) const noexcept override;
  nvinfer1::TensorIOMode getTensorIOMode(char const* tensorName) const noexcept override;
  nvinfer1::Dims getTensorShape(char const* tensorName) const noexcept override;
  nvinfer1::IExecutionContext* createExecutionContext(
      nvinfer1::ExecutionContextAllocationStrategy strategy) noexcept override;

 private:
  std::shared_ptr<Network> network_;
};

}  // namespace ostrel::tensorrt_onednn
