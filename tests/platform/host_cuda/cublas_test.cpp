#include <cublas_v2.h>

#include <chrono>
#include <cmath>
#include <random>
#include <thread>
#include <vector>

#include "platform/host_cuda/host_cuda_test.h"

namespace host_cuda_test {
namespace {

// Float products of up to 300 terms of size 1: rounding stays far below this.
constexpr double kProductTolerance = 1e-4;

struct Problem {
  bool transpose_a;
  bool transpose_b;
  int m, n, k;
  int pad_a, pad_b, pad_c;  // beyond the smallest leading dimensions
  bool shared_b;            // one B for all, stride 0
  float alpha, beta;
  int batch_count;

  int rows_a() const { return transpose_a ? k : m; }
  int columns_a() const { return transpose_a ? m : k; }
  int rows_b() const { return transpose_b ? n : k; }
  int columns_b() const { return transpose_b ? k : n; }
  int lda() const { return rows_a() + pad_a; }
  int ldb() const { return rows_b() + pad_b; }
  int ldc() const { return m + pad_c; }
  long long stride_a() const { return static_cast<long long>(lda()) * columns_a() + 3; }
  long long stride_b() const { return shared_b ? 0 : static_cast<long long>(ldb()) * columns_b() + 5; }
  long long stride_c() const { return static_cast<long long>(ldc()) * n + 7; }
};

std::vector<float> random_values(long long count, std::mt19937* generator) {
  std::uniform_real_distribution<float> uniform(-1.0F, 1.0F);
  std::vector<float> values(static_cast<std::size_t>(count));
  for (float& value : values) value = uniform(*generator);
  return values;
}

double at(const std::vector<float>& matrix, long long first, int leading, int row, int column) {
  return static_cast<double>(
      matrix[static_cast<std::size_t>(first + row + static_cast<long long>(leading) * column)]);
}

// One element of the product by the definition, in double precision.
double reference(const Problem& p, const std::vector<float>& a, const std::vector<float>& b, int batch,
                 int row, int column) {
  double sum = 0.0;
  for (int l = 0; l < p.k; ++l) {
    const double left = p.transpose_a ? at(a, batch * p.stride_a(), p.lda(), l, row)
                                      : at(a, batch * p.stride_a(), p.lda(), row, l);
    const double right = p.transpose_b ? at(b, batch * p.stride_b(), p.ldb(), column, l)
                                       : at(b, batch * p.stride_b(), p.ldb(), l, column);
    sum += left * right;
  }
  return static_cast<double>(p.alpha) * sum;
}

class Cublas : public HostCudaTest {
 protected:
  void SetUp() override {
    HostCudaTest::SetUp();
    ASSERT_EQ(cublasCreate(&handle_), CUBLAS_STATUS_SUCCESS);
    ASSERT_EQ(cudaStreamCreateWithFlags(&stream_, cudaStreamNonBlocking), cudaSuccess);
    ASSERT_EQ(cublasSetStream(handle_, stream_), CUBLAS_STATUS_SUCCESS);
  }

  void TearDown() override {
    EXPECT_EQ(cublasDestroy(handle_), CUBLAS_STATUS_SUCCESS);
    EXPECT_EQ(cudaStreamDestroy(stream_), cudaSuccess);
    HostCudaTest::TearDown();
  }

  cublasStatus_t multiply(const Problem& p, const float* a, const float* b, float* c) {
    return cublasSgemmStridedBatched(handle_, p.transpose_a ? CUBLAS_OP_T : CUBLAS_OP_N,
                                     p.transpose_b ? CUBLAS_OP_T : CUBLAS_OP_N, p.m, p.n, p.k, &p.alpha, a,
                                     p.lda(), p.stride_a(), b, p.ldb(), p.stride_b(), &p.beta, c, p.ldc(),
                                     p.stride_c(), p.batch_count);
  }

  void expect_product(const Problem& p) {
    std::mt19937 generator(7);
    const std::vector<float> a = random_values(p.stride_a() * p.batch_count, &generator);
    const std::vector<float> b =
        random_values(p.stride_b() * p.batch_count + p.ldb() * p.columns_b(), &generator);
    // With beta 0 the old values must not be read: they are NaN.
    std::vector<float> c(static_cast<std::size_t>(p.stride_c() * p.batch_count), std::nanf(""));
    if (p.beta != 0.0F) c = random_values(p.stride_c() * p.batch_count, &generator);
    const DeviceArray<float> device_a(a);
    const DeviceArray<float> device_b(b);
    const DeviceArray<float> device_c(c);
    ASSERT_EQ(multiply(p, device_a.data(), device_b.data(), device_c.data()), CUBLAS_STATUS_SUCCESS);
    ASSERT_EQ(cudaStreamSynchronize(stream_), cudaSuccess);
    const std::vector<float> result = device_c.on_host();
    for (int batch = 0; batch < p.batch_count; ++batch) {
      for (int column = 0; column < p.n; ++column) {
        for (int row = 0; row < p.m; ++row) {
          double expected = reference(p, a, b, batch, row, column);
          if (p.beta != 0.0F) expected += p.beta * at(c, batch * p.stride_c(), p.ldc(), row, column);
          ASSERT_NEAR(at(result, batch * p.stride_c(), p.ldc(), row, column), expected, kProductTolerance)
              << "batch " << batch << ", row " << row << ", column " << column;
        }
      }
    }
  }

