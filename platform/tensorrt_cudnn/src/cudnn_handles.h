// Owners of cuDNN's handle and descriptors. Making or setting one throws ModelError.
#pragma once

#include <cudnn.h>

#include <memory>

#include "tensor_kernels.h"

namespace ostrel::tensorrt_cudnn {

template <typename Handle, cudnnStatus_t (*kDestroy)(Handle)>
struct CudnnDeleter {
  using pointer = Handle;
  void operator()(Handle handle) const noexcept { static_cast<void>(kDestroy(handle)); }
};
template <typename Handle, cudnnStatus_t (*kDestroy)(Handle)>
using CudnnOwner = std::unique_ptr<Handle, CudnnDeleter<Handle, kDestroy>>;

using CudnnHandle = CudnnOwner<cudnnHandle_t, cudnnDestroy>;
using TensorDescriptor = CudnnOwner<cudnnTensorDescriptor_t, cudnnDestroyTensorDescriptor>;
using FilterDescriptor = CudnnOwner<cudnnFilterDescriptor_t, cudnnDestroyFilterDescriptor>;
using ConvolutionDescriptor = CudnnOwner<cudnnConvolutionDescriptor_t, cudnnDestroyConvolutionDescriptor>;
using ActivationDescriptor = CudnnOwner<cudnnActivationDescriptor_t, cudnnDestroyActivationDescriptor>;

// How a convolution walks over its map; cuDNN pads both sides alike.
struct ConvolutionWindow {
  int pad_rows = 0;
  int pad_columns = 0;
  int stride_rows = 1;
  int stride_columns = 1;
  int dilation_rows = 1;
  int dilation_columns = 1;
  int groups = 1;
};

CudnnHandle make_cudnn_handle();
TensorDescriptor describe_tensor(Format format, const MapSizes& sizes);
// `sizes`: out, in / groups, rows, columns.
FilterDescriptor describe_filter(Format format, const MapSizes& sizes);
// Sums are made in float32: exactly so for kPlainFloat32 (no TF32), from float16 products on tensor cores else.
ConvolutionDescriptor describe_convolution(Format format, const ConvolutionWindow& window);
ActivationDescriptor describe_activation(bool rectify);

}  // namespace ostrel::tensorrt_cudnn
