#include <cublas_v2.h>
#include <omp.h>
#include <oneapi/dnnl/dnnl.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>

#include "api_call.h"
#include "counter_store.h"
#include "handles.h"
#include "host_cuda/control.h"
#include "host_cuda/parallel.h"
#include "stream_table.h"

namespace ostrel::host_cuda::detail {
namespace {

class HandleTable {
 public:
  cublasHandle_t create() {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto handle = new_handle<cublasHandle_t>();
    streams_[handle] = nullptr;
    return handle;
  }

  bool destroy(cublasHandle_t handle) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return streams_.erase(handle) != 0;
  }

  bool set_stream(cublasHandle_t handle, cudaStream_t stream) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = streams_.find(handle);
    if (found == streams_.end()) return false;
    found->second = stream;
    return true;
  }

  bool stream_of(cublasHandle_t handle, cudaStream_t* stream) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = streams_.find(handle);
    if (found == streams_.end()) return false;
    *stream = found->second;
    return true;
  }

 private:
  std::mutex mutex_;
  std::map<cublasHandle_t, cudaStream_t> streams_;
};

HandleTable& handles() {
  static HandleTable& table = *new HandleTable;
  return table;
}

struct Operand {
  const float* data;
  int leading;
  long long stride;
  int rows;  // as stored, column-major
  int columns;

  bool fits_leading() const { return leading >= std::max(1, rows); }

  bool in_device_memory(int batch_count) const {
    if (rows == 0 || columns == 0) return true;
    const long long last =
        stride * (batch_count - 1) + static_cast<long long>(leading) * (columns - 1) + rows;
    return stride >= 0 && is_device_pointer(data, static_cast<std::size_t>(last) * sizeof(float));
  }
};

// One call's arguments, run on its stream. A column-major product is the row-major product of the operands in
// the other order.
struct Product {
  bool transpose_a, transpose_b;
  int m, n, k;
  float alpha, beta;
  Operand a, b, c;
  int batch_count;

  void operator()() const {
    parallel_for(batch_count, threads_allowed(), [this](int index) { multiply(index); });
  }

  void multiply(int index) const {
    float* target = const_cast<float*>(c.data) + c.stride * index;
    if (k == 0) {
      scale(target);
    } else {
      add_product(target, index);
    }
  }

  void scale(float* target) const {
    for (int column = 0; column < n; ++column) {
      float* first = target + static_cast<std::ptrdiff_t>(c.leading) * column;
      for (int row = 0; row < m; ++row) first[row] = beta == 0.0F ? 0.0F : beta * first[row];
    }
  }

  void add_product(float* target, int index) const {
    const int previous = omp_get_max_threads();
    omp_set_num_threads(1);
    const dnnl_status_t status = dnnl_sgemm(transpose_b ? 'T' : 'N', transpose_a ? 'T' : 'N', n, m, k, alpha,
                                            b.data + b.stride * index, b.leading, a.data + a.stride * index,
                                            a.leading, beta, target, c.leading);
    omp_set_num_threads(previous);
    if (status != dnnl_success) {
      std::fprintf(stderr, "host_cuda: dnnl_sgemm failed (status %d)\n", static_cast<int>(status));
      std::abort();
    }
  }
};

cublasStatus_t check(const Product& product) {
  const bool negative = product.m < 0 || product.n < 0 || product.k < 0 || product.batch_count < 0;
  if (negative || !product.a.fits_leading() || !product.b.fits_leading() || !product.c.fits_leading()) {
    return CUBLAS_STATUS_INVALID_VALUE;
  }
  const int count = product.batch_count;
  if (count == 0) return CUBLAS_STATUS_SUCCESS;
  const bool reachable = product.a.in_device_memory(count) && product.b.in_device_memory(count) &&
                         product.c.in_device_memory(count);
  return reachable ? CUBLAS_STATUS_SUCCESS : CUBLAS_STATUS_EXECUTION_FAILED;
}

