#pragma once

#include <NvInfer.h>

#include <atomic>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <input_shapes.h>
#include <io_tensors.h>

#include "execution_plan.h"

namespace ostrel::tensorrt_onednn {

// A context keeps a plan for each of the last few sets of input shapes, so that going back to one is free.
// Beyond the real one it checks that bound addresses lie in live device memory of enough size, aligned to 256
// bytes, and reports its destruction while its work is on the way.
class ExecutionContext final : public nvinfer1::IExecutionContext {
 public:
  // `contexts` counts the engine's live contexts.
  ExecutionContext(nvinfer1::ILogger& logger, std::shared_ptr<Network> network,
                   const std::vector<IoTensor>& tensors, std::shared_ptr<std::atomic<int>> contexts);
  ~ExecutionContext() noexcept override;

  bool setInputShape(char const* tensorName, nvinfer1::Dims const& dims) noexcept override;
  nvinfer1::Dims getTensorShape(char const* tensorName) const noexcept override;
  bool setTensorAddress(char const* tensorName, void* data) noexcept override;
  bool enqueueV3(cudaStream_t stream) noexcept override;

 private:
  struct KnownPlan {
    std::vector<Sizes> input_sizes;
    std::shared_ptr<ExecutionPlan> plan;
  };

  std::vector<Sizes> resolved(const std::vector<Sizes>& input_sizes) const;
  std::shared_ptr<ExecutionPlan> known_plan(const std::vector<Sizes>& input_sizes) const;
  std::shared_ptr<ExecutionPlan> current_plan();
  bool ready_to_run(std::string* reason) const;
  bool put_on_stream(const std::shared_ptr<ExecutionPlan>& plan, cudaStream_t stream);

  nvinfer1::ILogger& logger_;
  std::shared_ptr<Network> network_;
  std::vector<IoTensor> tensors_;
  std::shared_ptr<std::atomic<int>> contexts_;
  InputShapes shapes_;
  std::vector<void*> addresses_;  // per tensor, null until bound
  std::vector<KnownPlan> plans_;  // the latest last
};

}  // namespace ostrel::tensorrt_onednn
