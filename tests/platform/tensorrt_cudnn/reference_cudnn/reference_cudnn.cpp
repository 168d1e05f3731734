#include <cuda_fp16.h>
#include <cudnn.h>
#include <host_cuda/control.h>

#include <cstdint>

// A descriptor of a tensor or of weights.
struct Described {
  cudnnTensorFormat_t format = CUDNN_TENSOR_NCHW;
  cudnnDataType_t type = CUDNN_DATA_FLOAT;
  int n = 0;
  int c = 0;
  int h = 0;
  int w = 0;
};
struct cudnnContext {
  cudaStream_t stream = nullptr;
};
struct cudnnTensorStruct : Described {};
struct cudnnFilterStruct : Described {};
struct cudnnConvolutionStruct {
  int pad_h = 0;
  int pad_w = 0;
  int stride_h = 1;
  int stride_w = 1;
  int dilation_h = 1;
  int dilation_w = 1;
  int groups = 1;
  cudnnMathType_t math = CUDNN_DEFAULT_MATH;
};
struct cudnnActivationStruct {
  cudnnActivationMode_t mode = CUDNN_ACTIVATION_IDENTITY;
};

namespace {

// So small that a missing work space shows.
constexpr std::size_t kWorkspaceBytes = 1024;

// Counts the call; a fault is due when its status is not 0.
cudnnStatus_t enter(const char* call) {
  return static_cast<cudnnStatus_t>(ostrel::host_cuda::take_fault(call));
}

template <typename Struct>
cudnnStatus_t make(const char* call, Struct** made) {
  const cudnnStatus_t status = enter(call);
  if (status == CUDNN_STATUS_SUCCESS) *made = new Struct;
  return status;
}

template <typename Struct>
cudnnStatus_t destroy(Struct* made) {
  delete made;
  return CUDNN_STATUS_SUCCESS;
}

std::size_t place(const Described& tensor, int n, int c, int h, int w) {
  const auto at = [](int outer, int size, int inner) { return std::int64_t{outer} * size + inner; };
  const std::int64_t index = tensor.format == CUDNN_TENSOR_NCHW
                                 ? ((at(n, tensor.c, c) * tensor.h + h) * tensor.w + w)
                                 : ((at(n, tensor.h, h) * tensor.w + w) * tensor.c + c);
  return static_cast<std::size_t>(index);
}

double load(const Described& tensor, const void* memory, int n, int c, int h, int w) {
  const std::size_t at = place(tensor, n, c, h, w);
  if (tensor.type == CUDNN_DATA_FLOAT) return static_cast<double>(static_cast<const float*>(memory)[at]);
  return static_cast<double>(__half2float(static_cast<const __half*>(memory)[at]));
}

void store(double value, const Described& tensor, void* memory, int n, int c, int h, int w) {
  const std::size_t at = place(tensor, n, c, h, w);
  const auto real = static_cast<float>(value);
  if (tensor.type == CUDNN_DATA_FLOAT) {
    static_cast<float*>(memory)[at] = real;
  } else {
    static_cast<__half*>(memory)[at] = __float2half(real);
  }
}

struct Work {
  Described source_shape, weights_shape, target_shape, bias_shape;
  cudnnConvolutionStruct walk;
  bool rectify;
  float source_share, residual_share;
  const void *source, *weights, *residual, *bias;
  void* target;

  double products(int n, int k, int y, int x) const {
    double sum = 0.0;
    const int first_channel = k / (weights_shape.n / walk.groups) * weights_shape.c;
    for (int c = 0; c < weights_shape.c; ++c) {
      for (int i = 0; i < weights_shape.h; ++i) {
        const int row = y * walk.stride_h + i * walk.dilation_h - walk.pad_h;
        if (row < 0 || row >= source_shape.h) continue;
        for (int j = 0; j < weights_shape.w; ++j) {
          const int column = x * walk.stride_w + j * walk.dilation_w - walk.pad_w;
          if (column < 0 || column >= source_shape.w) continue;
          sum += load(source_shape, source, n, first_channel + c, row, column) *
                 load(weights_shape, weights, k, c, i, j);
        }
      }
    }
    return sum;
  }

  void run_one(int n, int k, int y, int x) const {
    double value = static_cast<double>(source_share) * products(n, k, y, x);
    if (bias != nullptr) value += load(bias_shape, bias, 0, k, 0, 0);
    if (residual_share != 0.0F) {
      value += static_cast<double>(residual_share) * load(target_shape, residual, n, k, y, x);
    }
    store(rectify && value < 0.0 ? 0.0 : value, target_shape, target, n, k, y, x);
  }

