// What a fit puts on its stream, and what it asks of the runtime beside it.

#include "joint_optimizer_fixture.h"

namespace ostrel_test {
namespace {

namespace host = ostrel::host_cuda;
using Names = std::vector<std::string>;

const char* const kClassify = "classify_samples_fixed_filter_kernel<4,4>";
const char* const kPair = "classify_sample_pair_fixed_filter_kernel<4,4>";
const char* const kBackprop = "backprop_to_projected_feature_fixed_filter_kernel<4,4>";

void append(Names* names, const Names& more) {
  names->insert(names->end(), more.begin(), more.end());
}

/// The work of a stage between its events.
Names stage(const Names& work) {
  Names names = {"cudaEventCreate", "cudaEventCreate", "cudaEventRecord"};
  append(&names, work);
  append(&names, {"cudaEventRecord"});
  return names;
}

Names stages(const std::vector<Names>& all) {
  Names names;
  for (const Names& work : all) append(&names, stage(work));
  return names;
}

/// One conjugate gradient iteration, first (phase 9 copies) or later (phase 9 turns).
Names iteration(bool first) {
  const Names dot = {"cudaMemsetAsync", "dot_product_kernel", "dot_product_kernel"};
  Names beta = {"cudaMemcpyAsync", "cudaMemcpyAsync"};
  if (!first) {
    beta = dot;
    append(&beta, {"combine_with_beta_from_scalars_kernel", "combine_with_beta_from_scalars_kernel"});
  }
  return stages({dot,
                 beta,
                 {"set_scaled_vector_kernel", "set_scaled_vector_kernel"},
                 {"cublasSgemmStridedBatched"},
                 {kPair},
                 {"compute_weighted_jtj_response_kernel"},
                 {"accumulate_filter_gradient_kernel"},
                 {kBackprop},
                 {"cublasSgemmStridedBatched", "reduce_batched_projection_gradient_kernel"},
                 dot,
                 {"cudaMemcpyAsync", "cudaMemcpyAsync", "update_x_r_from_scalars_kernel",
                  "update_x_r_from_scalars_kernel", "store_scalar_kernel"}});
}

Names gauss_newton_step(int iterations) {
  Names names = {"cudaMemsetAsync", "cudaMemsetAsync"};
  append(&names, stages({{"cublasSgemmStridedBatched"},
                         {kClassify},
                         {"compute_weighted_residual_grad_kernel"},
                         {"set_scaled_vector_kernel", "set_scaled_vector_kernel"},
                         {"accumulate_filter_gradient_kernel"},
                         {kBackprop},
                         {"cublasSgemmStridedBatched", "reduce_batched_projection_gradient_kernel"}}));
  for (int k = 0; k < iterations; ++k) append(&names, iteration(k == 0));
  append(&names, stage({"add_in_place_kernel", "add_in_place_kernel"}));
  return names;
}

class JointOptimizerQueue : public JointOptimizerTest {
 protected:
  void SetUp() override { ASSERT_TRUE(fit_.ensure(optimizer_, &error_)) << error_; }