  cublasHandle_t handle_ = nullptr;
  cudaStream_t stream_ = nullptr;
};

TEST_F(Cublas, MultipliesColumnMajorMatrices) {
  const Problem problems[] = {
      {false, false, 144, 64, 256, 0, 0, 0, true, 1.0F, 0.0F, 3},   // the projection of a batch
      {true, false, 256, 64, 144, 0, 0, 0, false, 0.5F, 0.0F, 10},  // its gradient
      {false, true, 5, 7, 3, 1, 2, 3, false, -2.0F, 0.0F, 2},
      {true, true, 4, 3, 6, 2, 1, 5, false, 1.0F, 0.0F, 2},
      {false, false, 4, 3, 6, 0, 0, 0, false, 1.0F, 0.75F, 2},
      {false, false, 1, 1, 1, 0, 0, 0, false, 1.0F, 0.0F, 1},
  };
  for (const Problem& problem : problems) expect_product(problem);
}

TEST_F(Cublas, LeavesThePaddingOfTheTargetAlone) {
  const Problem p = {false, false, 2, 2, 2, 0, 0, 3, false, 1.0F, 0.0F, 1};
  const DeviceArray<float> a(std::vector<float>(16, 1.0F));
  const DeviceArray<float> b(std::vector<float>(16, 1.0F));
  const DeviceArray<float> c(std::vector<float>(17, -5.0F));
  ASSERT_EQ(multiply(p, a.data(), b.data(), c.data()), CUBLAS_STATUS_SUCCESS);
  ASSERT_EQ(cudaStreamSynchronize(stream_), cudaSuccess);
  const std::vector<float> expected = {2, 2, -5, -5, -5, 2, 2, -5, -5, -5, -5, -5, -5, -5, -5, -5, -5};
  EXPECT_EQ(c.on_host(), expected);
}

TEST_F(Cublas, WithoutAnInnerDimensionScalesTheTarget) {
  const float alpha = 1.0F;
  const float beta = 0.5F;
  const DeviceArray<float> c(std::vector<float>(4, 8.0F));
  ASSERT_EQ(cublasSgemmStridedBatched(handle_, CUBLAS_OP_N, CUBLAS_OP_N, 2, 2, 0, &alpha, nullptr, 2, 0,
                                      nullptr, 1, 0, &beta, c.data(), 2, 4, 1),
            CUBLAS_STATUS_SUCCESS);
  ASSERT_EQ(cudaStreamSynchronize(stream_), cudaSuccess);
  EXPECT_EQ(c.on_host(), std::vector<float>(4, 4.0F));
}

TEST_F(Cublas, OfNothingSucceeds) {
  const Problem p = {false, false, 2, 2, 2, 0, 0, 0, false, 1.0F, 0.0F, 0};
  EXPECT_EQ(multiply(p, nullptr, nullptr, nullptr), CUBLAS_STATUS_SUCCESS);
  const Problem empty = {false, false, 0, 0, 0, 1, 1, 1, false, 1.0F, 0.0F, 2};
  EXPECT_EQ(multiply(empty, nullptr, nullptr, nullptr), CUBLAS_STATUS_SUCCESS);
}

TEST_F(Cublas, RefusesWrongArguments) {
  const DeviceArray<float> memory(std::vector<float>(64, 1.0F));
  float* d = memory.data();
  const float one = 1.0F;
  const auto call = [&](int m, int n, int k, int lda, int ldb, int ldc, int batch_count) {
    return cublasSgemmStridedBatched(handle_, CUBLAS_OP_N, CUBLAS_OP_N, m, n, k, &one, d, lda, 0, d, ldb, 0,
                                     &one, d, ldc, 0, batch_count);
  };
  EXPECT_EQ(call(-1, 2, 2, 2, 2, 2, 1), CUBLAS_STATUS_INVALID_VALUE) << "negative m";
  EXPECT_EQ(call(2, -1, 2, 2, 2, 2, 1), CUBLAS_STATUS_INVALID_VALUE) << "negative n";
  EXPECT_EQ(call(2, 2, -1, 2, 2, 2, 1), CUBLAS_STATUS_INVALID_VALUE) << "negative k";
  EXPECT_EQ(call(2, 2, 2, 2, 2, 2, -1), CUBLAS_STATUS_INVALID_VALUE) << "negative batch";
  EXPECT_EQ(call(2, 2, 2, 1, 2, 2, 1), CUBLAS_STATUS_INVALID_VALUE) << "lda below the rows";
  EXPECT_EQ(call(2, 2, 2, 2, 1, 2, 1), CUBLAS_STATUS_INVALID_VALUE) << "ldb below the rows";
  EXPECT_EQ(call(2, 2, 2, 2, 2, 1, 1), CUBLAS_STATUS_INVALID_VALUE) << "ldc below the rows";
  EXPECT_EQ(cublasSgemmStridedBatched(handle_, CUBLAS_OP_N, CUBLAS_OP_N, 2, 2, 2, nullptr, d, 2, 0, d, 2, 0,
                                      &one, d, 2, 0, 1),
            CUBLAS_STATUS_INVALID_VALUE)
      << "no alpha";
  EXPECT_EQ(cublasCreate(nullptr), CUBLAS_STATUS_INVALID_VALUE);
}

TEST_F(Cublas, RefusesMemoryThatIsNotTheDevices) {
  const DeviceArray<float> memory(std::vector<float>(8, 1.0F));
  std::vector<float> host(8);
  const Problem p = {false, false, 2, 2, 2, 0, 0, 0, false, 1.0F, 0.0F, 1};
  float* d = memory.data();
  EXPECT_EQ(multiply(p, host.data(), d, d + 4), CUBLAS_STATUS_EXECUTION_FAILED) << "A on the host";
  EXPECT_EQ(multiply(p, d, host.data(), d + 4), CUBLAS_STATUS_EXECUTION_FAILED) << "B on the host";
  EXPECT_EQ(multiply(p, d, d, host.data()), CUBLAS_STATUS_EXECUTION_FAILED) << "C on the host";
  EXPECT_EQ(multiply(p, d, d, d + 5), CUBLAS_STATUS_EXECUTION_FAILED) << "C leaves its allocation";
  const Problem batch = {false, false, 2, 2, 2, 0, 0, 0, true, 1.0F, 0.0F, 2};
  EXPECT_EQ(multiply(batch, d, d, d), CUBLAS_STATUS_EXECUTION_FAILED) << "the last A leaves its allocation";
}

TEST_F(Cublas, ReadsTheScalarsAtTheCall) {
  const DeviceArray<float> memory(std::vector<float>(3, 2.0F));
  float* d = memory.data();
  ASSERT_EQ(
      enqueue(stream_, "work before it", [] { std::this_thread::sleep_for(std::chrono::milliseconds(20)); }),
      cudaSuccess);
  float alpha = 3.0F;
  float beta = 0.5F;
  ASSERT_EQ(cublasSgemmStridedBatched(handle_, CUBLAS_OP_N, CUBLAS_OP_N, 1, 1, 1, &alpha, d, 1, 0, d + 1, 1,
                                      0, &beta, d + 2, 1, 0, 1),
            CUBLAS_STATUS_SUCCESS);
  alpha = beta = 100.0F;
  ASSERT_EQ(cudaStreamSynchronize(stream_), cudaSuccess);
  EXPECT_EQ(memory.on_host()[2], 13.0F);
}

TEST_F(Cublas, WorksInTheOrderOfItsStreamWithoutWaiting) {
  const std::vector<float> ones(4, 1.0F);
  const DeviceArray<float> a(std::vector<float>(4, 100.0F)), b(ones), c(ones), copy(ones);
  const Problem p = {false, false, 2, 2, 2, 0, 0, 0, true, 1.0F, 0.0F, 1};
  ASSERT_EQ(
      enqueue(stream_, "slow producer", [] { std::this_thread::sleep_for(std::chrono::milliseconds(20)); }),
      cudaSuccess);
  ASSERT_EQ(cudaMemcpyAsync(a.data(), ones.data(), 16, cudaMemcpyHostToDevice, stream_), cudaSuccess);
  reset_counters();
  ASSERT_EQ(multiply(p, a.data(), b.data(), c.data()), CUBLAS_STATUS_SUCCESS);
  EXPECT_EQ(counters().synchronisations, 0);
  ASSERT_EQ(cudaMemcpyAsync(copy.data(), c.data(), 16, cudaMemcpyDeviceToDevice, stream_), cudaSuccess);
  ASSERT_EQ(cudaStreamSynchronize(stream_), cudaSuccess);
  EXPECT_EQ(copy.on_host(), std::vector<float>(4, 2.0F));
}

TEST_F(Cublas, FailsWithTheStatusOfAFaultAndWithoutEffect) {
  const DeviceArray<float> memory(std::vector<float>(12, 1.0F));
  const Problem p = {false, false, 2, 2, 2, 0, 0, 0, false, 1.0F, 0.0F, 1};
  cublasHandle_t unmade = nullptr;
  for (const cublasStatus_t status :
       {CUBLAS_STATUS_NOT_INITIALIZED, CUBLAS_STATUS_ALLOC_FAILED, CUBLAS_STATUS_LICENSE_ERROR}) {
    fail_call("cublasCreate", 1, status);
    EXPECT_EQ(cublasCreate(&unmade), status);
    fail_call("cublasSetStream", 1, status);
    EXPECT_EQ(cublasSetStream(handle_, nullptr), status);
    fail_call("cublasSgemmStridedBatched", 1, status);
    EXPECT_EQ(multiply(p, memory.data(), memory.data(), memory.data() + 8), status);
    fail_call("cublasDestroy", 1, status);
    EXPECT_EQ(cublasDestroy(handle_), status);
  }
  EXPECT_EQ(unmade, nullptr);
  ASSERT_EQ(cudaStreamSynchronize(stream_), cudaSuccess);
  EXPECT_EQ(memory.on_host(), std::vector<float>(12, 1.0F));
  // The handle lives, and still works on its stream.
  reset_counters();
  EXPECT_EQ(multiply(p, memory.data(), memory.data(), memory.data() + 8), CUBLAS_STATUS_SUCCESS);
  EXPECT_EQ(counters().null_stream_work, 0);
}

TEST_F(Cublas, RefusesHandlesThatAreNotAlive) {
  cublasHandle_t dead = nullptr;
  ASSERT_EQ(cublasCreate(&dead), CUBLAS_STATUS_SUCCESS);
  ASSERT_EQ(cublasDestroy(dead), CUBLAS_STATUS_SUCCESS);
  const float one = 1.0F;
  EXPECT_EQ(cublasDestroy(dead), CUBLAS_STATUS_NOT_INITIALIZED);
  EXPECT_EQ(cublasSetStream(dead, nullptr), CUBLAS_STATUS_NOT_INITIALIZED);
  EXPECT_EQ(cublasSgemmStridedBatched(dead, CUBLAS_OP_N, CUBLAS_OP_N, 0, 0, 0, &one, nullptr, 1, 0, nullptr,
                                      1, 0, &one, nullptr, 1, 0, 0),
            CUBLAS_STATUS_NOT_INITIALIZED);
}

TEST_F(Cublas, WithoutAStreamWorksOnTheNullStream) {
  cublasHandle_t fresh = nullptr;
  ASSERT_EQ(cublasCreate(&fresh), CUBLAS_STATUS_SUCCESS);
  const DeviceArray<float> memory(std::vector<float>(4, 2.0F));
  const float one = 1.0F;
  const float zero = 0.0F;
  float* d = memory.data();
  reset_counters();
  ASSERT_EQ(cublasSgemmStridedBatched(fresh, CUBLAS_OP_N, CUBLAS_OP_N, 1, 1, 1, &one, d, 1, 0, d + 1, 1, 0,
                                      &zero, d + 2, 1, 0, 1),
            CUBLAS_STATUS_SUCCESS);
  EXPECT_EQ(counters().null_stream_work, 1);
  EXPECT_EQ(memory.on_host()[2], 4.0F);
  ASSERT_EQ(cublasDestroy(fresh), CUBLAS_STATUS_SUCCESS);
}

TEST_F(Cublas, RefusesAStreamThatIsGone) {
  cudaStream_t gone = nullptr;
  ASSERT_EQ(cudaStreamCreateWithFlags(&gone, cudaStreamNonBlocking), cudaSuccess);
  ASSERT_EQ(cublasSetStream(handle_, gone), CUBLAS_STATUS_SUCCESS);
  ASSERT_EQ(cudaStreamDestroy(gone), cudaSuccess);
  const DeviceArray<float> memory(std::vector<float>(12, 1.0F));
  const Problem p = {false, false, 2, 2, 2, 0, 0, 0, false, 1.0F, 0.0F, 1};
  EXPECT_EQ(multiply(p, memory.data(), memory.data(), memory.data() + 8), CUBLAS_STATUS_EXECUTION_FAILED);
}

}  // namespace
}  // namespace host_cuda_test
