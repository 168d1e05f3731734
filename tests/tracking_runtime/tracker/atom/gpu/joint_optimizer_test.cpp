// What a fit, a right-hand side and the normal operator compute.

#include <cmath>

#include "joint_optimizer_fixture.h"
#include "support/golden.h"

namespace ostrel_test {
namespace {

using atom::CudaJointOptimizer;

// Single precision over a few iterations on well conditioned systems.
constexpr double kFewIterations = 2e-4;
constexpr double kOneOperator = 2e-5;

JointFitCase case_of(const GoldenCase& golden) {
  JointFitCase fit;
  fit.shape = {golden.i32("samples"), golden.i32("out_channels"),  golden.i32("height"),
               golden.i32("width"),   golden.i32("filter_height"), golden.i32("filter_width")};
  fit.in_channels = golden.i32("in_channels");
  fit.raw = golden.input_as<float>("raw");
  fit.labels = golden.input_as<float>("labels");
  fit.filter = golden.input_as<float>("filter");
  fit.projection = golden.input_as<float>("projection");
  fit.filter_regularization = golden.f32("filter_regularization");
  fit.projection_regularization = golden.f32("projection_regularization");
  fit.sample_weight = golden.f32("sample_weight");
  fit.gauss_newton = golden.i32("gauss_newton_iterations");
  fit.conjugate_gradient = golden.i32("conjugate_gradient_iterations");
  return fit;
}

std::vector<float> narrow(const Doubles& values) {
  return {values.begin(), values.end()};
}

Doubles random_direction(const JointFitCase& fit, std::uint32_t seed) {
  return widen(random_values(fit.shape.taps() + fit.projection_size(), seed));
}

class JointOptimizer : public JointOptimizerTest {
 protected:
  /// The normal operator at the case's start.
  std::vector<float> operated(const JointFitCase& fit, const Doubles& direction) {
    std::vector<float> rhs, out;
    const JointProblem problem = fit.problem();
    EXPECT_TRUE(fit.ensure(optimizer_, &error_)) << error_;
    EXPECT_TRUE(fit.rhs(optimizer_, &rhs, &error_)) << error_;
    EXPECT_TRUE(fit.apply(optimizer_, narrow(filter_of(problem, direction)),
                          narrow(projection_of(problem, direction)), &out, &error_))
        << error_;
    return out;
  }
  std::vector<float> downloaded() {
    std::vector<float> out;
    EXPECT_TRUE(optimizer_.download_projected_features(&out, &error_)) << error_;
    return out;
  }
};

TEST_F(JointOptimizer, MatchesGoldenFits) {
  for (const GoldenCase& golden : load_golden("joint_optimizer")) {
    SCOPED_TRACE(golden.name());
    const JointFitCase fit = case_of(golden);
    ASSERT_TRUE(fit.ensure(optimizer_, &error_)) << error_;
    ASSERT_TRUE(optimize(fit, optimizer_, &out_)) << error_;
    EXPECT_TRUE(matches_golden(golden.output("filter_out"), out_.filter));
    EXPECT_TRUE(matches_golden(golden.output("projection_out"), out_.projection));
    EXPECT_TRUE(matches_golden(golden.output("projected_final"), downloaded()));
  }
}

TEST_F(JointOptimizer, MatchesGoldenRightHandSidesAndOperators) {
  for (const GoldenCase& golden : load_golden("joint_optimizer")) {
    SCOPED_TRACE(golden.name());
    const JointFitCase fit = case_of(golden);
    std::vector<float> out;
    ASSERT_TRUE(fit.ensure(optimizer_, &error_)) << error_;
    ASSERT_TRUE(fit.rhs(optimizer_, &out, &error_)) << error_;
    EXPECT_TRUE(matches_golden(golden.output("rhs"), out));
    ASSERT_TRUE(fit.apply(optimizer_, golden.input_as<float>("direction_filter"),
                          golden.input_as<float>("direction_projection"), &out, &error_))
        << error_;
    EXPECT_TRUE(matches_golden(golden.output("operator"), out));
  }
}

TEST_F(JointOptimizer, EqualsThePlainSolverOverShapesAndCounts) {
  struct Counts {
    int gauss_newton, conjugate_gradient;
  };
  for (JointFitCase fit : joint_cases()) {
    for (const Counts& counts : {Counts{1, 1}, Counts{1, 4}, Counts{3, 1}, Counts{2, 3}}) {
      fit.gauss_newton = counts.gauss_newton;
      fit.conjugate_gradient = counts.conjugate_gradient;
      EXPECT_TRUE(close_to(
          reference_joint_fit(fit.problem(), fit.start(), counts.gauss_newton, counts.conjugate_gradient),
          fitted(fit).joint(), kFewIterations))
          << fit.shape.filter_height << "x" << fit.shape.filter_width << ", " << counts.gauss_newton << " x "
          << counts.conjugate_gradient;
    }
  }
}

TEST_F(JointOptimizer, StartsFromTheNegativeGradientOfTheLoss) {
  for (const JointFitCase& fit : joint_cases()) {
    std::vector<float> rhs;
    ASSERT_TRUE(fit.ensure(optimizer_, &error_)) << error_;
    ASSERT_TRUE(fit.rhs(optimizer_, &rhs, &error_)) << error_;
    const JointProblem problem = fit.problem();
    ASSERT_EQ(rhs.size(), fit.start().size());
    EXPECT_TRUE(close_to(reference_joint_right_hand_side(problem, fit.start()), rhs, kOneOperator));
    constexpr double kStep = 1e-6;
    for (std::size_t i = 0; i < rhs.size(); ++i) {
      Doubles above = fit.start(), below = above;
      above[i] += kStep;
      below[i] -= kStep;
      const double slope =
          (reference_joint_loss(problem, above) - reference_joint_loss(problem, below)) / (2.0 * kStep);
      // The second derivative jumps at response 0; elsewhere the quotient is good to 1e-6.
      ASSERT_NEAR(rhs[i], -slope, 1e-4) << i;
    }
  }
}

TEST_F(JointOptimizer, AppliesTheDenseMatrixOfTheSystem) {
  for (const JointFitCase& fit : joint_cases()) {
    const Doubles direction = random_direction(fit, 600);
    Doubles expected;
    for (const Doubles& row : dense_joint_matrix(fit.problem(), fit.start())) {
      expected.push_back(reference_dot(row, direction));
    }
    EXPECT_TRUE(close_to(expected, operated(fit, direction), kOneOperator));
  }
}

TEST_F(JointOptimizer, AppliesASymmetricOperatorOfPositiveCurvature) {
  for (const JointFitCase& fit : joint_cases()) {
    const Doubles a = random_direction(fit, 610), b = random_direction(fit, 611);
    const Doubles left = widen(operated(fit, b)), right = widen(operated(fit, a));
    const double scale = std::sqrt(reference_dot(left, left) * reference_dot(a, a));
    EXPECT_NEAR(reference_dot(a, left), reference_dot(right, b), 1e-5 * scale);
    EXPECT_GT(reference_dot(a, right), 0.0);
  }
}

TEST_F(JointOptimizer, SolvesTheSystemWithEnoughIterations) {
  fit_.filter_regularization = fit_.projection_regularization = 1.0F;
  fit_.gauss_newton = 1;
  fit_.conjugate_gradient = 60;
  Doubles step = fitted(fit_).joint();
  for (std::size_t i = 0; i < step.size(); ++i) step[i] -= fit_.start()[i];
  EXPECT_TRUE(close_to(reference_joint_right_hand_side(fit_.problem(), fit_.start()),
                       reference_joint_operator(fit_.problem(), fit_.start(), step), 1e-4));
}

TEST_F(JointOptimizer, LowersTheLoss) {
  for (JointFitCase fit : joint_cases()) {
    fit.gauss_newton = 4;
    EXPECT_LT(reference_joint_loss(fit.problem(), fitted(fit).joint()),
              reference_joint_loss(fit.problem(), fit.start()));
  }
}

TEST_F(JointOptimizer, CountsFewerThanOneIterationAsOneAndLogsTheRaisedCounts) {
  fit_.gauss_newton = fit_.conjugate_gradient = 1;
  const FitResult once = fitted(fit_);
  for (const int count : {0, -3}) {
    fit_.gauss_newton = fit_.conjugate_gradient = count;
    EXPECT_TRUE(close_to(once.joint(), fitted(fit_).joint(), 1e-6));
    EXPECT_NE(log_.find("timing summary: samples=2 gn=1 cg=1 total="), std::string::npos) << log_;
  }
}

TEST_F(JointOptimizer, ShrinksBothHalvesToNothingWithoutAWeight) {
  fit_.sample_weight = 0.0F;
  fit_.gauss_newton = 1;
  fit_.conjugate_gradient = 2;  // as many as the system has different eigenvalues
  for (const double value : fitted(fit_).joint()) EXPECT_NEAR(value, 0.0, 1e-6);
  std::vector<float> rhs;
  ASSERT_TRUE(fit_.ensure(optimizer_, &error_)) << error_;
  ASSERT_TRUE(fit_.rhs(optimizer_, &rhs, &error_)) << error_;
  for (std::size_t i = 0; i < rhs.size(); ++i) {
    const bool in_filter = i < fit_.filter.size();
    const float value = in_filter ? fit_.filter[i] : fit_.projection[i - fit_.filter.size()];
    EXPECT_FLOAT_EQ(rhs[i],
                    -(in_filter ? fit_.filter_regularization : fit_.projection_regularization) * value);
  }
}

TEST_F(JointOptimizer, LeavesEverythingAloneAtAZeroResidualWithoutRegularization) {
  // Small positive whole numbers: every response is exact in single precision, whatever the order of sums.
  const auto whole = [](std::vector<float>* values, std::uint32_t seed) {
    *values = random_values(values->size(), seed, 0.0F, 3.0F);
    for (float& value : *values) value = std::ceil(value);
  };
  whole(&fit_.raw, 620);
  whole(&fit_.filter, 621);
  whole(&fit_.projection, 622);
  fit_.filter_regularization = fit_.projection_regularization = 0.0F;
  fit_.labels = narrow(reference_response(fit_.problem(), fit_.start()));
  for (const int count : {1, 3}) {
    fit_.gauss_newton = fit_.conjugate_gradient = count;
    const FitResult out = fitted(fit_);
    EXPECT_EQ(out.filter, fit_.filter);
    EXPECT_EQ(out.projection, fit_.projection);
  }
}

TEST_F(JointOptimizer, LeavesEverythingAloneWithoutWeightAndRegularization) {
  fit_.sample_weight = fit_.filter_regularization = fit_.projection_regularization = 0.0F;
  const FitResult out = fitted(fit_);
  EXPECT_EQ(out.filter, fit_.filter);
  EXPECT_EQ(out.projection, fit_.projection);
}

TEST_F(JointOptimizer, TakesItsOutputsOnTopOfItsInputs) {
  const FitResult expected = fitted(fit_);
  ASSERT_TRUE(fit_.ensure(optimizer_, &error_)) << error_;
  JointFitCase aliased = fit_;
  ASSERT_TRUE(aliased.optimize(optimizer_, &aliased.filter, &aliased.projection, &error_)) << error_;
  EXPECT_TRUE(close_to(expected.filter, aliased.filter, 1e-6));
  EXPECT_TRUE(close_to(expected.projection, aliased.projection, 1e-6));
}

TEST_F(JointOptimizer, ServesFitsOfOtherSizesOneAfterTheOther) {
  for (int round = 0; round < 2; ++round) {
    for (const JointFitCase& fit : joint_cases()) {
      ASSERT_TRUE(fit.ensure(optimizer_, &error_)) << error_;
      ASSERT_TRUE(optimize(fit, optimizer_, &out_)) << error_;
      EXPECT_TRUE(
          close_to(reference_joint_fit(fit.problem(), fit.start(), fit.gauss_newton, fit.conjugate_gradient),
                   out_.joint(), kFewIterations));
      EXPECT_EQ(downloaded().size(), fit.shape.features());
    }
  }
}

TEST_F(JointOptimizer, FitsOnTheFirstOfThePreloadedSamples) {
  ASSERT_TRUE(fit_.ensure(optimizer_, &error_)) << error_;
  ASSERT_TRUE(optimizer_.preload_raw_feature_spans({{fit_.raw.data(), nullptr, 0, 2, nullptr}}, &error_));
  fit_.shape.samples = 1;
  fit_.labels.resize(fit_.shape.positions());
  ASSERT_TRUE(optimize_preloaded()) << error_;
  fit_.raw.resize(fit_.raw_size());
  EXPECT_TRUE(
      close_to(reference_joint_fit(fit_.problem(), fit_.start(), fit_.gauss_newton, fit_.conjugate_gradient),
               out_.joint(), kFewIterations));
}

TEST_F(JointOptimizer, ShowsSamplesUnderTheResultingProjection) {
  ASSERT_TRUE(fit_.ensure(optimizer_, &error_)) << error_;
  ASSERT_TRUE(optimize()) << error_;
  const Doubles expected = reference_projected(fit_.problem(), out_.joint());
  // The fit's own last projection was another one.
  EXPECT_FALSE(close_to(reference_projected(fit_.problem(), fit_.start()), narrow(expected), 1e-3));
  ostrel::host_cuda::reset_counters();
  atom::ProjectedFeatureView view;
  ASSERT_TRUE(optimizer_.get_projected_feature_device_view(&view, &error_)) << error_;
  EXPECT_EQ(ostrel::host_cuda::counters().synchronisations, 0);
  EXPECT_EQ(calls("cublasSgemmStridedBatched"), 1);
  EXPECT_EQ(view.samples, 2);
  EXPECT_EQ(view.channels, 3);
  EXPECT_EQ(view.height, 6);
  EXPECT_EQ(view.width, 6);
  ASSERT_NE(view.stream, nullptr);
  std::vector<float> shown(expected.size());
  require(cudaStreamSynchronize(view.stream));
  require(cudaMemcpy(shown.data(), view.data, shown.size() * sizeof(float), cudaMemcpyDeviceToHost));
  EXPECT_TRUE(close_to(expected, shown, kOneOperator));
  EXPECT_TRUE(close_to(expected, downloaded(), kOneOperator));
}

TEST_F(JointOptimizer, KeepsTheFittedProjectionThroughARightHandSide) {
  ASSERT_TRUE(fit_.ensure(optimizer_, &error_)) << error_;
  ASSERT_TRUE(optimize()) << error_;
  const Doubles fit_joint = out_.joint();
  JointFitCase other = JointFitCase::random({1, 3, 6, 6, 4, 4}, 4, 630);
  std::vector<float> rhs;
  ASSERT_TRUE(other.rhs(optimizer_, &rhs, &error_)) << error_;
  // Its samples, their count, and the fit's matrix.
  EXPECT_TRUE(close_to(reference_projected(other.problem(), fit_joint), downloaded(), kOneOperator));
}

TEST_F(JointOptimizer, OperatesWhereTheLastFitWasLinearized) {
  fit_.gauss_newton = 1;
  fit_.conjugate_gradient = 2;
  ASSERT_TRUE(fit_.ensure(optimizer_, &error_)) << error_;
  ASSERT_TRUE(optimize()) << error_;
  const JointProblem problem = fit_.problem();
  const Doubles direction = random_direction(fit_, 640);
  std::vector<float> out;
  ASSERT_TRUE(fit_.apply(optimizer_, narrow(filter_of(problem, direction)),
                         narrow(projection_of(problem, direction)), &out, &error_))
      << error_;
  // z and phi' stand from the start, the filter is the fitted one already.
  Doubles response_slopes = reference_response(problem, fit_.start());
  Doubles mixed = joined(filter_of(problem, out_.joint()), projection_of(problem, fit_.start()));
  JointProblem weightless = problem;
  weightless.sample_weight = 0.0;
  // sum over positions of w * phi'(start)^2 * row * row^T, with rows from (filter out, projection start).
  std::vector<Doubles> rows;
  for (std::size_t t = 0; t < response_slopes.size(); ++t) rows.emplace_back();
  Doubles expected = reference_joint_operator(weightless, mixed, direction);
  for (std::size_t i = 0; i < expected.size(); ++i) {
    Doubles unit(expected.size(), 0.0);
    unit[i] = 1.0;
    const Doubles column = reference_response_change(problem, mixed, unit);
    for (std::size_t t = 0; t < rows.size(); ++t) rows[t].push_back(column[t]);
  }
  for (std::size_t t = 0; t < rows.size(); ++t) {
    const double slope = reference_phi_gradient(response_slopes[t]);
    const double weighted = problem.sample_weight * slope * slope * reference_dot(rows[t], direction);
    for (std::size_t i = 0; i < expected.size(); ++i) expected[i] += weighted * rows[t][i];
  }
  EXPECT_TRUE(close_to(expected, out, kFewIterations));
}

TEST_F(JointOptimizer, OperatesOnTheSamplesAndTheWeightOfTheLastCall) {
  ASSERT_TRUE(fit_.ensure(optimizer_, &error_)) << error_;
  ASSERT_TRUE(optimize()) << error_;
  JointFitCase last = JointFitCase::random({1, 3, 6, 6, 4, 4}, 4, 650);
  last.sample_weight = 0.7F;
  const Doubles direction = random_direction(last, 651);
  EXPECT_TRUE(close_to(reference_joint_operator(last.problem(), last.start(), direction),
                       operated(last, direction), kOneOperator));
}

TEST_F(JointOptimizer, KeepsItsCountThroughALaterCallForMoreSamples) {
  JointFitCase one = JointFitCase::random({1, 3, 6, 6, 4, 4}, 4, 660);
  ASSERT_TRUE(fit_.ensure(optimizer_, &error_)) << error_;
  ASSERT_TRUE(optimize()) << error_;  // what lies beyond the one sample is not the same for both
  const Doubles direction = random_direction(one, 661);
  const JointProblem problem = one.problem();
  std::vector<float> out;
  ASSERT_TRUE(one.rhs(optimizer_, &out, &error_)) << error_;
  ASSERT_TRUE(fit_.ensure(optimizer_, &error_)) << error_;
  ASSERT_TRUE(one.apply(optimizer_, narrow(filter_of(problem, direction)),
                        narrow(projection_of(problem, direction)), &out, &error_))
      << error_;
  EXPECT_TRUE(close_to(reference_joint_operator(problem, one.start(), direction), out, kOneOperator));
  EXPECT_EQ(downloaded().size(), one.shape.features());
  atom::ProjectedFeatureView view;
  ASSERT_TRUE(optimizer_.get_projected_feature_device_view(&view, &error_)) << error_;
  EXPECT_EQ(view.samples, 1);
}

TEST_F(JointOptimizer, MovesWithItsState) {
  ASSERT_TRUE(fit_.ensure(optimizer_, &error_)) << error_;
  ASSERT_TRUE(optimize()) << error_;
  const auto before = downloaded();
  CudaJointOptimizer taken = std::move(optimizer_);
  std::vector<float> after;
  ASSERT_TRUE(taken.download_projected_features(&after, &error_)) << error_;
  EXPECT_TRUE(close_to(before, after, 1e-6));
}

}  // namespace
}  // namespace ostrel_test
