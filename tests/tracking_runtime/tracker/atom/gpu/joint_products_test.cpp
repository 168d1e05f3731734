// The two batched products of the joint optimiser.

#include <cublas_v2.h>
#include <gtest/gtest.h>

#include <host_cuda/control.h>

#include <string>
#include <vector>

#include "call_fault.h"
#include "close_to.h"
#include "device_arrays.h"
#include "joint_reference.h"
#include "support/golden.h"
#include "tracking_runtime/tracker/atom/gpu/cublas_handle.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_joint_optimizer_ops.h"

namespace ostrel_test {
namespace {

namespace host = ostrel::host_cuda;
namespace ops = atom::detail;

// Sums of up to a few hundred terms of size 1.
constexpr double kProduct = 2e-5;

struct ProductShape {
  int samples, in_channels, out_channels, height, width;

  int plane() const { return height * width; }
  std::size_t raw() const { return product({samples, in_channels, plane()}); }
  std::size_t projected() const { return product({samples, out_channels, plane()}); }
  std::size_t projection() const { return product({in_channels, out_channels}); }
};

class JointProducts : public ::testing::Test {
 protected:
  TestStream stream_;
  atom::CublasHandle cublas_;
  std::string error_;

  void SetUp() override {
    ASSERT_EQ(cublas_.create(), CUBLAS_STATUS_SUCCESS);
    ASSERT_EQ(cublasSetStream(cublas_.get(), stream_.get()), CUBLAS_STATUS_SUCCESS);
  }
  void TearDown() override { host::clear_faults(); }

  std::vector<float> projected(const ProductShape& s, const std::vector<float>& raw,
                               const std::vector<float>& projection) {
    const DeviceArray<float> device_raw(raw), device_projection(projection), out(s.projected(), 1e9F);
    EXPECT_TRUE(ops::gemm_project_features(cublas_.get(), device_raw.get(), device_projection.get(),
                                           out.get(), s.samples, s.in_channels, s.out_channels, s.height,
                                           s.width, &error_))
        << error_;
    return out.read(stream_);
  }
  std::vector<float> gradient(const ProductShape& s, const std::vector<float>& raw,
                              const std::vector<float>& projected_gradient, float scale,
                              const std::vector<float>& initial) {
    const DeviceArray<float> device_raw(raw), device_gradient(projected_gradient), out(initial),
        batch(static_cast<std::size_t>(s.samples) * s.projection(), 1e9F);
    EXPECT_TRUE(ops::gemm_accumulate_projection_gradient(
        cublas_.get(), stream_.get(), device_raw.get(), device_gradient.get(), scale, batch.get(), out.get(),
        s.samples, s.in_channels, s.out_channels, s.height, s.width, &error_))
        << error_;
    return out.read(stream_);
  }
};

const std::vector<ProductShape>& shapes() {
  static const std::vector<ProductShape> all = {
      {3, 12, 5, 4, 7}, {1, 1, 1, 1, 1}, {2, 40, 33, 5, 5}, {4, 3, 17, 9, 2}, {9, 32, 64, 12, 12}};
  return all;
}

TEST_F(JointProducts, MatchGolden) {
  for (const GoldenCase& golden : load_golden("projection")) {
    SCOPED_TRACE(golden.name());
    const ProductShape s{golden.i32("samples"), golden.i32("in_channels"), golden.i32("out_channels"),
                         golden.i32("height"), golden.i32("width")};
    const auto raw = golden.input_as<float>("raw");
    EXPECT_TRUE(
        matches_golden(golden.output("projected"), projected(s, raw, golden.input_as<float>("projection"))));
    EXPECT_TRUE(matches_golden(golden.output("gradient"),
                               gradient(s, raw, golden.input_as<float>("projected_gradient"),
                                        golden.f32("scale"), golden.input_as<float>("initial"))));
  }
}

TEST_F(JointProducts, ProjectEverySampleWithTheOneMatrix) {
  for (const ProductShape& s : shapes()) {
    const auto raw = random_values(s.raw(), 800), projection = random_values(s.projection(), 801);
    EXPECT_TRUE(close_to(reference_projection(s.samples, s.in_channels, s.out_channels, s.plane(), widen(raw),
                                              widen(projection)),
                         projected(s, raw, projection), kProduct));
  }
}

TEST_F(JointProducts, AddTheScaledGradientToWhatStands) {
  for (const ProductShape& s : shapes()) {
    const auto raw = random_values(s.raw(), 810), above = random_values(s.projected(), 811),
               initial = random_values(s.projection(), 812);
    for (const float scale : {1.0F, -1.0F, 0.25F}) {
      Doubles expected = reference_projection_gradient(s.samples, s.in_channels, s.out_channels, s.plane(),
                                                       widen(raw), widen(above));
      for (std::size_t i = 0; i < expected.size(); ++i) {
        expected[i] = static_cast<double>(initial[i]) + static_cast<double>(scale) * expected[i];
      }
      EXPECT_TRUE(close_to(expected, gradient(s, raw, above, scale, initial), kProduct));
    }
  }
}

TEST_F(JointProducts, AreAdjointToEachOther) {
  for (const ProductShape& s : shapes()) {
    const auto raw = random_values(s.raw(), 820), projection = random_values(s.projection(), 821),
               above = random_values(s.projected(), 822);
    const Doubles forward = widen(projected(s, raw, projection));
    const Doubles back = widen(gradient(s, raw, above, 1.0F, std::vector<float>(s.projection(), 0.0F)));
    const double size = 1.0 + std::abs(reference_dot(forward, forward));
    EXPECT_NEAR(reference_dot(forward, widen(above)), reference_dot(widen(projection), back), 1e-6 * size);
  }
}

TEST_F(JointProducts, TakeOneCallEachAndNeverWait) {
  const ProductShape s = shapes()[0];
  const DeviceArray<float> raw(s.raw(), 1.0F), projection(s.projection(), 1.0F), z(s.projected(), 1.0F),
      batch(static_cast<std::size_t>(s.samples) * s.projection(), 0.0F), out(s.projection(), 0.0F);
  host::reset_counters();
  ASSERT_TRUE(ops::gemm_project_features(cublas_.get(), raw.get(), projection.get(), z.get(), s.samples,
                                         s.in_channels, s.out_channels, s.height, s.width, &error_));
  ASSERT_TRUE(ops::gemm_accumulate_projection_gradient(cublas_.get(), stream_.get(), raw.get(), z.get(), 1.0F,
                                                       batch.get(), out.get(), s.samples, s.in_channels,
                                                       s.out_channels, s.height, s.width, &error_));
  EXPECT_EQ(host::counters().calls_of("cublasSgemmStridedBatched"), 2);
  EXPECT_EQ(host::counters().launches_of("reduce_batched_projection_gradient_kernel"), 1);
  EXPECT_EQ(host::counters().synchronisations + host::counters().null_stream_work, 0);
}

/// Sizes and pointers of both products, one of which can be spoiled.
class JointProductArguments : public JointProducts {
 protected:
  const DeviceArray<float> a_{16, 1.0F}, b_{16, 1.0F}, c_{16, 1.0F}, d_{16, 1.0F};

