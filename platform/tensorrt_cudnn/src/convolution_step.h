// A convolution with bias, residual sum and ReLU as one call of cuDNN.
#pragma once

#include "execution_plan.h"

namespace ostrel::tensorrt_cudnn {

struct ConvolutionShape {
  Format format = Format::kPlainFloat32;
  MapSizes source;
  MapSizes weights;  // out, in / groups, rows, columns
  MapSizes target;
  ConvolutionWindow window;
  bool residual = false;
  bool rectify = false;
};

class ConvolutionStep final : public PlanStep {
 public:
  // Operands of the step.
  enum : std::size_t { kSource, kWeights, kBias, kResidual, kTarget, kWorkspace, kOperands };

  // Throws ModelError where cuDNN has no algorithm.
  ConvolutionStep(cudnnHandle_t cudnn, const ConvolutionShape& shape);

  // The residual may be the target itself; without one it is not read.
  void set_operand(std::size_t which, const Operand& operand) { operands()[which] = operand; }
  std::size_t workspace_bytes() const { return workspace_bytes_; }

  void run(const Run& run) const override;

 private:
  void choose_algorithm(cudnnHandle_t cudnn, bool rectify);

  TensorDescriptor source_;
  FilterDescriptor weights_;
  TensorDescriptor bias_;
  TensorDescriptor target_;
  ConvolutionDescriptor convolution_;
  ActivationDescriptor activation_;
  cudnnConvolutionFwdAlgo_t algorithm_ = CUDNN_CONVOLUTION_FWD_ALGO_IMPLICIT_PRECOMP_GEMM;
  std::size_t workspace_bytes_ = 0;
  float residual_share_ = 0.0F;
};

}  // namespace ostrel::tensorrt_cudnn
