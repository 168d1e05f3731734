#pragma once

#include <NvInfer.h>
#include <input_shapes.h>
#include <io_tensors.h>

#include <atomic>
#include <memory>

#include "execution_plan.h"

namespace ostrel::tensorrt_cudnn {

// Setting the last unknown input shape sets up everything that a run needs, memory too; enqueueV3 only queues. A
// context keeps a plan for each of the last few sets of input shapes, so that going back to one is free.
class ExecutionContext final : public nvinfer1::IExecutionContext {
 public:
  // `contexts` counts the engine's live contexts. Throws ModelError.
  ExecutionContext(nvinfer1::ILogger& logger, std::shared_ptr<const Network> network,
                   const std::vector<IoTensor>& tensors, std::shared_ptr<std::atomic<int>> contexts);
  // Waits for its work, since it frees the memory of its plans.
  ~ExecutionContext() noexcept override;

  bool setInputShape(char const* tensorName, nvinfer1::Dims const& dims) noexcept override;
  nvinfer1::Dims getTensorShape(char const* tensorName) const noexcept override;
  bool setTensorAddress(char const* tensorName, void* data) noexcept override;
  bool enqueueV3(cudaStream_t stream) noexcept override;

 private:
  struct KnownPlan {
    std::vector<Sizes> input_sizes;
    std::shared_ptr<const ExecutionPlan> plan;
  };

  std::vector<Sizes> resolve(const std::vector<Sizes>& input_sizes);
  void choose_plan(const std::vector<Sizes>& input_sizes);
  void check_addresses() const;

  nvinfer1::ILogger& logger_;
  std::shared_ptr<const Network> network_;
  std::vector<IoTensor> tensors_;
  std::shared_ptr<std::atomic<int>> contexts_;
  CudnnHandle cudnn_;
  InputShapes shapes_;
  std::vector<void*> addresses_;               // per tensor, null until bound
  std::vector<KnownPlan> plans_;               // the latest made last
  std::shared_ptr<const ExecutionPlan> plan_;  // for the shapes as set, null while one is unknown
};

}  // namespace ostrel::tensorrt_cudnn
