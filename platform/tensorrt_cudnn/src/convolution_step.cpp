#include "convolution_step.h"

#include "status.h"

namespace ostrel::tensorrt_cudnn {

ConvolutionStep::ConvolutionStep(cudnnHandle_t cudnn, const ConvolutionShape& shape)
    : PlanStep(std::vector<Operand>(kOperands)),
      source_(describe_tensor(shape.format, shape.source)),
      weights_(describe_filter(shape.format, shape.weights)),
      bias_(describe_tensor(shape.format, {1, shape.target.channels, 1, 1})),
      target_(describe_tensor(shape.format, shape.target)),
      convolution_(describe_convolution(shape.format, shape.window)),
      activation_(describe_activation(shape.rectify)),
      residual_share_(shape.residual ? 1.0F : 0.0F) {
  choose_algorithm(cudnn, shape.rectify);
}

// Both sum the products in order, without the rounding of transforms, so that results stay close to those of other
// machines. Only the first goes without a ReLU.
void ConvolutionStep::choose_algorithm(cudnnHandle_t cudnn, bool rectify) {
  const auto workspace = [&](cudnnConvolutionFwdAlgo_t algorithm) {
    algorithm_ = algorithm;
    return cudnnGetConvolutionForwardWorkspaceSize(cudnn, source_.get(), weights_.get(), convolution_.get(),
                                                   target_.get(), algorithm, &workspace_bytes_);
  };
  cudnnStatus_t status = workspace(CUDNN_CONVOLUTION_FWD_ALGO_IMPLICIT_PRECOMP_GEMM);
  if (status != CUDNN_STATUS_SUCCESS && rectify) status = workspace(CUDNN_CONVOLUTION_FWD_ALGO_IMPLICIT_GEMM);
  check(status, "cudnnGetConvolutionForwardWorkspaceSize");
}

// cuDNN wants a residual always; one with a share of 0 is not read.
void ConvolutionStep::run(const Run& run) const {
  const float share = 1.0F;
  const std::size_t residual = residual_share_ == 0.0F ? kTarget : kResidual;
  check(cudnnConvolutionBiasActivationForward(
            run.cudnn, &share, source_.get(), at(run, kSource), weights_.get(), at(run, kWeights),
            convolution_.get(), algorithm_, at(run, kWorkspace), workspace_bytes_, &residual_share_,
            target_.get(), at(run, residual), bias_.get(), at(run, kBias), activation_.get(), target_.get(),
            at(run, kTarget)),
        "cudnnConvolutionBiasActivationForward");
}

}  // namespace ostrel::tensorrt_cudnn