  void operator()() const {
    for (int n = 0; n < target_shape.n; ++n) {
      for (int k = 0; k < target_shape.c; ++k) {
        for (int y = 0; y < target_shape.h; ++y) {
          for (int x = 0; x < target_shape.w; ++x) run_one(n, k, y, x);
        }
      }
    }
  }
};

// Adds the bias of each channel.
struct BiasWork {
  Described bias_shape, target_shape;
  const void* bias;
  void* target;

  void operator()() const {
    const Described& map = target_shape;
    for (int n = 0; n < map.n; ++n) {
      for (int k = 0; k < map.c; ++k) {
        const double added = load(bias_shape, bias, 0, k, 0, 0);
        for (int y = 0; y < map.h; ++y) {
          for (int x = 0; x < map.w; ++x)
            store(load(map, target, n, k, y, x) + added, map, target, n, k, y, x);
        }
      }
    }
  }
};

int output_size(int size, int pad, int kernel, int dilation, int stride) {
  return (size + 2 * pad - ((kernel - 1) * dilation + 1)) / stride + 1;
}

bool alike(const Described& a, const Described& b) {
  return a.format == b.format && a.type == b.type;
}

bool same(const Described& a, const Described& b) {
  return alike(a, b) && a.n == b.n && a.c == b.c && a.h == b.h && a.w == b.w;
}

// The real one pads what its tensor cores need in some layouts and versions, and refuses in others.
bool fits_tensor_cores(const Described& map) {
  return map.type == CUDNN_DATA_FLOAT || map.c % 8 == 0;
}

bool fits(const Described& source, const Described& weights, const cudnnConvolutionStruct& walk,
          const Described& target) {
  const cudnnMathType_t math = source.type == CUDNN_DATA_FLOAT ? CUDNN_FMA_MATH : CUDNN_TENSOR_OP_MATH;
  return alike(source, weights) && alike(source, target) && walk.math == math && target.n == source.n &&
         target.c == weights.n && weights.c * walk.groups == source.c && weights.n % walk.groups == 0 &&
         target.h == output_size(source.h, walk.pad_h, weights.h, walk.dilation_h, walk.stride_h) &&
         target.w == output_size(source.w, walk.pad_w, weights.w, walk.dilation_w, walk.stride_w);
}

// What a convolution does to its work space: what lies there is lost.
cudnnStatus_t use_workspace(cudnnConvolutionFwdAlgo_t algorithm, void* workspace, std::size_t bytes,
                            cudaStream_t stream) {
  if (algorithm != CUDNN_CONVOLUTION_FWD_ALGO_IMPLICIT_PRECOMP_GEMM) return CUDNN_STATUS_SUCCESS;
  if (bytes < kWorkspaceBytes || !ostrel::host_cuda::is_device_pointer(workspace, kWorkspaceBytes)) {
    return CUDNN_STATUS_BAD_PARAM;
  }
  const cudaError_t status = cudaMemsetAsync(workspace, 0xA5, kWorkspaceBytes, stream);
  return status == cudaSuccess ? CUDNN_STATUS_SUCCESS : CUDNN_STATUS_EXECUTION_FAILED;
}

template <typename QueuedWork>
cudnnStatus_t queue(cudaStream_t stream, const char* name, const QueuedWork& work) {
  const cudaError_t queued = ostrel::host_cuda::enqueue(stream, name, work);
  return queued == cudaSuccess ? CUDNN_STATUS_SUCCESS : CUDNN_STATUS_EXECUTION_FAILED;
}

cudnnStatus_t describe(const char* call, Described* target, const Described& values) {
  const cudnnStatus_t status = enter(call);
  if (status != CUDNN_STATUS_SUCCESS) return status;
  if (values.n < 1 || values.c < 1 || values.h < 1 || values.w < 1) return CUDNN_STATUS_BAD_PARAM;
  *target = values;
  return CUDNN_STATUS_SUCCESS;
}

}  // namespace

const char* cudnnGetErrorString(cudnnStatus_t status) {
  switch (status) {
    case CUDNN_STATUS_SUCCESS:
      return "CUDNN_STATUS_SUCCESS";
    case CUDNN_STATUS_BAD_PARAM:
      return "CUDNN_STATUS_BAD_PARAM";
    case CUDNN_STATUS_NOT_SUPPORTED:
      return "CUDNN_STATUS_NOT_SUPPORTED";
    case CUDNN_STATUS_NOT_SUPPORTED_LAYOUT:
      return "CUDNN_STATUS_NOT_SUPPORTED_LAYOUT";
    default:
      return "CUDNN_STATUS_EXECUTION_FAILED";
  }
}

