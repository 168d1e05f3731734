#include "convolution_step.h"

#include "status.h"

namespace ostrel::tensorrt_cudnn {
namespace {

constexpr float kWhole = 1.0F;

}  // namespace

ConvolutionStep::ConvolutionStep(cudnnHandle_t cudnn, const ConvolutionShape& shape)
    : PlanStep(std::vector<Operand>(kOperands)),
      shape_(shape),
      source_(describe_tensor(shape.format, shape.source)),
      weights_(describe_filter(shape.format, shape.weights)),
      bias_(describe_tensor(shape.format, {1, shape.target.channels, 1, 1})),
      target_(describe_tensor(shape.format, shape.target)),
      convolution_(describe_convolution(shape.format, shape.window)),
      activation_(describe_activation(shape.rectify)),
      residual_share_(shape.residual ? 1.0F : 0.0F) {
  choose_algorithm(cudnn);
}

// Both sum the products in order, without the rounding of transforms, so that results stay close to those of other
// machines. Only the first goes at once without a ReLU.
void ConvolutionStep::choose_algorithm(cudnnHandle_t cudnn) {
  const auto workspace = [&](cudnnConvolutionFwdAlgo_t algorithm) {
    algorithm_ = algorithm;
    return cudnnGetConvolutionForwardWorkspaceSize(cudnn, source_.get(), weights_.get(), convolution_.get(),
                                                   target_.get(), algorithm, &workspace_bytes_);
  };
  cudnnStatus_t status = workspace(CUDNN_CONVOLUTION_FWD_ALGO_IMPLICIT_PRECOMP_GEMM);
  if (status != CUDNN_STATUS_SUCCESS) {
    at_once_ = shape_.rectify;
    status = workspace(CUDNN_CONVOLUTION_FWD_ALGO_IMPLICIT_GEMM);
  }
  check(status, "cudnnGetConvolutionForwardWorkspaceSize");
}

// cuDNN knows only at the call whether it takes all at once; what it refuses it has not begun.
void ConvolutionStep::run(const Run& run) const {
  if (at_once_) {
    const cudnnStatus_t status = run_at_once(run);
    if (CUDNN_STATUS_CATEGORY(status) != CUDNN_STATUS_NOT_SUPPORTED) {
      check(status, "cudnnConvolutionBiasActivationForward");
      return;
    }
    at_once_ = false;
  }
  run_in_parts(run);
}

// cuDNN wants a residual always; one with a share of 0 is not read.
cudnnStatus_t ConvolutionStep::run_at_once(const Run& run) const {
  return cudnnConvolutionBiasActivationForward(
      run.cudnn, &kWhole, source_.get(), at(run, kSource), weights_.get(), at(run, kWeights),
      convolution_.get(), algorithm_, at(run, kWorkspace), workspace_bytes_, &residual_share_, target_.get(),
      at(run, shape_.residual ? kResidual : kTarget), bias_.get(), at(run, kBias), activation_.get(),
      target_.get(), at(run, kTarget));
}

void ConvolutionStep::run_in_parts(const Run& run) const {
  void* const target = at(run, kTarget);
  if (shape_.residual && at(run, kResidual) != target) {
    const std::size_t bytes = static_cast<std::size_t>(shape_.target.count()) * element_bytes(shape_.format);
    check(cudaMemcpyAsync(target, at(run, kResidual), bytes, cudaMemcpyDeviceToDevice, run.stream),
          "cudaMemcpyAsync");
  }
  check(cudnnConvolutionForward(run.cudnn, &kWhole, source_.get(), at(run, kSource), weights_.get(),
                                at(run, kWeights), convolution_.get(), algorithm_, at(run, kWorkspace),
                                workspace_bytes_, &residual_share_, target_.get(), target),
        "cudnnConvolutionForward");
  check(cudnnAddTensor(run.cudnn, &kWhole, bias_.get(), at(run, kBias), &kWhole, target_.get(), target),
        "cudnnAddTensor");
  if (shape_.rectify) {
    check(launch_relu(shape_.format, target, target, shape_.target.count(), run.stream), "relu_kernel");
  }
}

}  // namespace ostrel::tensorrt_cudnn
