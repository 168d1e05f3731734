#pragma once

// The cuBLAS calls that this project makes. Matrices are column-major, as cuBLAS has them; products run on
// the handle's stream through oneDNN.

#include <cuda_runtime.h>

typedef enum {
  CUBLAS_STATUS_SUCCESS = 0,
  CUBLAS_STATUS_NOT_INITIALIZED = 1,
  CUBLAS_STATUS_ALLOC_FAILED = 3,
  CUBLAS_STATUS_INVALID_VALUE = 7,
  CUBLAS_STATUS_ARCH_MISMATCH = 8,
  CUBLAS_STATUS_MAPPING_ERROR = 11,
  CUBLAS_STATUS_EXECUTION_FAILED = 13,
  CUBLAS_STATUS_INTERNAL_ERROR = 14,
  CUBLAS_STATUS_NOT_SUPPORTED = 15,
  CUBLAS_STATUS_LICENSE_ERROR = 16
} cublasStatus_t;

typedef enum { CUBLAS_OP_N = 0, CUBLAS_OP_T = 1, CUBLAS_OP_C = 2 } cublasOperation_t;

typedef struct cublasContext* cublasHandle_t;

extern "C" {

cublasStatus_t cublasCreate_v2(cublasHandle_t* handle);
cublasStatus_t cublasDestroy_v2(cublasHandle_t handle);
cublasStatus_t cublasSetStream_v2(cublasHandle_t handle, cudaStream_t stream);
const char* cublasGetStatusString(cublasStatus_t status);

// C[i] = alpha * op(A[i]) * op(B[i]) + beta * C[i] for i below batch_count; A[i] is A + i * stride_a.
// alpha and beta are read at the call. With beta 0, C need not be initialised. Does not synchronise.
cublasStatus_t cublasSgemmStridedBatched(cublasHandle_t handle, cublasOperation_t transa,
                                         cublasOperation_t transb, int m, int n, int k, const float* alpha,
                                         const float* a, int lda, long long int stride_a, const float* b,
                                         int ldb, long long int stride_b, const float* beta, float* c,
                                         int ldc, long long int stride_c, int batch_count);

}  // extern "C"

#define cublasCreate cublasCreate_v2
#define cublasDestroy cublasDestroy_v2
#define cublasSetStream cublasSetStream_v2
