#pragma once

#include <cuda_launch.h>

#include <cmath>

#include "tracking_runtime/tracker/atom/gpu/kernel_launch.h"
#include "tracking_runtime/tracker/atom/gpu/solver_scalars.h"

/// Device functions of the conjugate gradient solvers, shared by the trainer and the joint optimiser.

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// phi(s) and its derivative.
struct Activation {
  float value;
  float gradient;
};

/// phi(s) = s for s at or above 0, else 0.05 * (exp(20 * s) - 1): a hinge that leans softly below zero,
/// continuous with its derivative since 0.05 * 20 is 1 (ATOM, Danelljan et al. 2019, section 3.2).
__device__ inline Activation activate(float response) {
  constexpr float kSteepness = 20.0F;
  constexpr float kFloor = 0.05F;
  constexpr float kLog2E = 1.44269504F;
  if (response >= 0.0F) return {response, 1.0F};
  const float exponential = ostrel::launch::exp2_fast(response * kSteepness * kLog2E);
  return {kFloor * (exponential - 1.0F), exponential};
}

/// Weighted residual w * phi' * (phi - y) at element t, and phi' for the normal operator.
__device__ inline void weighted_residual_at(int t, const float* response, const float* labels, float weight,
                                            float* activation_grad, float* weighted_response) {
  const Activation activation = activate(response[t]);
  activation_grad[t] = activation.gradient;
  weighted_response[t] = (activation.value - labels[t]) * (weight * activation.gradient);
}

/// Step length rho / pq; 0 when pq is within 1e-12 of zero or not a number, which ends a solved system's
/// progress.
__device__ inline float step_length(const double* scalars) {
  constexpr double kNegligible = 1e-12;
  const double pq = scalars[kRho2OrPq];
  const bool usable = pq < -kNegligible || pq > kNegligible;
  return usable ? static_cast<float>(scalars[kRho] / pq) : 0.0F;
}

/// Polak-Ribiere coefficient with restart at negative values; not-a-number passes.
__device__ inline float direction_coefficient(const double* scalars) {
  constexpr double kSmallestDenominator = 1e-12;
  const double beta =
      (scalars[kRho] - scalars[kRho2OrPq]) / fmax(scalars[kPreviousRho], kSmallestDenominator);
  return static_cast<float>(beta < 0.0 ? 0.0 : beta);
}

__device__ inline void update_x_r_at(int t, float* x, float* r, const float* p, const float* q,
                                     const double* scalars) {
  const float alpha = step_length(scalars);
  x[t] = fmaf(alpha, p[t], x[t]);
  r[t] = fmaf(-alpha, q[t], r[t]);
}

__device__ inline void combine_with_beta_at(int t, const float* r, const double* scalars, float* p) {
  p[t] = fmaf(direction_coefficient(scalars), p[t], r[t]);
}

/// Adds the dot product of a and b to the double at `out`: a double per thread, a tree over the block in
/// `partial`, which holds kThreadsPerBlock doubles of shared memory, and one atomic add per block. The last
/// bits of the sum vary with the order of the blocks.
__device__ inline void add_dot_product(const ostrel::launch::Block& block, const float* a, const float* b,
                                       int n, double* partial, double* out) {
  block.for_each_thread([&](int thread) {
    double sum = 0.0;
    for (int t = block.index() * block.threads() + thread; t < n; t += block.threads() * block.grid()) {
      sum = fma(static_cast<double>(a[t]), static_cast<double>(b[t]), sum);
    }
    partial[thread] = sum;
  });
  for (int stride = block.threads() / 2; stride > 0; stride /= 2) {
    block.for_each_thread([&](int thread) {
      // NOLINTNEXTLINE(clang-analyzer-core.uninitialized.Assign): every thread has filled its own in the first phase
      if (thread < stride) partial[thread] += partial[thread + stride];
    });
  }
  block.for_each_thread([&](int thread) {
    // NOLINTNEXTLINE(clang-analyzer-core.CallAndMessage): as above
    if (thread == 0) ostrel::launch::atomic_add(out, partial[0]);
  });
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
