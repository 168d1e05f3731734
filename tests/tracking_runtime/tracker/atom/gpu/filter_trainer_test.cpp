#include "tracking_runtime/tracker/atom/gpu/cuda_filter_trainer.h"

#include <gtest/gtest.h>

#include <host_cuda/control.h>

#include <chrono>
#include <cmath>
#include <string>
#include <thread>
#include <vector>

#include "close_to.h"
#include "support/golden.h"
#include "training_fixture.h"

namespace ostrel_test {
namespace {

using atom::CudaFilterTrainer;
namespace host = ostrel::host_cuda;

// Single precision over a few iterations on well conditioned systems.
constexpr double kFewIterations = 1e-4;

const std::vector<Shape>& shapes() {
  static const std::vector<Shape> all = {
      {3, 6, 8, 8, 4, 4}, {2, 4, 7, 6, 3, 3}, {2, 3, 6, 6, 5, 2}, {1, 1, 1, 1, 4, 4}, {1, 5, 9, 4, 1, 1}};
  return all;
}

Training training_of(const GoldenCase& golden) {
  Training training;
  training.shape = {golden.i32("samples"), golden.i32("channels"),      golden.i32("height"),
                    golden.i32("width"),   golden.i32("filter_height"), golden.i32("filter_width")};
  training.features = golden.input_as<float>("features");
  training.labels = golden.input_as<float>("labels");
  training.weights = golden.input_as<float>("sample_weights");
  training.filter = golden.input_as<float>("filter");
  training.regularization = golden.f32("regularization");
  training.iterations = golden.i32("iterations");
  return training;
}

std::vector<float> trained(const Training& training) {
  CudaFilterTrainer trainer;
  std::vector<float> out;
  std::string error;
  EXPECT_TRUE(training.run(trainer, &out, &error)) << error;
  return out;
}

/// A trainer's inside with room for the training and its stream.
void prepare(atom::CudaFilterTrainer::Impl& impl, const Shape& shape) {
  require(impl.stream.create_with_flags(cudaStreamNonBlocking));
  require(impl.labels.ensure(shape.positions()));
  require(impl.sample_weights.ensure(static_cast<std::size_t>(shape.samples)));
  for (auto* buffer : {&impl.response, &impl.activation_grad, &impl.weighted_response}) {
    require(buffer->ensure(shape.positions()));
  }
  for (auto* buffer : {&impl.filter, &impl.x, &impl.r, &impl.r_prev, &impl.p, &impl.q}) {
    require(buffer->ensure(shape.taps()));
  }
  require(impl.filter_host.ensure(shape.taps()));
  require(impl.scalar.ensure(3));
}

std::vector<float> read(const atom::DeviceBuffer<float>& buffer) {
  std::vector<float> values(buffer.bytes() / sizeof(float));
  require(cudaMemcpy(values.data(), buffer.get(), buffer.bytes(), cudaMemcpyDeviceToHost));
  return values;
}

TEST(FilterTrainer, MatchesGoldenFromHostFeatures) {
  CudaFilterTrainer trainer;
  for (const GoldenCase& golden : load_golden("filter_trainer")) {
    std::vector<float> out;
    std::string error;
    ASSERT_TRUE(training_of(golden).run(trainer, &out, &error)) << error;
    EXPECT_TRUE(matches_golden(golden.output("filter_out"), out)) << golden.name();
  }
}

TEST(FilterTrainer, MatchesGoldenFromDeviceFeatures) {
  CudaFilterTrainer trainer;
  for (const GoldenCase& golden : load_golden("filter_trainer")) {
    const Training training = training_of(golden);
    const DeviceArray<float> features(training.features);
    std::vector<float> out;
    std::string error;
    ASSERT_TRUE(training.run_on(trainer, {features.get(), nullptr}, &out, &error)) << error;
    EXPECT_TRUE(matches_golden(golden.output("filter_out"), out)) << golden.name();
  }
}

TEST(FilterTrainer, MatchesGoldenResidualsAndNormalResponses) {
  // One position per sample, one channel per sample, features on the diagonal and a filter of ones: the
  // response of sample k is feature k, and tap k of the gradient is feature k times the weighted residual of
  // sample k.
  const GoldenCase golden = load_golden_case("residual_jtj", "trainer");
  const auto response = golden.input_as<float>("response");
  const int count = static_cast<int>(response.size());
  const std::size_t per_sample = response.size() / golden.input("sample_weights").values.size();
  Training training;
  training.shape = {count, count, 1, 1, 1, 1};
  training.features.assign(response.size() * response.size(), 0.0F);
  for (std::size_t k = 0; k < response.size(); ++k) {
    training.features[k * response.size() + k] = response[k];
    training.weights.push_back(golden.input_as<float>("sample_weights")[k / per_sample]);
  }
  training.labels = golden.input_as<float>("labels");
  training.filter.assign(response.size(), 1.0F);
  training.regularization = 0.0F;
  training.iterations = 1;
  atom::CudaFilterTrainer::Impl impl;
  prepare(impl, training.shape);
  const DeviceArray<float> features(training.features);
  std::vector<float> out;
  std::string error;
  ASSERT_TRUE(training.run_core(&impl, features.get(), &out, &error)) << error;

  EXPECT_TRUE(matches_golden(golden.output("activation_grad"), read(impl.activation_grad)));
  const auto right_hand_side = read(impl.r_prev);
  const auto normal = read(impl.weighted_response), direction_response = read(impl.response);
  const auto& residual = golden.output("weighted_residual").values;
  const auto& jtj = golden.output("weighted_jtj").values;
  const auto& jp = golden.input("jp").values;
  for (std::size_t k = 0; k < response.size(); ++k) {
    const double s = static_cast<double>(response[k]);
    EXPECT_NEAR(right_hand_side[k], -s * residual[k], std::abs(s) * (1e-6 + 3e-5 * std::abs(residual[k])))
        << k;
    const double jp_here = static_cast<double>(direction_response[k]);
    EXPECT_NEAR(normal[k] * jp[k], jtj[k] * jp_here, std::abs(jp_here) * (1e-6 + 5e-5 * std::abs(jtj[k])))
        << k;
  }
}

TEST(FilterTrainer, EqualsThePlainSolverOverShapesAndIterations) {
  for (const Shape& shape : shapes()) {
    for (const int iterations : {1, 2, 5}) {
      Training training = Training::random(shape, 100);
      training.iterations = iterations;
      EXPECT_TRUE(close_to(reference_training(training.problem(), widen(training.filter), iterations),
                           trained(training), kFewIterations))
          << shape.filter_height << "x" << shape.filter_width << " iterations " << iterations;
    }
  }
}

TEST(FilterTrainer, StartsFromTheNegativeGradientOfTheLoss) {
  for (const Shape& shape : shapes()) {
    Training training = Training::random(shape, 110);
    training.iterations = 1;
    atom::CudaFilterTrainer::Impl impl;
    prepare(impl, shape);
    const DeviceArray<float> features(training.features);
    std::vector<float> out;
    std::string error;
    ASSERT_TRUE(training.run_core(&impl, features.get(), &out, &error)) << error;
    const auto right_hand_side = read(impl.r_prev);
    const TrainingProblem problem = training.problem();
    constexpr double kStep = 1e-6;
    for (std::size_t tap = 0; tap < shape.taps(); ++tap) {
      Doubles above = widen(training.filter), below = above;
      above[tap] += kStep;
      below[tap] -= kStep;
      const double slope = (reference_loss(problem, above) - reference_loss(problem, below)) / (2.0 * kStep);
      // The second derivative jumps at response 0; elsewhere the quotient is good to 1e-6.
      EXPECT_NEAR(right_hand_side[tap], -slope, 1e-4) << tap;
    }
  }
}

TEST(FilterTrainer, KeepsTheResidualBeforeTheLastStep) {
  Training training = Training::random({2, 3, 6, 6, 4, 4}, 115);
  training.iterations = 2;
  atom::CudaFilterTrainer::Impl impl;
  prepare(impl, training.shape);
  const DeviceArray<float> features(training.features);
  std::vector<float> out;
  std::string error;
  ASSERT_TRUE(training.run_core(&impl, features.get(), &out, &error)) << error;
  const TrainingProblem problem = training.problem();
  const Doubles start = widen(training.filter);
  Doubles step = reference_training(problem, start, 1);
  for (std::size_t i = 0; i < step.size(); ++i) step[i] -= start[i];
  Doubles residual = reference_right_hand_side(problem, start);
  const Doubles left = reference_normal_operator(problem, start, step);
  for (std::size_t i = 0; i < residual.size(); ++i) residual[i] -= left[i];
  EXPECT_TRUE(close_to(residual, read(impl.r_prev), kFewIterations));
}

TEST(FilterTrainer, SolvesTheSystemWithEnoughIterations) {
  Training training = Training::random({3, 4, 8, 8, 4, 4}, 120);
  training.regularization = 1.0F;
  training.iterations = 40;
  const TrainingProblem problem = training.problem();
  const Doubles start = widen(training.filter);
  Doubles step = widen(trained(training));
  for (std::size_t i = 0; i < step.size(); ++i) step[i] -= start[i];
  const Doubles left = reference_normal_operator(problem, start, step);
  EXPECT_TRUE(close_to(reference_right_hand_side(problem, start), left, 1e-4));
}

TEST(FilterTrainer, LowersTheLoss) {
  const Training training = Training::random({3, 6, 8, 8, 4, 4}, 130);
  EXPECT_LT(reference_loss(training.problem(), widen(trained(training))),
            0.9 * reference_loss(training.problem(), widen(training.filter)));
}

TEST(FilterTrainer, CountsFewerThanOneIterationAsOne) {
  Training training = Training::random({2, 3, 6, 6, 4, 4}, 140);
  training.iterations = 1;
  const auto once = trained(training);
  for (const int iterations : {0, -7}) {
    training.iterations = iterations;
    EXPECT_TRUE(close_to(once, trained(training), 1e-6));
  }
}

TEST(FilterTrainer, ShrinksTheFilterToNothingWithoutWeights) {
  Training training = Training::random({2, 3, 6, 6, 4, 4}, 150);
  training.weights = {0.0F, 0.0F};
  training.iterations = 1;
  for (const float value : trained(training)) EXPECT_NEAR(value, 0.0F, 1e-7);
}

TEST(FilterTrainer, LeavesTheFilterAloneWithoutWeightsAndRegularization) {
  Training training = Training::random({2, 3, 6, 6, 4, 4}, 160);
  training.weights = {0.0F, 0.0F};
  training.regularization = 0.0F;
  for (const int iterations : {1, 4}) {
    training.iterations = iterations;
    EXPECT_EQ(trained(training), training.filter);
  }
}

TEST(FilterTrainer, StaysPutOnceTheSystemIsSolved) {
  Training training = Training::random({2, 2, 4, 4, 4, 4}, 170);
  training.regularization = 1.0F;
  training.iterations = 60;
  const auto solved = trained(training);
  training.iterations = 200;
  const auto later = trained(training);
  EXPECT_TRUE(close_to(solved, later, 1e-5));
  for (const float value : later) EXPECT_TRUE(std::isfinite(value));
}

TEST(FilterTrainer, IgnoresWeightsBeyondTheSamples) {
  Training training = Training::random({2, 3, 6, 6, 4, 4}, 180);
  const auto expected = trained(training);
  training.weights.push_back(1e9F);
  EXPECT_TRUE(close_to(expected, trained(training), 1e-6));
}

TEST(FilterTrainer, UsesEachSamplesOwnWeight) {
  Training training = Training::random({2, 2, 5, 5, 4, 4}, 190);
  training.weights = {0.0F, 0.6F};
  Training alone = training;
  alone.shape.samples = 1;
  alone.weights = {0.6F};
  alone.features.assign(training.features.begin() + 50, training.features.end());
  alone.labels.assign(training.labels.begin() + 25, training.labels.end());
  EXPECT_TRUE(close_to(trained(alone), trained(training), 1e-5));
}

TEST(FilterTrainer, ServesJobsOfOtherSizesOneAfterTheOther) {
  CudaFilterTrainer trainer;
  for (const std::uint32_t seed : {200U, 201U}) {
    for (const Shape& shape : shapes()) {
      const Training training = Training::random(shape, seed);
      std::vector<float> out = {42.0F};
      std::string error;
      ASSERT_TRUE(training.run(trainer, &out, &error)) << error;
      EXPECT_TRUE(
          close_to(reference_training(training.problem(), widen(training.filter), training.iterations), out,
                   kFewIterations));
    }
  }
}

TEST(FilterTrainer, WaitsForTheStreamThatProducesTheFeatures) {
  const Training training = Training::random({2, 3, 6, 6, 4, 4}, 210);
  const auto expected = trained(training);
  TestStream producer;
  const DeviceArray<float> source(training.features), features(training.features.size(), 1e6F);
  CudaFilterTrainer trainer;
  std::vector<float> out;
  std::string error;
  require(host::enqueue(producer.get(), "slow producer",
                        [] { std::this_thread::sleep_for(std::chrono::milliseconds(50)); }));
  require(cudaMemcpyAsync(features.get(), source.get(), training.features.size() * sizeof(float),
                          cudaMemcpyDeviceToDevice, producer.get()));
  ASSERT_TRUE(training.run_on(trainer, {features.get(), producer.get()}, &out, &error)) << error;
  EXPECT_TRUE(close_to(expected, out, 1e-6));
}

}  // namespace
}  // namespace ostrel_test