cudnnStatus_t cudnnCreate(cudnnHandle_t* handle) {
  return make("cudnnCreate", handle);
}
cudnnStatus_t cudnnDestroy(cudnnHandle_t handle) {
  return destroy(handle);
}
cudnnStatus_t cudnnSetStream(cudnnHandle_t handle, cudaStream_t stream) {
  handle->stream = stream;
  return enter("cudnnSetStream");
}

cudnnStatus_t cudnnCreateTensorDescriptor(cudnnTensorDescriptor_t* tensor) {
  return make("cudnnCreateTensorDescriptor", tensor);
}
cudnnStatus_t cudnnDestroyTensorDescriptor(cudnnTensorDescriptor_t tensor) {
  return destroy(tensor);
}
cudnnStatus_t cudnnSetTensor4dDescriptor(cudnnTensorDescriptor_t tensor, cudnnTensorFormat_t format,
                                         cudnnDataType_t type, int n, int c, int h, int w) {
  return describe("cudnnSetTensor4dDescriptor", tensor, {format, type, n, c, h, w});
}

cudnnStatus_t cudnnCreateFilterDescriptor(cudnnFilterDescriptor_t* filter) {
  return make("cudnnCreateFilterDescriptor", filter);
}
cudnnStatus_t cudnnDestroyFilterDescriptor(cudnnFilterDescriptor_t filter) {
  return destroy(filter);
}
cudnnStatus_t cudnnSetFilter4dDescriptor(cudnnFilterDescriptor_t filter, cudnnDataType_t type,
                                         cudnnTensorFormat_t format, int k, int c, int h, int w) {
  return describe("cudnnSetFilter4dDescriptor", filter, {format, type, k, c, h, w});
}

cudnnStatus_t cudnnCreateConvolutionDescriptor(cudnnConvolutionDescriptor_t* convolution) {
  return make("cudnnCreateConvolutionDescriptor", convolution);
}
cudnnStatus_t cudnnDestroyConvolutionDescriptor(cudnnConvolutionDescriptor_t convolution) {
  return destroy(convolution);
}
cudnnStatus_t cudnnSetConvolution2dDescriptor(cudnnConvolutionDescriptor_t convolution, int pad_h, int pad_w,
                                              int stride_h, int stride_w, int dilation_h, int dilation_w,
                                              cudnnConvolutionMode_t mode, cudnnDataType_t compute) {
  if (mode != CUDNN_CROSS_CORRELATION || compute != CUDNN_DATA_FLOAT) return CUDNN_STATUS_BAD_PARAM;
  *convolution = {pad_h, pad_w, stride_h, stride_w, dilation_h, dilation_w, 1, CUDNN_DEFAULT_MATH};
  return enter("cudnnSetConvolution2dDescriptor");
}
cudnnStatus_t cudnnSetConvolutionGroupCount(cudnnConvolutionDescriptor_t convolution, int groups) {
  convolution->groups = groups;
  return enter("cudnnSetConvolutionGroupCount");
}
cudnnStatus_t cudnnSetConvolutionMathType(cudnnConvolutionDescriptor_t convolution, cudnnMathType_t math) {
  convolution->math = math;
  return enter("cudnnSetConvolutionMathType");
}

cudnnStatus_t cudnnCreateActivationDescriptor(cudnnActivationDescriptor_t* activation) {
  return make("cudnnCreateActivationDescriptor", activation);
}
cudnnStatus_t cudnnDestroyActivationDescriptor(cudnnActivationDescriptor_t activation) {
  return destroy(activation);
}
cudnnStatus_t cudnnSetActivationDescriptor(cudnnActivationDescriptor_t activation, cudnnActivationMode_t mode,
                                           cudnnNanPropagation_t /*nan*/, double /*ceiling*/) {
  activation->mode = mode;
  return enter("cudnnSetActivationDescriptor");
}

cudnnStatus_t cudnnGetConvolutionForwardWorkspaceSize(
    cudnnHandle_t /*handle*/, cudnnTensorDescriptor_t source, cudnnFilterDescriptor_t weights,
    cudnnConvolutionDescriptor_t convolution, cudnnTensorDescriptor_t target,
    cudnnConvolutionFwdAlgo_t algorithm, std::size_t* bytes) {
  const cudnnStatus_t status = enter("cudnnGetConvolutionForwardWorkspaceSize");
  if (status != CUDNN_STATUS_SUCCESS) return status;
  if (!fits(*source, *weights, *convolution, *target)) return CUDNN_STATUS_BAD_PARAM;
  if (!fits_tensor_cores(*source) || !fits_tensor_cores(*target)) return CUDNN_STATUS_NOT_SUPPORTED;
  *bytes = algorithm == CUDNN_CONVOLUTION_FWD_ALGO_IMPLICIT_PRECOMP_GEMM ? kWorkspaceBytes : 0;
  return CUDNN_STATUS_SUCCESS;
}

