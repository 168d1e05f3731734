#pragma once

#include <gtest/gtest.h>

#include <host_cuda/control.h>
#include <null_stream_watch.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "call_fault.h"
#include "close_to.h"
#include "joint_problem.h"

namespace ostrel_test {

inline constexpr const char* kNotReady = "CUDA joint optimizer state is not ready";
inline constexpr const char* kNotProjected = "CUDA joint optimizer projected feature state is not ready";

/// What a fit gave, as one joint vector.
struct FitResult {
  std::vector<float> filter, projection;

  Doubles joint() const { return joined(widen(filter), widen(projection)); }
};

/// An optimiser, a small case, and a text for errors. Takes what a fit writes to standard error.
class JointOptimizerTest : public ::testing::Test {
 protected:
  atom::CudaJointOptimizer optimizer_;
  JointFitCase fit_ = JointFitCase::random({2, 3, 6, 6, 4, 4}, 4, 500);
  FitResult out_;
  std::string error_;
  std::string log_;  // of the last fit

  void TearDown() override {
    ostrel::host_cuda::clear_faults();
    null_stream_.expect_nothing_new();
  }

  bool optimize() { return optimize(fit_, optimizer_, &out_); }
  bool optimize(const JointFitCase& fit, atom::CudaJointOptimizer& optimizer, FitResult* out) {
    ::testing::internal::CaptureStderr();
    const bool done = fit.optimize(optimizer, &out->filter, &out->projection, &error_);
    log_ = ::testing::internal::GetCapturedStderr();
    return done;
  }
  bool optimize_preloaded() {
    ::testing::internal::CaptureStderr();
    const bool done = fit_.optimize_preloaded(optimizer_, &out_.filter, &out_.projection, &error_);
    log_ = ::testing::internal::GetCapturedStderr();
    return done;
  }
  /// A fit on an optimiser of its own.
  FitResult fitted(const JointFitCase& fit) {
    atom::CudaJointOptimizer optimizer;
    FitResult out;
    EXPECT_TRUE(fit.ensure(optimizer, &error_)) << error_;
    EXPECT_TRUE(optimize(fit, optimizer, &out)) << error_;
    return out;
  }
  /// The raw samples as they stand on the device, by a view through the identity: out_channels must be
  /// in_channels. One step of no weight and no regularisation leaves the projection as it was given.
  std::vector<float> raw_on_device(int samples) {
    JointFitCase reader = fit_;
    reader.shape.samples = samples;
    reader.labels.assign(reader.shape.positions(), 0.0F);
    reader.projection.assign(reader.projection_size(), 0.0F);
    for (int c = 0; c < reader.in_channels; ++c) {
      reader.projection[static_cast<std::size_t>(c * reader.in_channels + c)] = 1.0F;
    }
    reader.filter.assign(reader.shape.taps(), 0.0F);
    reader.sample_weight = reader.filter_regularization = reader.projection_regularization = 0.0F;
    reader.gauss_newton = reader.conjugate_gradient = 1;
    FitResult out;
    std::vector<float> raw;
    ::testing::internal::CaptureStderr();
    EXPECT_TRUE(reader.optimize_preloaded(optimizer_, &out.filter, &out.projection, &error_)) << error_;
    ::testing::internal::GetCapturedStderr();
    EXPECT_TRUE(optimizer_.download_projected_features(&raw, &error_)) << error_;
    return raw;
  }

  static std::int64_t calls(const char* name) { return ostrel::host_cuda::counters().calls_of(name); }
  static std::int64_t launches(const char* name) { return ostrel::host_cuda::counters().launches_of(name); }

 private:
  NullStreamWatch null_stream_;
};

}  // namespace ostrel_test
