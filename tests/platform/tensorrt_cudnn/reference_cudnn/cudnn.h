// The calls of cuDNN 9 that platform/tensorrt_cudnn makes, with plain loops behind them, so that plans, layouts and
// kernels are tested on a machine without a GPU. Values of enumerations and signatures are those of the vendor's
// header. Beyond the real one every descriptor is checked against the others, and 16-bit floats are taken for channels in
// multiples of eight alone.
#pragma once

#include <cuda_runtime.h>

#include <cstddef>

enum cudnnStatus_t {
  CUDNN_STATUS_SUCCESS = 0,
  CUDNN_STATUS_BAD_PARAM = 2000,
  CUDNN_STATUS_NOT_SUPPORTED = 3000,
  CUDNN_STATUS_NOT_SUPPORTED_LAYOUT = 3004,
  CUDNN_STATUS_EXECUTION_FAILED = 5000
};
#define CUDNN_STATUS_CATEGORY(status) ((status) / 1000 * 1000)

enum cudnnDataType_t { CUDNN_DATA_FLOAT = 0, CUDNN_DATA_HALF = 2 };
enum cudnnTensorFormat_t { CUDNN_TENSOR_NCHW = 0, CUDNN_TENSOR_NHWC = 1 };
enum cudnnMathType_t { CUDNN_DEFAULT_MATH = 0, CUDNN_TENSOR_OP_MATH = 1, CUDNN_FMA_MATH = 3 };
enum cudnnConvolutionMode_t { CUDNN_CONVOLUTION = 0, CUDNN_CROSS_CORRELATION = 1 };
enum cudnnNanPropagation_t { CUDNN_NOT_PROPAGATE_NAN = 0, CUDNN_PROPAGATE_NAN = 1 };
enum cudnnActivationMode_t { CUDNN_ACTIVATION_RELU = 1, CUDNN_ACTIVATION_IDENTITY = 5 };
enum cudnnConvolutionFwdAlgo_t {
  CUDNN_CONVOLUTION_FWD_ALGO_IMPLICIT_GEMM = 0,
  CUDNN_CONVOLUTION_FWD_ALGO_IMPLICIT_PRECOMP_GEMM = 1
};

using cudnnHandle_t = struct cudnnContext*;
using cudnnTensorDescriptor_t = struct cudnnTensorStruct*;
using cudnnFilterDescriptor_t = struct cudnnFilterStruct*;
using cudnnConvolutionDescriptor_t = struct cudnnConvolutionStruct*;
using cudnnActivationDescriptor_t = struct cudnnActivationStruct*;

const char* cudnnGetErrorString(cudnnStatus_t status);

cudnnStatus_t cudnnCreate(cudnnHandle_t* handle);
cudnnStatus_t cudnnDestroy(cudnnHandle_t handle);
cudnnStatus_t cudnnSetStream(cudnnHandle_t handle, cudaStream_t stream);

cudnnStatus_t cudnnCreateTensorDescriptor(cudnnTensorDescriptor_t* tensor);
cudnnStatus_t cudnnDestroyTensorDescriptor(cudnnTensorDescriptor_t tensor);
cudnnStatus_t cudnnSetTensor4dDescriptor(cudnnTensorDescriptor_t tensor, cudnnTensorFormat_t format,
                                         cudnnDataType_t type, int n, int c, int h, int w);

cudnnStatus_t cudnnCreateFilterDescriptor(cudnnFilterDescriptor_t* filter);
cudnnStatus_t cudnnDestroyFilterDescriptor(cudnnFilterDescriptor_t filter);
cudnnStatus_t cudnnSetFilter4dDescriptor(cudnnFilterDescriptor_t filter, cudnnDataType_t type,
                                         cudnnTensorFormat_t format, int k, int c, int h, int w);

cudnnStatus_t cudnnCreateConvolutionDescriptor(cudnnConvolutionDescriptor_t* convolution);
cudnnStatus_t cudnnDestroyConvolutionDescriptor(cudnnConvolutionDescriptor_t convolution);
cudnnStatus_t cudnnSetConvolution2dDescriptor(cudnnConvolutionDescriptor_t convolution, int pad_h, int pad_w,
                                              int stride_h, int stride_w, int dilation_h, int dilation_w,
                                              cudnnConvolutionMode_t mode, cudnnDataType_t compute);
cudnnStatus_t cudnnSetConvolutionGroupCount(cudnnConvolutionDescriptor_t convolution, int groups);
cudnnStatus_t cudnnSetConvolutionMathType(cudnnConvolutionDescriptor_t convolution, cudnnMathType_t math);

cudnnStatus_t cudnnCreateActivationDescriptor(cudnnActivationDescriptor_t* activation);
cudnnStatus_t cudnnDestroyActivationDescriptor(cudnnActivationDescriptor_t activation);
cudnnStatus_t cudnnSetActivationDescriptor(cudnnActivationDescriptor_t activation, cudnnActivationMode_t mode,
                                           cudnnNanPropagation_t nan, double ceiling);

cudnnStatus_t cudnnGetConvolutionForwardWorkspaceSize(cudnnHandle_t handle, cudnnTensorDescriptor_t source,
                                                      cudnnFilterDescriptor_t weights,
                                                      cudnnConvolutionDescriptor_t convolution,
                                                      cudnnTensorDescriptor_t target,
                                                      cudnnConvolutionFwdAlgo_t algorithm,
                                                      std::size_t* bytes);

// Refuses (CUDNN_STATUS_BAD_PARAM) shapes that do not fit, formats and types that differ, a work space that is too
// small, and an identity with another algorithm than IMPLICIT_PRECOMP_GEMM.
cudnnStatus_t cudnnConvolutionForward(cudnnHandle_t handle, const void* alpha,
                                      cudnnTensorDescriptor_t source_shape, const void* source,
                                      cudnnFilterDescriptor_t weights_shape, const void* weights,
                                      cudnnConvolutionDescriptor_t convolution,
                                      cudnnConvolutionFwdAlgo_t algorithm, void* workspace,
                                      std::size_t workspace_bytes, const void* beta,
                                      cudnnTensorDescriptor_t target_shape, void* target);

cudnnStatus_t cudnnAddTensor(cudnnHandle_t handle, const void* alpha, cudnnTensorDescriptor_t bias_shape,
                             const void* bias, const void* beta, cudnnTensorDescriptor_t target_shape,
                             void* target);

cudnnStatus_t cudnnConvolutionBiasActivationForward(
    cudnnHandle_t handle, const void* alpha1, cudnnTensorDescriptor_t source_shape, const void* source,
    cudnnFilterDescriptor_t weights_shape, const void* weights, cudnnConvolutionDescriptor_t convolution,
    cudnnConvolutionFwdAlgo_t algorithm, void* workspace, std::size_t workspace_bytes, const void* alpha2,
    cudnnTensorDescriptor_t residual_shape, const void* residual, cudnnTensorDescriptor_t bias_shape,
    const void* bias, cudnnActivationDescriptor_t activation, cudnnTensorDescriptor_t target_shape,
    void* target);
