// What an engine answers about its tensors, alike for every runtime.
#pragma once

#include <NvInfer.h>

#include <atomic>
#include <memory>

#include "io_tensors.h"
#include "loaded_graph.h"

namespace ostrel::tensorrt_parts {

// Contexts are the runtime's own. Reports its destruction while contexts of it live.
class EngineShell : public nvinfer1::ICudaEngine {
 public:
  ~EngineShell() noexcept override;

  int32_t getNbIOTensors() const noexcept override;
  char const* getIOTensorName(int32_t index) const noexcept override;
  nvinfer1::TensorIOMode getTensorIOMode(char const* tensorName) const noexcept override;
  nvinfer1::Dims getTensorShape(char const* tensorName) const noexcept override;

 protected:
  // `engines` counts the runtime's live engines. Throws ModelError.
  EngineShell(nvinfer1::ILogger& logger, std::shared_ptr<const LoadedGraph> loaded,
              std::shared_ptr<std::atomic<int>> engines);

  // Throws ModelError for a way to allocate that no runtime here knows.
  static void check_strategy(nvinfer1::ExecutionContextAllocationStrategy strategy);

  nvinfer1::ILogger& logger() const { return logger_; }
  const std::vector<IoTensor>& tensors() const { return tensors_; }
  // Counts the live contexts; each context adds and takes away itself.
  const std::shared_ptr<std::atomic<int>>& contexts() const { return contexts_; }

 private:
  nvinfer1::ILogger& logger_;
  std::shared_ptr<const LoadedGraph> loaded_;
  std::vector<IoTensor> tensors_;
  std::shared_ptr<std::atomic<int>> engines_;
  std::shared_ptr<std::atomic<int>> contexts_ = std::make_shared<std::atomic<int>>(0);
};

}  // namespace ostrel::tensorrt_parts