cudnnStatus_t cudnnConvolutionForward(cudnnHandle_t handle, const void* alpha,
                                      cudnnTensorDescriptor_t source_shape, const void* source,
                                      cudnnFilterDescriptor_t weights_shape, const void* weights,
                                      cudnnConvolutionDescriptor_t convolution,
                                      cudnnConvolutionFwdAlgo_t algorithm, void* workspace,
                                      std::size_t workspace_bytes, const void* beta,
                                      cudnnTensorDescriptor_t target_shape, void* target) {
  const cudnnStatus_t status = enter("cudnnConvolutionForward");
  if (status != CUDNN_STATUS_SUCCESS) return status;
  if (!fits(*source_shape, *weights_shape, *convolution, *target_shape) || source == target) {
    return CUDNN_STATUS_BAD_PARAM;
  }
  const cudnnStatus_t ready = use_workspace(algorithm, workspace, workspace_bytes, handle->stream);
  if (ready != CUDNN_STATUS_SUCCESS) return ready;
  const Work work{*source_shape,
                  *weights_shape,
                  *target_shape,
                  {},
                  *convolution,
                  false,
                  *static_cast<const float*>(alpha),
                  *static_cast<const float*>(beta),
                  source,
                  weights,
                  target,
                  nullptr,
                  target};
  return queue(handle->stream, "convolution", work);
}

cudnnStatus_t cudnnAddTensor(cudnnHandle_t handle, const void* alpha, cudnnTensorDescriptor_t bias_shape,
                             const void* bias, const void* beta, cudnnTensorDescriptor_t target_shape,
                             void* target) {
  const cudnnStatus_t status = enter("cudnnAddTensor");
  if (status != CUDNN_STATUS_SUCCESS) return status;
  const bool whole = *static_cast<const float*>(alpha) == 1.0F && *static_cast<const float*>(beta) == 1.0F;
  if (!whole || !alike(*bias_shape, *target_shape) || bias_shape->c != target_shape->c ||
      bias_shape->n != 1 || bias_shape->h != 1 || bias_shape->w != 1) {
    return CUDNN_STATUS_BAD_PARAM;
  }
  return queue(handle->stream, "bias", BiasWork{*bias_shape, *target_shape, bias, target});
}

cudnnStatus_t cudnnConvolutionBiasActivationForward(
    cudnnHandle_t handle, const void* alpha1, cudnnTensorDescriptor_t source_shape, const void* source,
    cudnnFilterDescriptor_t weights_shape, const void* weights, cudnnConvolutionDescriptor_t convolution,
    cudnnConvolutionFwdAlgo_t algorithm, void* workspace, std::size_t workspace_bytes, const void* alpha2,
    cudnnTensorDescriptor_t residual_shape, const void* residual, cudnnTensorDescriptor_t bias_shape,
    const void* bias, cudnnActivationDescriptor_t activation, cudnnTensorDescriptor_t target_shape,
    void* target) {
  const cudnnStatus_t status = enter("cudnnConvolutionBiasActivationForward");
  if (status != CUDNN_STATUS_SUCCESS) return status;
  const bool gathers = algorithm == CUDNN_CONVOLUTION_FWD_ALGO_IMPLICIT_PRECOMP_GEMM;
  const bool rectify = activation->mode == CUDNN_ACTIVATION_RELU;
  if (!fits(*source_shape, *weights_shape, *convolution, *target_shape) ||
      !same(*residual_shape, *target_shape) || !alike(*bias_shape, *target_shape) ||
      bias_shape->c != target_shape->c || (!rectify && !gathers) || source == target || residual == nullptr) {
    return CUDNN_STATUS_BAD_PARAM;
  }
  const cudnnStatus_t ready = use_workspace(algorithm, workspace, workspace_bytes, handle->stream);
  if (ready != CUDNN_STATUS_SUCCESS) return ready;
  const Work work{*source_shape,
                  *weights_shape,
                  *target_shape,
                  *bias_shape,
                  *convolution,
                  rectify,
                  *static_cast<const float*>(alpha1),
                  *static_cast<const float*>(alpha2),
                  source,
                  weights,
                  residual,
                  bias,
                  target};
  return queue(handle->stream, "convolution", work);
}
