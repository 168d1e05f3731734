// What the optimiser refuses before it calls anything.

#include <functional>

#include "joint_optimizer_fixture.h"

namespace ostrel_test {
namespace {

using atom::CudaJointOptimizer;
namespace host = ostrel::host_cuda;

const char* const kBadDimensions = "invalid CUDA joint optimizer dimensions";
const char* const kBadOptimize = "invalid CUDA joint optimizer optimize request";
const char* const kBadOptimizeSizes = "CUDA joint optimizer optimize sizes do not match requested dimensions";
const char* const kBadPreloaded = "invalid CUDA joint optimizer preloaded optimize request";
const char* const kBadPreloadedSizes =
    "CUDA joint optimizer preloaded optimize sizes do not match requested dimensions";
const char* const kBadRhs = "invalid CUDA joint optimizer rhs request";
const char* const kBadRhsSizes = "CUDA joint optimizer rhs sizes do not match requested dimensions";
const char* const kBadDirection = "CUDA joint optimizer direction sizes do not match current dimensions";

class JointOptimizerRefusals : public JointOptimizerTest {
 protected:
  std::vector<float> values_;

  void SetUp() override { ASSERT_TRUE(fit_.ensure(optimizer_, &error_)) << error_; }

  bool rhs(const JointFitCase& fit) { return fit.rhs(optimizer_, &values_, &error_); }
  bool apply() { return fit_.apply(optimizer_, fit_.filter, fit_.projection, &values_, &error_); }
  bool download() { return optimizer_.download_projected_features(&values_, &error_); }
};

TEST_F(JointOptimizerRefusals, RefusesSizesBelowOne) {
  for (std::size_t spoiled = 0; spoiled < 7; ++spoiled) {
    for (const int value : {0, -2}) {
      int s[] = {2, 4, 3, 6, 6, 4, 4};
      s[spoiled] = value;
      EXPECT_FALSE(optimizer_.ensure_capacity(s[0], s[1], s[2], s[3], s[4], s[5], s[6], &error_));
      EXPECT_EQ(std::exchange(error_, ""), kBadDimensions);
    }
  }
  EXPECT_FALSE(optimizer_.ensure_capacity(0, 1, 1, 1, 1, 1, 1, nullptr));
  // The refused sizes are not stored.
  EXPECT_TRUE(optimize()) << error_;
}

TEST_F(JointOptimizerRefusals, RefusesMissingArgumentsAndNoSamples) {
  EXPECT_FALSE(fit_.optimize(optimizer_, nullptr, &out_.projection, &error_));
  EXPECT_EQ(std::exchange(error_, ""), kBadOptimize);
  EXPECT_FALSE(fit_.optimize(optimizer_, &out_.filter, nullptr, &error_));
  EXPECT_EQ(std::exchange(error_, ""), kBadOptimize);
  EXPECT_FALSE(fit_.optimize_preloaded(optimizer_, nullptr, &out_.projection, &error_));
  EXPECT_EQ(std::exchange(error_, ""), kBadPreloaded);
  EXPECT_FALSE(fit_.optimize_preloaded(optimizer_, &out_.filter, nullptr, &error_));
  EXPECT_EQ(std::exchange(error_, ""), kBadPreloaded);
  EXPECT_FALSE(fit_.rhs(optimizer_, nullptr, &error_));
  EXPECT_EQ(std::exchange(error_, ""), kBadRhs);
  fit_.shape.samples = 0;
  EXPECT_FALSE(optimize());
  EXPECT_EQ(std::exchange(error_, ""), kBadOptimize);
  EXPECT_FALSE(optimize_preloaded());
  EXPECT_EQ(std::exchange(error_, ""), kBadPreloaded);
  EXPECT_FALSE(rhs(fit_));
  EXPECT_EQ(error_, kBadRhs);
}

TEST_F(JointOptimizerRefusals, RefusesArraysOfOtherLengths) {
  struct Row {
    const char* reason;
    std::function<void(JointFitCase&)> spoil;
    bool preloaded_too;
  };
  for (const Row& row :
       {Row{"a feature too few", [](JointFitCase& f) { f.raw.pop_back(); }, false},
        Row{"a feature too many", [](JointFitCase& f) { f.raw.push_back(0.0F); }, false},
        Row{"a label too few", [](JointFitCase& f) { f.labels.pop_back(); }, true},
        Row{"a label too many", [](JointFitCase& f) { f.labels.push_back(0.0F); }, true},
        Row{"a tap too few", [](JointFitCase& f) { f.filter.pop_back(); }, true},
        Row{"a tap too many", [](JointFitCase& f) { f.filter.push_back(0.0F); }, true},
        Row{"a projection weight too few", [](JointFitCase& f) { f.projection.pop_back(); }, true},
        Row{"a projection weight too many", [](JointFitCase& f) { f.projection.push_back(0.0F); }, true},
        Row{"arrays of another count", [](JointFitCase& f) { f.shape.samples = 3; }, true}}) {
    SCOPED_TRACE(row.reason);
    JointFitCase bad = fit_;
    row.spoil(bad);
    host::reset_counters();
    EXPECT_FALSE(bad.optimize(optimizer_, &out_.filter, &out_.projection, &error_));
    EXPECT_EQ(std::exchange(error_, ""), kBadOptimizeSizes);
    EXPECT_FALSE(rhs(bad));
    EXPECT_EQ(std::exchange(error_, ""), kBadRhsSizes);
    if (row.preloaded_too) {
      EXPECT_FALSE(bad.optimize_preloaded(optimizer_, &out_.filter, &out_.projection, &error_));
      EXPECT_EQ(std::exchange(error_, ""), kBadPreloadedSizes);
    }
    EXPECT_FALSE(bad.optimize(optimizer_, &out_.filter, &out_.projection, nullptr));
    EXPECT_EQ(calls("cudaMemcpyAsync"), 0);
    EXPECT_TRUE(out_.filter.empty() && out_.projection.empty() && values_.empty());
  }
}

TEST_F(JointOptimizerRefusals, RefusesToFitBeforeItHasSizes) {
  CudaJointOptimizer fresh;
  EXPECT_FALSE(optimize(fit_, fresh, &out_));
  EXPECT_EQ(std::exchange(error_, ""), kBadOptimizeSizes);
  EXPECT_FALSE(fit_.rhs(fresh, &values_, &error_));
  EXPECT_EQ(std::exchange(error_, ""), kBadRhsSizes);
  // Without sizes the empty arrays have the right lengths.
  fit_.raw = fit_.labels = fit_.filter = fit_.projection = {};
  EXPECT_FALSE(optimize(fit_, fresh, &out_));
  EXPECT_EQ(error_, kBadDimensions);
}

TEST_F(JointOptimizerRefusals, RefusesToOperateBeforeTheFirstResult) {
  EXPECT_FALSE(apply());
  EXPECT_EQ(std::exchange(error_, ""), kNotReady);
  ASSERT_TRUE(rhs(fit_)) << error_;
  EXPECT_FALSE(fit_.apply(optimizer_, fit_.filter, fit_.projection, nullptr, &error_));
  EXPECT_EQ(std::exchange(error_, ""), kNotReady);
  for (const int difference : {-1, 1}) {
    std::vector<float> filter = fit_.filter, projection = fit_.projection;
    filter.resize(filter.size() + static_cast<std::size_t>(difference));
    EXPECT_FALSE(fit_.apply(optimizer_, filter, projection, &values_, &error_));
    EXPECT_EQ(std::exchange(error_, ""), kBadDirection);
    projection.resize(projection.size() + static_cast<std::size_t>(difference));
    EXPECT_FALSE(fit_.apply(optimizer_, fit_.filter, projection, &values_, &error_));
    EXPECT_EQ(std::exchange(error_, ""), kBadDirection);
  }
  EXPECT_TRUE(apply()) << error_;
}

TEST_F(JointOptimizerRefusals, RefusesToShowProjectionsBeforeTheFirstResult) {
  atom::ProjectedFeatureView view;
  EXPECT_FALSE(optimizer_.get_projected_feature_device_view(&view, &error_));
  EXPECT_EQ(std::exchange(error_, ""), kNotProjected);
  EXPECT_EQ(view.data, nullptr);
  EXPECT_FALSE(download());
  EXPECT_EQ(std::exchange(error_, ""), kNotProjected);
  ASSERT_TRUE(optimize()) << error_;
  EXPECT_TRUE(optimizer_.get_projected_feature_device_view(&view, &error_)) << error_;
  EXPECT_FALSE(optimizer_.get_projected_feature_device_view(nullptr, &error_));
  EXPECT_EQ(std::exchange(error_, ""), kNotProjected);
  EXPECT_FALSE(optimizer_.download_projected_features(nullptr, &error_));
  EXPECT_EQ(error_, kNotProjected);
}

TEST_F(JointOptimizerRefusals, RefusesAResultThatItsBuffersNoLongerHold) {
  ASSERT_TRUE(optimize()) << error_;  // two samples
  fit_.shape.samples = 1;
  fit_.shape.height = fit_.shape.width = 7;  // one of them fits the memory, two do not
  ASSERT_TRUE(fit_.ensure(optimizer_, &error_)) << error_;
  EXPECT_FALSE(download());
  EXPECT_EQ(std::exchange(error_, ""), kNotProjected);
  EXPECT_FALSE(apply());
  EXPECT_EQ(std::exchange(error_, ""), kNotReady);
}

TEST_F(JointOptimizerRefusals, RefusesToOperateOnBuffersThatAFailedGrowthTook) {
  ASSERT_TRUE(optimize()) << error_;
  JointFitCase larger = fit_;
  larger.shape.samples = 3;
  host::fail_call("cudaMalloc", 5, cudaErrorUnknown);  // raw_features, labels, z twice, response
  ASSERT_FALSE(larger.ensure(optimizer_, &error_));
  ASSERT_EQ(error_.find("cudaMalloc response: "), 0U) << error_;
  EXPECT_FALSE(apply());
  EXPECT_EQ(std::exchange(error_, ""), kNotReady);
  // The next fit makes them again.
  ASSERT_TRUE(optimize()) << error_;
  EXPECT_TRUE(apply()) << error_;
}

TEST_F(JointOptimizerRefusals, MovedFromRefusesEverything) {
  ASSERT_TRUE(optimize()) << error_;
  const CudaJointOptimizer taken = std::move(optimizer_);
  EXPECT_FALSE(fit_.ensure(optimizer_, &error_));
  EXPECT_EQ(std::exchange(error_, ""), kBadDimensions);
  EXPECT_FALSE(optimizer_.preload_raw_feature_spans({{fit_.raw.data(), nullptr, 0, 1, nullptr}}, &error_));
  EXPECT_EQ(std::exchange(error_, ""), "invalid CUDA joint optimizer raw feature preload request");
  EXPECT_FALSE(optimizer_.materialize_scaled_sample_copies(0, 1, 1, {1, 1, 1, 1}, &error_));
  EXPECT_EQ(std::exchange(error_, ""), "invalid CUDA joint optimizer scaled sample materialization request");
  EXPECT_FALSE(optimize());
  EXPECT_EQ(std::exchange(error_, ""), kBadOptimize);
  EXPECT_FALSE(optimize_preloaded());
  EXPECT_EQ(std::exchange(error_, ""), kBadPreloaded);
  EXPECT_FALSE(rhs(fit_));
  EXPECT_EQ(std::exchange(error_, ""), kBadRhs);
  EXPECT_FALSE(apply());
  EXPECT_EQ(std::exchange(error_, ""), kNotReady);
  EXPECT_FALSE(download());
  EXPECT_EQ(error_, kNotProjected);
}

}  // namespace
}  // namespace ostrel_test