cublasStatus_t submit_product(cublasHandle_t handle, Product product) {
  cudaStream_t handle_stream = nullptr;
  if (!handles().stream_of(handle, &handle_stream)) return CUBLAS_STATUS_NOT_INITIALIZED;
  const cublasStatus_t status = check(product);
  if (status != CUBLAS_STATUS_SUCCESS) return status;
  const auto stream = streams().find(handle_stream);
  if (stream == nullptr) return CUBLAS_STATUS_EXECUTION_FAILED;
  if (product.m == 0 || product.n == 0 || product.batch_count == 0) return CUBLAS_STATUS_SUCCESS;
  if (handle_stream == nullptr) count(&Counters::null_stream_work);
  streams().submit(*stream, make_work(product));
  return CUBLAS_STATUS_SUCCESS;
}

template <typename Body>
cublasStatus_t cublas_call(const char* name, Body&& body) {
  const int fault = take_fault(name);
  if (fault != 0) return static_cast<cublasStatus_t>(fault);
  return inside_work() ? CUBLAS_STATUS_EXECUTION_FAILED : body();
}

}  // namespace
}  // namespace ostrel::host_cuda::detail

namespace detail = ostrel::host_cuda::detail;

cublasStatus_t cublasCreate_v2(cublasHandle_t* handle) {
  return detail::cublas_call("cublasCreate", [&] {
    if (handle == nullptr) return CUBLAS_STATUS_INVALID_VALUE;
    *handle = detail::handles().create();
    return CUBLAS_STATUS_SUCCESS;
  });
}

cublasStatus_t cublasDestroy_v2(cublasHandle_t handle) {
  return detail::cublas_call("cublasDestroy", [&] {
    return detail::handles().destroy(handle) ? CUBLAS_STATUS_SUCCESS : CUBLAS_STATUS_NOT_INITIALIZED;
  });
}

cublasStatus_t cublasSetStream_v2(cublasHandle_t handle, cudaStream_t stream) {
  return detail::cublas_call("cublasSetStream", [&] {
    return detail::handles().set_stream(handle, stream) ? CUBLAS_STATUS_SUCCESS
                                                        : CUBLAS_STATUS_NOT_INITIALIZED;
  });
}

cublasStatus_t cublasSgemmStridedBatched(cublasHandle_t handle, cublasOperation_t transa,
                                         cublasOperation_t transb, int m, int n, int k, const float* alpha,
                                         const float* a, int lda, long long int stride_a, const float* b,
                                         int ldb, long long int stride_b, const float* beta, float* c,
                                         int ldc, long long int stride_c, int batch_count) {
  return detail::cublas_call("cublasSgemmStridedBatched", [&] {
    if (alpha == nullptr || beta == nullptr) return CUBLAS_STATUS_INVALID_VALUE;
    const bool transpose_a = transa != CUBLAS_OP_N;
    const bool transpose_b = transb != CUBLAS_OP_N;
    const detail::Operand left{a, lda, stride_a, transpose_a ? k : m, transpose_a ? m : k};
    const detail::Operand right{b, ldb, stride_b, transpose_b ? n : k, transpose_b ? k : n};
    const detail::Operand target{c, ldc, stride_c, m, n};
    return detail::submit_product(
        handle, {transpose_a, transpose_b, m, n, k, *alpha, *beta, left, right, target, batch_count});
  });
}

const char* cublasGetStatusString(cublasStatus_t status) {
  switch (status) {
    case CUBLAS_STATUS_SUCCESS:
      return "success";
    case CUBLAS_STATUS_NOT_INITIALIZED:
      return "the library was not initialized";
    case CUBLAS_STATUS_ALLOC_FAILED:
      return "the resource allocation failed";
    case CUBLAS_STATUS_INVALID_VALUE:
      return "an unsupported value or parameter was passed to the function";
    case CUBLAS_STATUS_ARCH_MISMATCH:
      return "the function requires an architectural feature absent from the device";
    case CUBLAS_STATUS_MAPPING_ERROR:
      return "an access to GPU memory space failed";
    case CUBLAS_STATUS_EXECUTION_FAILED:
      return "the function failed to launch on the GPU";
    case CUBLAS_STATUS_INTERNAL_ERROR:
      return "an internal operation failed";
    case CUBLAS_STATUS_NOT_SUPPORTED:
      return "the requested functionality is not supported";
    case CUBLAS_STATUS_LICENSE_ERROR:
      return "the license check failed";
  }
  return "unrecognized status";
}