  /// Calls and launches of an operation in order, without the questions after a launch.
  template <typename Operation>
  static Names traced(Operation&& operation) {
    host::start_trace();
    operation();
    Names names;
    for (const std::string& name : host::stop_trace()) {
      if (name != "cudaGetLastError") names.push_back(name);
    }
    return names;
  }
};

TEST_F(JointOptimizerQueue, KeepsTheOrderOfItsStages) {
  fit_.gauss_newton = 2;
  fit_.conjugate_gradient = 2;
  Names expected = {"cublasSetStream", "cudaMemcpyAsync", "cublasSetStream"};
  append(&expected, stage({"cudaMemcpyAsync", "cudaMemcpyAsync", "cudaMemcpyAsync"}));
  append(&expected, gauss_newton_step(2));
  append(&expected, gauss_newton_step(2));
  append(&expected, stage({"cudaMemcpyAsync", "cudaMemcpyAsync"}));
  append(&expected, {"cudaStreamSynchronize"});
  const std::size_t ranges = 1 + 2 * (7 + 2 * 11 + 1) + 1;
  append(&expected, Names(ranges, "cudaEventElapsedTime"));
  append(&expected, Names(2 * ranges, "cudaEventDestroy"));
  EXPECT_EQ(traced([this] { ASSERT_TRUE(optimize()) << error_; }), expected);
}

TEST_F(JointOptimizerQueue, NeverTurnsItsDirectionInASingleIteration) {
  fit_.gauss_newton = fit_.conjugate_gradient = 1;
  host::reset_counters();
  ASSERT_TRUE(optimize()) << error_;
  EXPECT_EQ(launches("combine_with_beta_from_scalars_kernel"), 0);
  EXPECT_EQ(launches("dot_product_kernel"), 4);  // rho and pq, two halves each
  EXPECT_EQ(calls("cudaEventElapsedTime"), 21);  // one range of each phase, the copy of r among them
  EXPECT_EQ(calls("cudaEventCreate"), 2 * 21);
}

TEST_F(JointOptimizerQueue, TakesTheGeneralKernelsForOtherFilters) {
  fit_ = JointFitCase::random({2, 3, 6, 6, 3, 4}, 4, 710);
  ASSERT_TRUE(fit_.ensure(optimizer_, &error_)) << error_;
  host::reset_counters();
  ASSERT_TRUE(optimize()) << error_;
  EXPECT_EQ(launches("classify_samples_kernel"), fit_.gauss_newton);
  EXPECT_EQ(launches("classify_sample_pair_kernel"), fit_.gauss_newton * fit_.conjugate_gradient);
  EXPECT_EQ(launches("backprop_to_projected_feature_kernel"),
            fit_.gauss_newton * (fit_.conjugate_gradient + 1));
  EXPECT_EQ(launches(kClassify) + launches(kPair) + launches(kBackprop), 0);
}

TEST_F(JointOptimizerQueue, WaitsOnceAndReadsNothingBackBeforeTheEnd) {
  host::reset_counters();
  ASSERT_TRUE(optimize()) << error_;
  EXPECT_EQ(host::counters().synchronisations, 1);
  EXPECT_EQ(host::counters().blocking_copies, 2);  // the two results, into pageable memory
  EXPECT_EQ(host::counters().null_stream_work, 0);
  EXPECT_EQ(calls("cudaMemcpy"), 0);
}

TEST_F(JointOptimizerQueue, AllocatesNothingInARepeatedFit) {
  ASSERT_TRUE(optimize()) << error_;
  const auto live = host::counters().live_events;
  host::reset_counters();
  ASSERT_TRUE(optimize()) << error_;
  EXPECT_EQ(calls("cudaMalloc") + calls("cudaFree") + calls("cudaStreamCreateWithFlags"), 0);
  EXPECT_EQ(host::counters().live_events, live);
}

TEST_F(JointOptimizerQueue, KeepsTheOrderOfARightHandSide) {
  std::vector<float> out;
  Names expected = {"cublasSetStream"};
  append(&expected, Names(4, "cudaMemcpyAsync"));
  append(&expected,
         {"cublasSgemmStridedBatched", kClassify, "compute_weighted_residual_grad_kernel",
          "set_scaled_vector_kernel", "set_scaled_vector_kernel", "accumulate_filter_gradient_kernel",
          kBackprop, "cublasSgemmStridedBatched", "reduce_batched_projection_gradient_kernel",
          "cudaStreamSynchronize", "cudaMemcpy", "cudaMemcpy"});
  EXPECT_EQ(traced([&] { ASSERT_TRUE(fit_.rhs(optimizer_, &out, &error_)) << error_; }), expected);
}

TEST_F(JointOptimizerQueue, KeepsTheOrderOfTheNormalOperator) {
  std::vector<float> out;
  ASSERT_TRUE(fit_.rhs(optimizer_, &out, &error_)) << error_;
  const Names expected = {"cudaMemcpyAsync",
                          "cudaMemcpyAsync",
                          "cublasSgemmStridedBatched",
                          kPair,
                          "compute_weighted_jtj_response_kernel",
                          "set_scaled_vector_kernel",
                          "set_scaled_vector_kernel",
                          "accumulate_filter_gradient_kernel",
                          kBackprop,
                          "cublasSgemmStridedBatched",
                          "reduce_batched_projection_gradient_kernel",
                          "cudaStreamSynchronize",
                          "cudaMemcpy",
                          "cudaMemcpy"};
  EXPECT_EQ(traced([&] {
              ASSERT_TRUE(fit_.apply(optimizer_, fit_.filter, fit_.projection, &out, &error_)) << error_;
            }),
            expected);
}

TEST_F(JointOptimizerQueue, WritesTwoLinesOfTimingsPerFit) {
  fit_.gauss_newton = 3;
  fit_.conjugate_gradient = 2;
  ASSERT_TRUE(optimize()) << error_;
  EXPECT_EQ(log_.find("[CudaJointOptimizer] timing summary: samples=2 gn=3 cg=2 total="), 0U) << log_;
  const std::size_t second = log_.find('\n') + 1;
  EXPECT_EQ(log_.find("[CudaJointOptimizer] timing phases: rhs_project="), second) << log_;
  EXPECT_EQ(log_.find('\n', second), log_.size() - 1) << log_;
}

}  // namespace
}  // namespace ostrel_test
