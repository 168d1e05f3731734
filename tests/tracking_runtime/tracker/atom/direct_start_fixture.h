#pragma once

#include <algorithm>
#include <cmath>

#include "tracking_runtime/tracker/atom/gpu/cuda_joint_optimizer.h"
#include "tracking_runtime/tracker/atom/init_fixture.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace init_test {

/// Sums of up to 16 products of about 1, in 32-bit floats and in another order.
constexpr double kProjectionTolerance = 1e-4;

/// A short joint fit: two Gauss-Newton iterations of two conjugate gradient iterations each. The tiny engine
/// takes three patches at once, so that the six after the template go in two chunks.
class DirectStart : public TrackingStart {
 protected:
  static constexpr int kGaussNewton = 2;
  static constexpr int kConjugateGradient = 2;
  static constexpr int kIterations = 4;
  // A projection and a gradient for each right-hand side and each operator.
  static constexpr int kProductsOfAFit = 2 * kGaussNewton * (1 + kConjugateGradient);
  static constexpr const char* kChunkLine =
      "[CudaRuntimeBackend] init: direct GPU augmented batch chunk unavailable, falling back to host "
      "extraction: ";

  DirectStart() {
    config.startup_box_refinement_iterations = kGaussNewton;
    config.startup_filter_iterations = kIterations;
  }

  /// The weights, to compare or to return to.
  void keep_weights() { kept_ = weights(); }
  const ClassifierState& kept() const { return kept_; }
  void expect_kept_weights() {
    EXPECT_EQ(weights().projection_matrix, kept_.projection_matrix);
    EXPECT_EQ(weights().filter_weights, kept_.filter_weights);
    EXPECT_EQ(weights().projection_version, kept_.projection_version);
    EXPECT_EQ(weights().filter_version, kept_.filter_version);
  }

  static double largest_difference(const std::vector<float>& a, const std::vector<float>& b) {
    EXPECT_EQ(a.size(), b.size());
    double largest = 0.0;
    for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i) {
      const double difference = std::fabs(static_cast<double>(a[i]) - static_cast<double>(b[i]));
      if (std::isnan(difference)) return difference;  // below no tolerance
      largest = std::max(largest, difference);
    }
    return largest;
  }

 private:
  ClassifierState kept_;
};

/// A pipeline that stands before the training set, with what it prints kept.
class PreparedStart : public DirectStart {
 protected:
  void prepare() {
    ::testing::internal::CaptureStderr();
    const bool prepared = access_.prepare();
    ::testing::internal::GetCapturedStderr();
    ASSERT_TRUE(prepared) << error;
    keep_weights();
  }
  char take_direct_path() {
    ::testing::internal::CaptureStderr();
    const char outcome = access_.take_direct_path();
    printed = ::testing::internal::GetCapturedStderr();
    return outcome;
  }
  InitPipelineTestAccess& steps() { return access_; }

 private:
  InitPipeline pipeline_{&backend(), frame, kBox, &error};
  InitPipelineTestAccess access_{&pipeline_};
};

}  // namespace init_test
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
