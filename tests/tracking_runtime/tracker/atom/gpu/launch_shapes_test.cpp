// Blocks, threads and dynamic shared memory of every launch, and the parameters of every kernel: a form that is
// registered under the name and the type stands in for the kernel and writes down how it was launched. The forms
// stay, so these tests are a program of their own.

#include <gtest/gtest.h>

#include <host_cuda/control.h>
#include <host_cuda/tuned.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "device_arrays.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_image_preprocess.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_joint_optimizer_ops.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_projection_classifier.h"
#include "training_fixture.h"

namespace ostrel_test {
namespace {

namespace host = ostrel::host_cuda;
namespace ops = atom::detail;

// More than one block of positions, of features and of taps, the last one never full.
constexpr int kSamples = 3, kChannels = 19, kHeight = 11, kWidth = 9;
constexpr int kPositions = kSamples * kHeight * kWidth;
constexpr int kFeatures = kPositions * kChannels;

constexpr int taps(int side) {
  return kChannels * side * side;
}
constexpr std::size_t filter_bytes(int side) {
  return static_cast<std::size_t>(taps(side)) * sizeof(float);
}

struct Watched {
  int launches = 0;
  host::TunedLaunch last{};
};

template <typename Function>
struct Watch;
template <typename... Parameters>
struct Watch<void(Parameters...)> {
  static std::shared_ptr<Watched> on(const char* name) {
    auto watched = std::make_shared<Watched>();
    host::register_tuned_kernel<void(Parameters...)>(
        name, [watched](const host::TunedLaunch& launch, Parameters...) {
          ++watched->launches;
          watched->last = launch;
        });
    return watched;
  }
};

void expect_shape(const Watched& watched, const std::string& name, int threads, std::size_t shared_bytes) {
  EXPECT_GT(watched.launches, 0) << name << " was not launched, or with other parameters";
  EXPECT_EQ(watched.last.grid, static_cast<unsigned>((threads + 255) / 256)) << name;
  EXPECT_EQ(watched.last.block, 256U) << name;
  EXPECT_EQ(watched.last.shared_bytes, shared_bytes) << name;
}

/// Expects that `launch` runs the kernel of that name and type over so many threads, and succeeds.
template <typename Function>
void expect_launch(const char* name, const std::function<bool()>& launch, int threads,
                   std::size_t shared_bytes = 0) {
  const auto watched = Watch<Function>::on(name);
  EXPECT_TRUE(launch()) << name;
  expect_shape(*watched, name, threads, shared_bytes);
}

using In = const float*;
using Out = float*;
using Scalars = const double*;
using Classify = void(In, In, Out, int, int, int, int, int, int);
using ClassifyFixed = void(In, In, Out, int, int, int, int);
using Project = void(In, In, Out, int, int, int, int, int);
using Pair = void(In, In, Out, In, In, Out, int, int, int, int, int, int);
using PairFixed = void(In, In, Out, In, In, Out, int, int, int, int);
using FilterGradient = void(In, In, float, Out, int, int, int, int, int, int);
using JointResidual = void(In, In, float, Out, Out, int, int, int);
using JointNormal = void(In, In, In, float, Out, int, int, int);
using TrainerResidual = void(In, In, In, Out, Out, int, int, int);
using TrainerNormal = void(In, In, In, Out, int, int, int);
using SetScaled = void(In, float, Out, int);
using AddInPlace = void(Out, In, int);
using Dot = void(In, In, int, double*);
using Update = void(Out, Out, In, In, Scalars, int);
using Combine = void(In, Scalars, Out, int);
using StoreScalar = void(double*, int, int);
using Reduce = void(In, Out, int, int);
using Materialize = void(In, In, Out, int, int, int, int);
using Preprocess = void(const std::uint8_t*, std::size_t, std::size_t, Out, int, int, int);

class JointLaunchShapes : public ::testing::Test {
 protected:
  TestStream stream_;
  cudaStream_t s_ = stream_.get();
  DeviceArray<float> in_{static_cast<std::size_t>(kFeatures), 0.5F},
      out_{static_cast<std::size_t>(kFeatures), 0.5F};
  DeviceArray<double> scalars_{3, 1.0};
  float* a_ = in_.get();
  float* b_ = out_.get();

