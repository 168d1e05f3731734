#pragma once

#include <engine_shell.h>

#include "network.h"

namespace ostrel::tensorrt_cudnn {

class CudaEngine final : public EngineShell {
 public:
  // `engines` counts the runtime's live engines.
  CudaEngine(nvinfer1::ILogger& logger, std::shared_ptr<const Network> network,
             std::shared_ptr<std::atomic<int>> engines);

  nvinfer1::IExecutionContext* createExecutionContext(
      nvinfer1::ExecutionContextAllocationStrategy strategy) noexcept override;

 private:
  std::shared_ptr<const Network> network_;
};

}  // namespace ostrel::tensorrt_cudnn
