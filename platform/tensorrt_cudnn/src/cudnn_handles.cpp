#include "cudnn_handles.h"

#include "status.h"

namespace ostrel::tensorrt_cudnn {
namespace {

template <typename Owner>
Owner create(cudnnStatus_t (*make)(typename Owner::pointer*), const char* what) {
  typename Owner::pointer handle = nullptr;
  check(make(&handle), what);
  return Owner(handle);
}

cudnnTensorFormat_t order_of(Format format) {
  return format == Format::kPlainFloat32 ? CUDNN_TENSOR_NCHW : CUDNN_TENSOR_NHWC;
}

cudnnDataType_t type_of(Format format) {
  return format == Format::kPlainFloat32 ? CUDNN_DATA_FLOAT : CUDNN_DATA_HALF;
}

}  // namespace

CudnnHandle make_cudnn_handle() {
  return create<CudnnHandle>(cudnnCreate, "cudnnCreate");
}

TensorDescriptor describe_tensor(Format format, const MapSizes& sizes) {
  auto tensor = create<TensorDescriptor>(cudnnCreateTensorDescriptor, "cudnnCreateTensorDescriptor");
  check(cudnnSetTensor4dDescriptor(tensor.get(), order_of(format), type_of(format), sizes.samples,
                                   sizes.channels, sizes.rows, sizes.columns),
        "cudnnSetTensor4dDescriptor");
  return tensor;
}

FilterDescriptor describe_filter(Format format, const MapSizes& sizes) {
  auto filter = create<FilterDescriptor>(cudnnCreateFilterDescriptor, "cudnnCreateFilterDescriptor");
  check(cudnnSetFilter4dDescriptor(filter.get(), type_of(format), order_of(format), sizes.samples,
                                   sizes.channels, sizes.rows, sizes.columns),
        "cudnnSetFilter4dDescriptor");
  return filter;
}

ConvolutionDescriptor describe_convolution(Format format, const ConvolutionWindow& window) {
  auto convolution =
      create<ConvolutionDescriptor>(cudnnCreateConvolutionDescriptor, "cudnnCreateConvolutionDescriptor");
  check(cudnnSetConvolution2dDescriptor(convolution.get(), window.pad_rows, window.pad_columns,
                                        window.stride_rows, window.stride_columns, window.dilation_rows,
                                        window.dilation_columns, CUDNN_CROSS_CORRELATION, CUDNN_DATA_FLOAT),
        "cudnnSetConvolution2dDescriptor");
  check(cudnnSetConvolutionGroupCount(convolution.get(), window.groups), "cudnnSetConvolutionGroupCount");
  const cudnnMathType_t math = format == Format::kPlainFloat32 ? CUDNN_FMA_MATH : CUDNN_TENSOR_OP_MATH;
  check(cudnnSetConvolutionMathType(convolution.get(), math), "cudnnSetConvolutionMathType");
  return convolution;
}

ActivationDescriptor describe_activation(bool rectify) {
  auto activation =
      create<ActivationDescriptor>(cudnnCreateActivationDescriptor, "cudnnCreateActivationDescriptor");
  const cudnnActivationMode_t mode = rectify ? CUDNN_ACTIVATION_RELU : CUDNN_ACTIVATION_IDENTITY;
  check(cudnnSetActivationDescriptor(activation.get(), mode, CUDNN_NOT_PROPAGATE_NAN, 0.0),
        "cudnnSetActivationDescriptor");
  return activation;
}

}  // namespace ostrel::tensorrt_cudnn
