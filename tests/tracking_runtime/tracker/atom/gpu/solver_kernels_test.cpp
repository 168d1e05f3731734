#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "close_to.h"
#include "device_arrays.h"
#include "reference_numerics.h"
#include "support/golden.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_joint_optimizer_ops.h"

namespace ostrel_test {
namespace {

namespace ops = atom::detail;

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

/// What the residual kernel makes of a row of responses.
struct Residual {
  std::vector<float> activation_grad;
  std::vector<float> weighted;
};

Residual run_residual(const std::vector<float>& response, const std::vector<float>& labels, float weight) {
  TestStream stream;
  const DeviceArray<float> s(response), y(labels), grad(response.size(), 0.0F),
      weighted(response.size(), 0.0F);
  std::string error;
  EXPECT_TRUE(ops::launch_compute_weighted_residual_grad(s.get(), y.get(), weight, grad.get(), weighted.get(),
                                                         1, 1, static_cast<int>(response.size()),
                                                         stream.get(), &error))
      << error;
  return {grad.read(stream), weighted.read(stream)};
}

/// phi and phi' of each response: with label 0 the weighted residual is phi * phi' for weight 1.
std::vector<double> phi_of(const std::vector<float>& response) {
  const Residual residual = run_residual(response, std::vector<float>(response.size(), 0.0F), 1.0F);
  std::vector<double> phi;
  for (std::size_t i = 0; i < response.size(); ++i) {
    phi.push_back(static_cast<double>(residual.weighted[i]) /
                  static_cast<double>(residual.activation_grad[i]));
  }
  return phi;
}

double run_dot(const std::vector<float>& a, const std::vector<float>& b, double initial = 0.0) {
  TestStream stream;
  const DeviceArray<float> device_a(a), device_b(b);
  const DeviceArray<double> out(1, initial);
  std::string error;
  EXPECT_TRUE(ops::launch_dot_product(device_a.get(), device_b.get(), static_cast<int>(a.size()), out.get(),
                                      stream.get(), &error))
      << error;
  return out.read(stream)[0];
}

/// The step length that the scalars give, read from x of one element with p of 1.
float run_alpha(double rho, double pq) {
  TestStream stream;
  const DeviceArray<double> scalars(std::vector<double>{rho, pq, kNan});
  const DeviceArray<float> x(1, 0.0F), r(1, 0.0F), p(1, 1.0F), q(1, 0.0F);
  std::string error;
  EXPECT_TRUE(ops::launch_update_x_r_from_scalars(x.get(), r.get(), p.get(), q.get(), scalars.get(), 1,
                                                  stream.get(), &error))
      << error;
  return x.read(stream)[0];
}

/// The coefficient that the scalars give, read from p of 1 with r of 0.
float run_beta(double rho, double rho2, double previous) {
  TestStream stream;
  const DeviceArray<double> scalars(std::vector<double>{rho, rho2, previous});
  const DeviceArray<float> r(1, 0.0F), p(1, 1.0F);
  std::string error;
  EXPECT_TRUE(
      ops::launch_combine_with_beta_from_scalars(r.get(), scalars.get(), p.get(), 1, stream.get(), &error))
      << error;
  return p.read(stream)[0];
}

TEST(Activation, MatchesGolden) {
  const GoldenCase golden = load_golden_case("activation", "values");
  const auto s = golden.input_as<float>("s");
  EXPECT_TRUE(matches_golden(golden.output("dphi"),
                             run_residual(s, std::vector<float>(s.size(), 0.0F), 1.0F).activation_grad));
  // phi itself is read where phi' has not vanished.
  const auto phi = phi_of(s);
  const auto& expected = golden.output("phi");
  for (std::size_t i = 0; i < s.size(); ++i) {
    if (golden.output("dphi").values[i] < 1e-20) continue;
    EXPECT_NEAR(phi[i], expected.values[i], 1e-6 + 1e-5 * std::abs(expected.values[i])) << s[i];
  }
}

TEST(Activation, IsTheIdentityFromZeroAndLevelsOffBelow) {
  const std::vector<float> s = {0.0F, 0.7F, -1.0F, -0.05F, -0.0F};
  const auto grad = run_residual(s, std::vector<float>(s.size(), 0.0F), 1.0F).activation_grad;
  EXPECT_EQ(grad[0], 1.0F);
  EXPECT_EQ(grad[1], 1.0F);
  EXPECT_NEAR(grad[2], 2.0611536e-9, 1e-13);
  EXPECT_NEAR(grad[3], std::exp(-1.0), 1e-6);
  EXPECT_EQ(grad[4], 1.0F);
  const auto phi = phi_of(s);
  EXPECT_EQ(phi[0], 0.0);
  EXPECT_NEAR(phi[1], 0.7, 1e-7);
  EXPECT_NEAR(phi[2], -0.05, 1e-6);
  EXPECT_NEAR(phi[3], 0.05 * (std::exp(-1.0) - 1.0), 1e-6);
}

TEST(Activation, DerivativeFitsFiniteDifferences) {
  constexpr float kStep = 1e-3F;
  const std::vector<float> s = {-0.3F, -0.1F, -0.02F, 0.02F, 0.5F};
  std::vector<float> above, below;
  for (const float value : s) {
    above.push_back(value + kStep);
    below.push_back(value - kStep);
  }
  const auto phi_above = phi_of(above);
  const auto phi_below = phi_of(below);
  const auto grad = run_residual(s, std::vector<float>(s.size(), 0.0F), 1.0F).activation_grad;
  for (std::size_t i = 0; i < s.size(); ++i) {
    // The difference quotient is off by step^2 * phi''' / 6 and the rounding of phi over the step.
    EXPECT_NEAR((phi_above[i] - phi_below[i]) / (2.0 * static_cast<double>(kStep)), grad[i], 4e-4) << s[i];
  }
}

TEST(Activation, PassesNotANumberOn) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const Residual residual = run_residual({nan, 1.0F}, {0.0F, 0.0F}, 1.0F);
  EXPECT_TRUE(std::isnan(residual.activation_grad[0]));
  EXPECT_TRUE(std::isnan(residual.weighted[0]));
  EXPECT_EQ(residual.weighted[1], 1.0F);
}

TEST(JointResidual, MatchesGolden) {
  const GoldenCase golden = load_golden_case("residual_jtj", "joint");
  const int samples = golden.i32("samples"), height = golden.i32("height"), width = golden.i32("width");
  const auto count = static_cast<std::size_t>(samples * height * width);
  TestStream stream;
  const DeviceArray<float> s(golden.input_as<float>("response")), y(golden.input_as<float>("labels"));
  const DeviceArray<float> jp(golden.input_as<float>("jp")), jp_aux(golden.input_as<float>("jp_aux"));
  const DeviceArray<float> grad(count, 0.0F), residual(count, 0.0F), jtj(count, 0.0F);
  std::string error;
  ASSERT_TRUE(ops::launch_compute_weighted_residual_grad(s.get(), y.get(), golden.f32("weight"), grad.get(),
                                                         residual.get(), samples, height, width, stream.get(),
                                                         &error))
      << error;
  ASSERT_TRUE(ops::launch_compute_weighted_jtj_response(jp.get(), jp_aux.get(), grad.get(),
                                                        golden.f32("weight"), jtj.get(), samples, height,
                                                        width, stream.get(), &error))
      << error;
  EXPECT_TRUE(matches_golden(golden.output("weighted_residual"), residual.read(stream)));
  EXPECT_TRUE(matches_golden(golden.output("weighted_jtj"), jtj.read(stream)));
}

TEST(DotProduct, MatchesGolden) {
  for (const char* name : {"dot", "dot1"}) {
    const GoldenCase golden = load_golden_case("cg_scalars", name);
    EXPECT_TRUE(matches_golden(
        golden.output("dot"),
        std::vector<double>{run_dot(golden.input_as<float>("a"), golden.input_as<float>("b"))}))
        << name;
  }
}

TEST(DotProduct, AddsToWhatStands) {
  EXPECT_DOUBLE_EQ(run_dot({2.0F}, {3.0F}, 10.0), 16.0);
}

TEST(DotProduct, CoversEveryElementOfAnyLength) {
  for (const std::size_t n : {1U, 2U, 255U, 256U, 257U, 511U, 4096U, 5001U}) {
    const auto a = random_values(n, 20), b = random_values(n, 21);
    EXPECT_NEAR(run_dot(a, b), reference_dot(widen(a), widen(b)), 1e-11) << n;
  }
}

TEST(DotProduct, KeepsDoublePrecision) {
  // 1 beside 2^24 in one block: a float sum would lose it.
  std::vector<float> a(256, 0.0F), b(256, 0.0F);
  a[0] = b[0] = 4096.0F;
  a[128] = b[128] = 1.0F;
  EXPECT_DOUBLE_EQ(run_dot(a, b), 16777217.0);
}

TEST(StepLength, MatchesGolden) {
  const GoldenCase golden = load_golden_case("cg_scalars", "alpha");
  const auto& scalars = golden.input("rho_pq").values;
  std::vector<float> alpha;
  for (std::size_t i = 0; i < scalars.size(); i += 2) alpha.push_back(run_alpha(scalars[i], scalars[i + 1]));
  EXPECT_TRUE(matches_golden(golden.output("alpha"), alpha));
}

TEST(StepLength, IsZeroWhereTheCurvatureIsNegligibleOrNoNumber) {
  EXPECT_EQ(run_alpha(1.0, 1e-12), 0.0F);
  EXPECT_EQ(run_alpha(1.0, -1e-12), 0.0F);
  EXPECT_EQ(run_alpha(1.0, 0.0), 0.0F);
  EXPECT_EQ(run_alpha(1.0, kNan), 0.0F);
  EXPECT_EQ(run_alpha(1.0, 1.0000001e-12), static_cast<float>(1.0 / 1.0000001e-12));
  EXPECT_EQ(run_alpha(3.0, -2.0), -1.5F);
}

TEST(StepLength, MovesSolutionAndResidualByTheSameStep) {
  TestStream stream;
  const std::size_t n = 300;
  const auto x0 = random_values(n, 30), r0 = random_values(n, 31), p0 = random_values(n, 32),
             q0 = random_values(n, 33);
  const DeviceArray<double> scalars(std::vector<double>{1.0, 4.0, 0.0});
  const DeviceArray<float> x(x0), r(r0), p(p0), q(q0);
  std::string error;
  ASSERT_TRUE(ops::launch_update_x_r_from_scalars(x.get(), r.get(), p.get(), q.get(), scalars.get(),
                                                  static_cast<int>(n), stream.get(), &error));
  std::vector<float> expected_x, expected_r;
  for (std::size_t i = 0; i < n; ++i) {
    expected_x.push_back(std::fma(0.25F, p0[i], x0[i]));
    expected_r.push_back(std::fma(-0.25F, q0[i], r0[i]));
  }
  EXPECT_EQ(x.read(stream), expected_x);
  EXPECT_EQ(r.read(stream), expected_r);
}

TEST(DirectionCoefficient, MatchesGolden) {
  const GoldenCase golden = load_golden_case("cg_scalars", "beta");
  const auto& scalars = golden.input("rho_rho2_prev").values;
  std::vector<float> beta;
  for (std::size_t i = 0; i < scalars.size(); i += 3) {
    beta.push_back(run_beta(scalars[i], scalars[i + 1], scalars[i + 2]));
  }
  EXPECT_TRUE(matches_golden(golden.output("beta"), beta));
}

TEST(DirectionCoefficient, RestartsBelowZeroFloorsTheDenominatorAndPassesNotANumber) {
  EXPECT_EQ(run_beta(1.0, 2.0, 1.0), 0.0F);
  EXPECT_EQ(run_beta(3.0, 1.0, 4.0), 0.5F);
  EXPECT_EQ(run_beta(3e-12, 1e-12, 0.0), 2.0F);
  EXPECT_EQ(run_beta(3e-12, 1e-12, -5.0), 2.0F);
  EXPECT_EQ(run_beta(3e-12, 1e-12, kNan), 2.0F);
  EXPECT_TRUE(std::isnan(run_beta(kNan, 1.0, 1.0)));
}

TEST(DirectionCoefficient, AddsTheResidual) {
  TestStream stream;
  const std::size_t n = 300;
  const auto r0 = random_values(n, 34), p0 = random_values(n, 35);
  const DeviceArray<double> scalars(std::vector<double>{3.0, 1.0, 4.0});
  const DeviceArray<float> r(r0), p(p0);
  std::string error;
  ASSERT_TRUE(ops::launch_combine_with_beta_from_scalars(r.get(), scalars.get(), p.get(), static_cast<int>(n),
                                                         stream.get(), &error));
  std::vector<float> expected;
  for (std::size_t i = 0; i < n; ++i) expected.push_back(std::fma(0.5F, p0[i], r0[i]));
  EXPECT_EQ(p.read(stream), expected);
}

TEST(StoreScalar, CopiesOneDouble) {
  TestStream stream;
  const DeviceArray<double> scalars(std::vector<double>{1.25, 2.5, 5.0});
  std::string error;
  ASSERT_TRUE(ops::launch_store_scalar(scalars.get(), 2, 0, stream.get(), &error));
  EXPECT_EQ(scalars.read(stream), (std::vector<double>{1.25, 2.5, 1.25}));
}

TEST(VectorKernels, ScaleAddAndReduceEveryElement) {
  TestStream stream;
  const std::size_t n = 1000;
  const int count = static_cast<int>(n);
  const auto source = random_values(n, 40), other = random_values(n, 41), batch = random_values(3 * n, 42);
  const DeviceArray<float> a(source), scaled(n, 0.0F), sum(other), reduced(other), slices(batch);
  std::string error;
  ASSERT_TRUE(ops::launch_set_scaled_vector(a.get(), -0.5F, scaled.get(), count, stream.get(), &error));
  ASSERT_TRUE(ops::launch_add_in_place(sum.get(), a.get(), count, stream.get(), &error));
  ASSERT_TRUE(ops::launch_reduce_batched_projection_gradient(slices.get(), reduced.get(), 3, count,
                                                             stream.get(), &error));
  std::vector<float> expected_scaled, expected_sum, expected_reduced;
  for (std::size_t i = 0; i < n; ++i) {
    expected_scaled.push_back(-0.5F * source[i]);
    expected_sum.push_back(other[i] + source[i]);
    expected_reduced.push_back(other[i] + batch[i] + batch[n + i] + batch[2 * n + i]);
  }
  EXPECT_EQ(scaled.read(stream), expected_scaled);
  EXPECT_EQ(sum.read(stream), expected_sum);
  EXPECT_TRUE(close_to(expected_reduced, reduced.read(stream), 1e-6));
}

TEST(ScaledSampleCopies, MatchGolden) {
  const GoldenCase golden = load_golden_case("preprocess", "scaled_copies");
  const int count = golden.i32("count"), channels = golden.i32("channels");
  const int height = golden.i32("height"), width = golden.i32("width");
  TestStream stream;
  const DeviceArray<float> source(golden.input_as<float>("source")), scales(golden.input_as<float>("scales"));
  const DeviceArray<float> target(static_cast<std::size_t>(count * channels * height * width), -1.0F);
  std::string error;
  ASSERT_TRUE(ops::launch_materialize_scaled_sample_copies(source.get(), scales.get(), target.get(), count,
                                                           channels, height, width, stream.get(), &error));
  EXPECT_TRUE(matches_golden(golden.output("copies"), target.read(stream)));
}

}  // namespace
}  // namespace ostrel_test
