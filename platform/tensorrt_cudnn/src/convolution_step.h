// A convolution with bias, residual sum and ReLU.
#pragma once

#include "execution_plan.h"

namespace ostrel::tensorrt_cudnn {

struct ConvolutionShape {
  Format format = Format::kPlainFloat32;
  MapSizes source;   // these three as they lie in memory
  MapSizes weights;  // out, in / groups, rows, columns
  MapSizes target;
  ConvolutionWindow window;
  bool residual = false;
  bool rectify = false;
};

// One call of cuDNN where it takes all at once, else one after the other.
class ConvolutionStep final : public PlanStep {
 public:
  // Operands of the step.
  enum : std::size_t { kSource, kWeights, kBias, kResidual, kTarget, kWorkspace, kOperands };

  // Throws ModelError where cuDNN has no algorithm.
  ConvolutionStep(cudnnHandle_t cudnn, const ConvolutionShape& shape);

  // The residual may be the target itself; without one it is not read.
  void set_operand(std::size_t which, const Operand& operand) { operands()[which] = operand; }
  std::size_t workspace_bytes() const { return workspace_bytes_; }

  // From one thread at a time.
  void run(const Run& run) const override;

 private:
  void choose_algorithm(cudnnHandle_t cudnn);
  cudnnStatus_t run_at_once(const Run& run) const;
  void run_in_parts(const Run& run) const;

  ConvolutionShape shape_;
  TensorDescriptor source_;
  FilterDescriptor weights_;
  TensorDescriptor bias_;
  TensorDescriptor target_;
  ConvolutionDescriptor convolution_;
  ActivationDescriptor activation_;
  cudnnConvolutionFwdAlgo_t algorithm_ = CUDNN_CONVOLUTION_FWD_ALGO_IMPLICIT_PRECOMP_GEMM;
  std::size_t workspace_bytes_ = 0;
  float residual_share_ = 0.0F;
  mutable bool at_once_ = true;  // until cuDNN says that it cannot
};

}  // namespace ostrel::tensorrt_cudnn