  /// Whether the launch succeeded; the kernel has run then.
  bool wait(bool launched) { return launched && cudaStreamSynchronize(s_) == cudaSuccess; }
  bool classify(int side) {
    return wait(ops::launch_classify_samples(a_, a_, b_, kSamples, kChannels, kHeight, kWidth, side, side, s_,
                                             nullptr));
  }
  bool pair(int side) {
    return wait(ops::launch_classify_sample_pair(a_, a_, b_, a_, a_, b_, kSamples, kChannels, kHeight, kWidth,
                                                 side, side, s_, nullptr));
  }
  bool backprop(int side) {
    return wait(ops::launch_backprop_to_projected_feature(a_, a_, b_, kSamples, kChannels, kHeight, kWidth,
                                                          side, side, s_, nullptr));
  }
};

TEST_F(JointLaunchShapes, CorrelationsStageTheirFilters) {
  expect_launch<Classify>(
      "classify_samples_kernel", [&] { return classify(5); }, kPositions, filter_bytes(5));
  expect_launch<ClassifyFixed>(
      "classify_samples_fixed_filter_kernel<4,4>", [&] { return classify(4); }, kPositions, filter_bytes(4));
  expect_launch<Pair>(
      "classify_sample_pair_kernel", [&] { return pair(5); }, kPositions, 2 * filter_bytes(5));
  expect_launch<PairFixed>(
      "classify_sample_pair_fixed_filter_kernel<4,4>", [&] { return pair(4); }, kPositions,
      2 * filter_bytes(4));
  expect_launch<Classify>(
      "backprop_to_projected_feature_kernel", [&] { return backprop(5); }, kFeatures, filter_bytes(5));
  expect_launch<ClassifyFixed>(
      "backprop_to_projected_feature_fixed_filter_kernel<4,4>", [&] { return backprop(4); }, kFeatures,
      filter_bytes(4));
}

TEST_F(JointLaunchShapes, FilterGradientHasAThreadPerTap) {
  const auto gradient = [&] {
    return wait(ops::launch_accumulate_filter_gradient(a_, a_, 1.0F, b_, kSamples, kChannels, kHeight, kWidth,
                                                       4, 4, s_, nullptr));
  };
  expect_launch<FilterGradient>("accumulate_filter_gradient_kernel", gradient, taps(4));
}

TEST_F(JointLaunchShapes, ResponsesHaveAThreadPerPosition) {
  const auto residual = [&] {
    return wait(ops::launch_compute_weighted_residual_grad(a_, a_, 1.0F, b_, b_, kSamples, kHeight, kWidth,
                                                           s_, nullptr));
  };
  const auto normal = [&] {
    return wait(ops::launch_compute_weighted_jtj_response(a_, a_, a_, 1.0F, b_, kSamples, kHeight, kWidth, s_,
                                                          nullptr));
  };
  expect_launch<JointResidual>("compute_weighted_residual_grad_kernel", residual, kPositions);
  expect_launch<JointNormal>("compute_weighted_jtj_response_kernel", normal, kPositions);
}

TEST_F(JointLaunchShapes, VectorsHaveAThreadPerElement) {
  constexpr int n = 1000;
  double* const scalars = scalars_.get();
  expect_launch<SetScaled>(
      "set_scaled_vector_kernel",
      [&] { return wait(ops::launch_set_scaled_vector(a_, 2.0F, b_, n, s_, nullptr)); }, n);
  expect_launch<AddInPlace>(
      "add_in_place_kernel", [&] { return wait(ops::launch_add_in_place(b_, a_, n, s_, nullptr)); }, n);
  expect_launch<Dot>(
      "dot_product_kernel", [&] { return wait(ops::launch_dot_product(a_, a_, n, scalars, s_, nullptr)); },
      n);
  expect_launch<Update>(
      "update_x_r_from_scalars_kernel",
      [&] { return wait(ops::launch_update_x_r_from_scalars(b_, b_, a_, a_, scalars, n, s_, nullptr)); }, n);
  expect_launch<Combine>(
      "combine_with_beta_from_scalars_kernel",
      [&] { return wait(ops::launch_combine_with_beta_from_scalars(a_, scalars, b_, n, s_, nullptr)); }, n);
  expect_launch<Reduce>(
      "reduce_batched_projection_gradient_kernel",
      [&] { return wait(ops::launch_reduce_batched_projection_gradient(a_, b_, 2, n, s_, nullptr)); }, n);
}

TEST_F(JointLaunchShapes, SampleCopiesHaveAThreadPerFeature) {
  const auto copies = [&] {
    return wait(ops::launch_materialize_scaled_sample_copies(a_, a_, b_, kSamples, kChannels, kHeight, kWidth,
                                                             s_, nullptr));
  };
  expect_launch<Materialize>("materialize_scaled_sample_copies_kernel", copies, kFeatures);
}

TEST_F(JointLaunchShapes, AScalarIsStoredByOneThread) {
  const auto watched = Watch<StoreScalar>::on("store_scalar_kernel");
  ASSERT_TRUE(wait(ops::launch_store_scalar(scalars_.get(), 2, 0, s_, nullptr)));
  EXPECT_EQ(watched->launches, 1);
  EXPECT_EQ(watched->last.grid, 1U);
  EXPECT_EQ(watched->last.block, 1U);
  EXPECT_EQ(watched->last.shared_bytes, 0U);
}

/// A training of two iterations with a filter of that side.
Training training_of(int side) {
  Training training = Training::random({kSamples, kChannels, kHeight, kWidth, side, side}, 500);
  training.iterations = 2;
  return training;
}

bool train(int side) {
  atom::CudaFilterTrainer trainer;
  std::vector<float> out;
  return training_of(side).run(trainer, &out, nullptr);
}

bool train_on_device(int side) {
  const Training training = training_of(side);
  const DeviceArray<float> features(training.features);
  atom::CudaFilterTrainer trainer;
  std::vector<float> out;
  return training.run_on(trainer, {features.get(), nullptr}, &out, nullptr);
}

TEST(TrainerLaunchShapes, OnlyTheFixedCorrelationStagesItsFilter) {
  expect_launch<Classify>(
      "classify_samples_kernel", [] { return train(5); }, kPositions);
  expect_launch<ClassifyFixed>(
      "classify_samples_fixed_filter_kernel<4,4>", [] { return train(4); }, kPositions, filter_bytes(4));
}

TEST(TrainerLaunchShapes, HaveAThreadPerPositionOrTap) {
  const auto job = [] { return train(4); };
  expect_launch<TrainerResidual>("compute_weighted_residual_grad_kernel", job, kPositions);
  expect_launch<TrainerNormal>("compute_weighted_jtj_response_kernel", job, kPositions);
  expect_launch<FilterGradient>("accumulate_filter_gradient_kernel", job, taps(4));
  expect_launch<SetScaled>("set_scaled_vector_kernel", job, taps(4));
  expect_launch<AddInPlace>("add_in_place_kernel", job, taps(4));
  expect_launch<Dot>("dot_product_kernel", job, taps(4));
  expect_launch<Update>("update_x_r_from_scalars_kernel", job, taps(4));
  expect_launch<Combine>("combine_with_beta_from_scalars_kernel", job, taps(4));
}

TEST(TrainerLaunchShapes, FromHostMemoryKeepToOneCore) {
  const int cores = host::worker_count();
  host::set_worker_count(3);
  const auto watched = Watch<AddInPlace>::on("add_in_place_kernel");
  ASSERT_TRUE(train(4));
  EXPECT_EQ(watched->last.threads_allowed, 1);
  ASSERT_TRUE(train_on_device(4));
  EXPECT_EQ(watched->last.threads_allowed, 3);
  host::set_worker_count(cores);
}

TEST(TrainerLaunchShapes, AScalarIsStoredByOneThread) {
  const auto watched = Watch<StoreScalar>::on("store_scalar_kernel");
  ASSERT_TRUE(train(4));
  EXPECT_EQ(watched->launches, 2);
  EXPECT_EQ(watched->last.grid * watched->last.block, 1U);
}

TEST(ClassifierLaunchShapes, HaveAThreadPerElementAndStageNothing) {
  constexpr int kInChannels = 5;
  TestStream stream;
  const DeviceArray<float> features(static_cast<std::size_t>(kPositions * kInChannels), 0.5F);
  const auto classify = [&] {
    atom::CudaProjectionClassifier classifier;
    return classifier.ensure_capacity(kSamples, kInChannels, kChannels, kHeight, kWidth, 4, 4, nullptr) &&
           classifier.upload_weights(std::vector<float>(kInChannels * kChannels), true, kInChannels,
                                     kChannels, std::vector<float>(static_cast<std::size_t>(taps(4))), 4, 4,
                                     nullptr) &&
           classifier.project_and_classify(features.get(), kSamples, stream.get(), nullptr) &&
           cudaStreamSynchronize(stream.get()) == cudaSuccess;
  };
  expect_launch<Project>("project_features_kernel", classify, kFeatures);
  expect_launch<Classify>("classify_kernel", classify, kPositions);
}

TEST(PreprocessLaunchShape, HasAThreadPerPixel) {
  TestStream stream;
  const DeviceArray<std::uint8_t> source(static_cast<std::size_t>(kPositions * 3), std::uint8_t{1});
  const DeviceArray<float> target(static_cast<std::size_t>(kPositions * 3), 0.0F);
  const auto preprocess = [&] {
    return atom::launch_bgr8_to_rgb_planar_float(source.get(), kHeight * kWidth * 3, kWidth * 3, target.get(),
                                                 kSamples, kWidth, kHeight, stream.get(), nullptr) &&
           cudaStreamSynchronize(stream.get()) == cudaSuccess;
  };
  expect_launch<Preprocess>("bgr8_to_rgb_planar_float_kernel", preprocess, kPositions);
}

}  // namespace
}  // namespace ostrel_test
