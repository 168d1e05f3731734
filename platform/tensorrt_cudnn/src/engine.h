#pragma once

#include <NvInfer.h>
#include <io_tensors.h>

#include <atomic>
#include <memory>
#include <vector>

#include "network.h"

namespace ostrel::tensorrt_cudnn {

// Reports its destruction while contexts of it live.
class CudaEngine final : public nvinfer1::ICudaEngine {
 public:
  // `engines` counts the runtime's live engines.
  CudaEngine(nvinfer1::ILogger& logger, std::shared_ptr<const Network> network,
             std::shared_ptr<std::atomic<int>> engines);
  ~CudaEngine() noexcept override;

  int32_t getNbIOTensors() const noexcept override;
  char const* getIOTensorName(int32_t index) const noexcept override;
  nvinfer1::TensorIOMode getTensorIOMode(char const* tensorName) const noexcept override;
  nvinfer1::Dims getTensorShape(char const* tensorName) const noexcept override;
  nvinfer1::IExecutionContext* createExecutionContext(
      nvinfer1::ExecutionContextAllocationStrategy strategy) noexcept override;

 private:
  nvinfer1::ILogger& logger_;
  std::shared_ptr<const Network> network_;
  std::vector<IoTensor> tensors_;
  std::shared_ptr<std::atomic<int>> engines_;
  std::shared_ptr<std::atomic<int>> contexts_ = std::make_shared<std::atomic<int>>(0);
};

}  // namespace ostrel::tensorrt_cudnn
