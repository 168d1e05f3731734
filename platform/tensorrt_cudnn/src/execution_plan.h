// A network made ready for one set of input shapes: descriptors, kernels and all memory are settled once.
#pragma once

#include <memory>
#include <utility>

#include "cudnn_handles.h"
#include "network.h"

namespace ostrel::tensorrt_cudnn {

// What a step reads or writes: memory that does not change, a buffer of the plan, or an input or output of the
// network, whose address comes with each run.
struct Operand {
  void* fixed = nullptr;
  int buffer = -1;  // of the builder; settled into `fixed` or `port` when the plan is complete
  int port = -1;
};

// One run of a plan.
struct Run {
  cudnnHandle_t cudnn;  // bound to `stream`
  cudaStream_t stream;
  void* const* addresses;  // inputs, then outputs
};

class PlanStep {
 public:
  explicit PlanStep(std::vector<Operand> operands) : operands_(std::move(operands)) {}
  virtual ~PlanStep() = default;
  PlanStep(const PlanStep&) = delete;
  PlanStep& operator=(const PlanStep&) = delete;

  // Queues the step without waiting; throws ModelError.
  virtual void run(const Run& run) const = 0;

  std::vector<Operand>& operands() { return operands_; }

 protected:
  void* at(const Run& run, std::size_t operand) const {
    const Operand& wanted = operands_[operand];
    return wanted.port < 0 ? wanted.fixed : run.addresses[wanted.port];
  }
  // For operands that are plain floats.
  float* reals(const Run& run, std::size_t operand) const { return static_cast<float*>(at(run, operand)); }

 private:
  std::vector<Operand> operands_;
};

class ExecutionPlan {
 public:
  // Queues the network on the stream; allocates nothing and does not wait. Throws ModelError.
  void run(cudnnHandle_t cudnn, cudaStream_t stream, void* const* addresses) const;

  const std::vector<Sizes>& sizes() const { return sizes_; }  // of every value

 private:
  friend class PlanBuilder;

  std::shared_ptr<const Network> network_;  // steps read its constants
  std::vector<Sizes> sizes_;
  std::vector<std::unique_ptr<PlanStep>> steps_;
  DeviceMemory block_;  // all intermediate results and the convolutions' work space
};

// Builds a plan for inputs of these sizes (all known, in the order of graph.inputs). Throws ModelError for sizes that
// the network or the device cannot take.
std::shared_ptr<const ExecutionPlan> build_plan(std::shared_ptr<const Network> network, cudnnHandle_t cudnn,
                                                const std::vector<Sizes>& input_sizes);

}  // namespace ostrel::tensorrt_cudnn