  bool project(cublasHandle_t handle, const float* raw, const float* projection, float* out,
               const std::vector<int>& s) {
    return ops::gemm_project_features(handle, raw, projection, out, s[0], s[1], s[2], s[3], s[4], &error_);
  }
  bool accumulate(cublasHandle_t handle, const float* raw, const float* above, float* batch, float* out,
                  const std::vector<int>& s) {
    return ops::gemm_accumulate_projection_gradient(handle, stream_.get(), raw, above, 1.0F, batch, out, s[0],
                                                    s[1], s[2], s[3], s[4], &error_);
  }
};

TEST_F(JointProductArguments, RefuseNullPointersAndSizesBelowOne) {
  const std::vector<int> one(5, 1);
  cublasHandle_t const h = cublas_.get();
  const char* const project_text = "invalid cuBLAS projection request";
  const auto refused = [&](bool done, const char* text) {
    EXPECT_FALSE(done);
    EXPECT_EQ(std::exchange(error_, ""), text);
  };
  refused(project(nullptr, a_.get(), b_.get(), c_.get(), one), project_text);
  refused(project(h, nullptr, b_.get(), c_.get(), one), project_text);
  refused(project(h, a_.get(), nullptr, c_.get(), one), project_text);
  refused(project(h, a_.get(), b_.get(), nullptr, one), project_text);
  const char* const gradient_text = "invalid cuBLAS projection gradient request";
  refused(accumulate(nullptr, a_.get(), b_.get(), c_.get(), d_.get(), one), gradient_text);
  refused(accumulate(h, nullptr, b_.get(), c_.get(), d_.get(), one), gradient_text);
  refused(accumulate(h, a_.get(), nullptr, c_.get(), d_.get(), one), gradient_text);
  refused(accumulate(h, a_.get(), b_.get(), nullptr, d_.get(), one), gradient_text);
  refused(accumulate(h, a_.get(), b_.get(), c_.get(), nullptr, one), gradient_text);
  for (std::size_t spoiled = 0; spoiled < one.size(); ++spoiled) {
    std::vector<int> sizes = one;
    sizes[spoiled] = spoiled % 2 == 0 ? 0 : -1;
    refused(project(h, a_.get(), b_.get(), c_.get(), sizes), project_text);
    refused(accumulate(h, a_.get(), b_.get(), c_.get(), d_.get(), sizes), gradient_text);
  }
  EXPECT_TRUE(project(h, a_.get(), b_.get(), c_.get(), one)) << error_;
  EXPECT_TRUE(accumulate(h, a_.get(), b_.get(), c_.get(), d_.get(), one)) << error_;
}

TEST_F(JointProductArguments, NameTheStatusOfARefusedProduct) {
  const std::vector<int> one(5, 1);
  struct Row {
    cublasStatus_t status;
    const char* name;
  };
  for (const Row& row : {Row{CUBLAS_STATUS_NOT_INITIALIZED, "CUBLAS_STATUS_NOT_INITIALIZED"},
                         Row{CUBLAS_STATUS_ALLOC_FAILED, "CUBLAS_STATUS_ALLOC_FAILED"},
                         Row{CUBLAS_STATUS_INVALID_VALUE, "CUBLAS_STATUS_INVALID_VALUE"},
                         Row{CUBLAS_STATUS_ARCH_MISMATCH, "CUBLAS_STATUS_ARCH_MISMATCH"},
                         Row{CUBLAS_STATUS_MAPPING_ERROR, "CUBLAS_STATUS_MAPPING_ERROR"},
                         Row{CUBLAS_STATUS_EXECUTION_FAILED, "CUBLAS_STATUS_EXECUTION_FAILED"},
                         Row{CUBLAS_STATUS_INTERNAL_ERROR, "CUBLAS_STATUS_INTERNAL_ERROR"},
                         Row{CUBLAS_STATUS_NOT_SUPPORTED, "CUBLAS_STATUS_UNKNOWN"},
                         Row{CUBLAS_STATUS_LICENSE_ERROR, "CUBLAS_STATUS_UNKNOWN"}}) {
    host::fail_call("cublasSgemmStridedBatched", 1, row.status);
    EXPECT_FALSE(project(cublas_.get(), a_.get(), b_.get(), c_.get(), one));
    EXPECT_EQ(error_, std::string("cublasSgemmStridedBatched project_features: ") + row.name);
    host::fail_call("cublasSgemmStridedBatched", 1, row.status);
    EXPECT_FALSE(accumulate(cublas_.get(), a_.get(), b_.get(), c_.get(), d_.get(), one));
    EXPECT_EQ(error_, std::string("cublasSgemmStridedBatched projection_gradient: ") + row.name);
  }
  const CallFault reduce{"reduce_batched_projection_gradient_kernel", 1,
                         "reduce_batched_projection_gradient_kernel"};
  host::fail_call(reduce.call, 1, cudaErrorUnknown);
  EXPECT_FALSE(accumulate(cublas_.get(), a_.get(), b_.get(), c_.get(), d_.get(), one));
  EXPECT_EQ(error_, reduce.text());
}

TEST(CublasHandle, OwnsOneHandleAndMoves) {
  host::reset_counters();
  const auto destroyed = [] { return host::counters().calls_of("cublasDestroy"); };
  atom::CublasHandle first;
  EXPECT_FALSE(first);
  EXPECT_EQ(first.reset(), CUBLAS_STATUS_SUCCESS);
  EXPECT_EQ(destroyed(), 0);
  ASSERT_EQ(first.create(), CUBLAS_STATUS_SUCCESS);
  atom::CublasHandle second = std::move(first);
  EXPECT_TRUE(second);
  ASSERT_EQ(first.create(), CUBLAS_STATUS_SUCCESS);
  first = std::move(second);  // its own handle goes
  EXPECT_EQ(destroyed(), 1);
  ASSERT_EQ(first.create(), CUBLAS_STATUS_SUCCESS);  // and again
  EXPECT_EQ(destroyed(), 2);
  first.release();
  EXPECT_FALSE(first);
  EXPECT_EQ(destroyed(), 3);
}

TEST(CublasHandle, TellsAFailedRelease) {
  atom::CublasHandle handle;
  ASSERT_EQ(handle.create(), CUBLAS_STATUS_SUCCESS);
  cublasHandle_t const leaked = handle.get();
  host::fail_call("cublasDestroy", 1, CUBLAS_STATUS_INTERNAL_ERROR);
  ::testing::internal::CaptureStderr();
  handle.release();
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "[CUDA] cublasDestroy failed on release: CUBLAS_STATUS_INTERNAL_ERROR\n");
  EXPECT_FALSE(handle);
  EXPECT_EQ(cublasDestroy(leaked), CUBLAS_STATUS_SUCCESS);
}

}  // namespace
}  // namespace ostrel_test
