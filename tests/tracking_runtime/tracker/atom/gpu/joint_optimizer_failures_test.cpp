// How the optimiser names each failed call, and what a failure leaves behind.

#include <cublas_v2.h>

#include "joint_optimizer_fixture.h"

namespace ostrel_test {
namespace {

using atom::CudaJointOptimizer;
namespace host = ostrel::host_cuda;

std::string cuda_text(const std::string& label) {
  return label + ": " + cudaGetErrorString(cudaErrorUnknown);
}

class JointOptimizerFailures : public JointOptimizerTest {
 protected:
  std::vector<float> values_;

  void SetUp() override {
    fit_.gauss_newton = 1;
    fit_.conjugate_gradient = 2;
    ASSERT_TRUE(fit_.ensure(optimizer_, &error_)) << error_;
  }

  bool rhs(const JointFitCase& fit) { return fit.rhs(optimizer_, &values_, &error_); }
  bool apply() { return fit_.apply(optimizer_, fit_.filter, fit_.projection, &values_, &error_); }
  bool download() { return optimizer_.download_projected_features(&values_, &error_); }

  /// Expects that the operation fails with the text after the n-th next call of the name has failed, leaves no
  /// event behind, and works again afterwards.
  template <typename Operation>
  void expect_named(const char* call, int n, int status, const std::string& text, Operation&& operation) {
    SCOPED_TRACE(std::string(call) + " " + std::to_string(n));
    const auto live = host::counters().live_events;
    host::fail_call(call, n, status);
    error_.clear();
    EXPECT_FALSE(operation());
    EXPECT_EQ(error_, text);
    EXPECT_EQ(host::counters().live_events, live);
    EXPECT_EQ(cudaGetLastError(), cudaSuccess);
    host::clear_faults();
    error_.clear();
    EXPECT_TRUE(operation()) << error_;
  }
  template <typename Operation>
  void expect_named(const char* call, int n, const std::string& label, Operation&& operation) {
    expect_named(call, n, cudaErrorUnknown, cuda_text(label), operation);
  }
  /// What a right-hand side and the normal operator have in common.
  template <typename Operation>
  void expect_named_gradient(Operation&& operation) {
    for (const char* kernel : {"set_scaled_vector_kernel", "accumulate_filter_gradient_kernel",
                               "backprop_to_projected_feature_fixed_filter_kernel<4,4>",
                               "reduce_batched_projection_gradient_kernel"}) {
      expect_named(kernel, 1, kernel, operation);
    }
    expect_named("set_scaled_vector_kernel", 2, "set_scaled_vector_kernel", operation);
    int n = 0;
    for (const char* product : {"project_features", "projection_gradient"}) {
      expect_named("cublasSgemmStridedBatched", ++n, CUBLAS_STATUS_EXECUTION_FAILED,
                   std::string("cublasSgemmStridedBatched ") + product + ": CUBLAS_STATUS_EXECUTION_FAILED",
                   operation);
    }
  }
};

TEST_F(JointOptimizerFailures, NamesEachFailedAllocationFreesItsGroupAndRecovers) {
  struct Row {
    const char* buffer;
    int kept;  // buffers that stay: those before the group
  };
  const Row rows[] = {{"raw_features", 0},
                      {"labels", 1},
                      {"filter_current", 2},
                      {"filter_work", 2},
                      {"filter_delta", 2},
                      {"r_filter", 2},
                      {"r_prev_filter", 2},
                      {"grad_filter", 2},
                      {"projection_current", 8},
                      {"projection_work", 8},
                      {"projection_delta", 8},
                      {"r_projection", 8},
                      {"r_prev_projection", 8},
                      {"grad_projection", 8},
                      {"projected_cached", 14},
                      {"projected_work", 14},
                      {"response", 16},
                      {"response_aux", 16},
                      {"activation_grad", 16},
                      {"weighted_response", 16},
                      {"projection_grad_batch", 20},
                      {"channel_scales", 21},
                      {"scalar", 22}};
  int n = 0;
  for (const Row& row : rows) {
    ++n;
    CudaJointOptimizer fresh;
    const auto before = host::counters().live_device_allocations;
    host::fail_call("cudaMalloc", n, cudaErrorMemoryAllocation);
    EXPECT_FALSE(fit_.ensure(fresh, &error_));
    EXPECT_EQ(error_,
              std::string("cudaMalloc ") + row.buffer + ": " + cudaGetErrorString(cudaErrorMemoryAllocation));
    EXPECT_EQ(host::counters().live_device_allocations - before, row.kept) << row.buffer;
    ASSERT_TRUE(fit_.ensure(fresh, &error_)) << error_;
    EXPECT_TRUE(optimize(fit_, fresh, &out_)) << error_;
  }
}

TEST_F(JointOptimizerFailures, NamesFailuresOfItsStreamAndHandle) {
  CudaJointOptimizer fresh;
  host::fail_call("cudaStreamCreateWithFlags", 1, cudaErrorUnknown);
  EXPECT_FALSE(fit_.ensure(fresh, &error_));
  EXPECT_EQ(error_, cuda_text("cudaStreamCreate joint optimizer"));
  host::fail_call("cublasCreate", 1, CUBLAS_STATUS_NOT_INITIALIZED);
  EXPECT_FALSE(fit_.ensure(fresh, &error_));
  EXPECT_EQ(error_, "cublasCreate joint optimizer: CUBLAS_STATUS_NOT_INITIALIZED");
  host::fail_call("cublasSetStream", 1, CUBLAS_STATUS_INTERNAL_ERROR);
  EXPECT_FALSE(fit_.ensure(fresh, &error_));
  EXPECT_EQ(error_, "cublasSetStream joint optimizer: CUBLAS_STATUS_INTERNAL_ERROR");
  EXPECT_TRUE(fit_.ensure(fresh, &error_)) << error_;
  EXPECT_TRUE(optimize(fit_, fresh, &out_)) << error_;
}

TEST_F(JointOptimizerFailures, NamesFailuresOfAPreload) {
  TestStream producer;
  const DeviceArray<float> device(fit_.raw);
  const auto from_device = [&] {
    return optimizer_.preload_raw_feature_spans({{nullptr, device.get(), 0, 2, producer.get()}}, &error_);
  };
  expect_named("cudaEventCreateWithFlags", 1, "cudaEventCreateWithFlags preload_raw_features", from_device);
  expect_named("cudaEventRecord", 1, "cudaEventRecord preload_raw_features", from_device);
  expect_named("cudaStreamWaitEvent", 1, "cudaStreamWaitEvent preload_raw_features", from_device);
  expect_named("cudaMemcpyAsync", 1, "cudaMemcpyAsync preload_raw_features device", from_device);
  expect_named("cudaMemcpyAsync", 1, "cudaMemcpyAsync preload_raw_features host", [&] {
    return optimizer_.preload_raw_feature_spans({{fit_.raw.data(), nullptr, 0, 2, nullptr}}, &error_);
  });
}

TEST_F(JointOptimizerFailures, NamesFailuresOfScaledCopies) {
  const auto copy = [&] {
    return optimizer_.materialize_scaled_sample_copies(0, 1, 1, {1.0F, 2.0F, 3.0F, 4.0F}, &error_);
  };
  expect_named("cudaMemcpyAsync", 1, "cudaMemcpyAsync materialize_scaled_sample_copies scales", copy);
  expect_named("materialize_scaled_sample_copies_kernel", 1, "materialize_scaled_sample_copies_kernel", copy);
}

/// The labels of the stages of one Gauss-Newton step of two iterations, in order.
std::vector<std::string> stage_labels() {
  std::vector<std::string> labels = {"upload inputs",  "rhs project",     "rhs classify", "rhs residual",
                                     "rhs regularize", "rhs filter_grad", "rhs backprop", "rhs proj_grad"};
  for (const char* direction : {"cg init_search_dir", "cg beta"}) {
    for (const char* label : {"cg rho", direction, "cg regularize", "cg project", "cg classify", "cg jtj",
                              "cg filter_grad", "cg backprop", "cg proj_grad", "cg pq", "cg update"}) {
      labels.emplace_back(label);
    }
  }
  labels.emplace_back("gn apply");
  labels.emplace_back("download");
  for (std::string& label : labels) label = "joint_opt " + label;
  return labels;
}

TEST_F(JointOptimizerFailures, NamesTheStageOfEachFailedEvent) {
  int stage = 0;
  for (const std::string& label : stage_labels()) {
    for (const int of_stage : {1, 2}) {
      expect_named("cudaEventCreate", 2 * stage + of_stage, label, [this] { return optimize(); });
      expect_named("cudaEventRecord", 2 * stage + of_stage, label, [this] { return optimize(); });
    }
    ++stage;
  }
  // There are no more.
  host::fail_call("cudaEventCreate", 2 * stage + 1, cudaErrorUnknown);
  EXPECT_TRUE(optimize()) << error_;
}

TEST_F(JointOptimizerFailures, NamesEachCopyAndEachClearedArrayOfAFit) {
  const auto fit = [this] { return optimize(); };
  const char* const copies[] = {"preload_raw_features host", "labels optimize",
                                "filter_current optimize",   "projection_current optimize",
                                "p_filter optimize",         "p_projection optimize",
                                "r_prev_filter optimize",    "r_prev_projection optimize",
                                "r_prev_filter optimize",    "r_prev_projection optimize",
                                "optimized_filter",          "optimized_projection"};
  int n = 0;
  for (const char* copy : copies) {
    expect_named("cudaMemcpyAsync", ++n, std::string("cudaMemcpyAsync ") + copy, fit);
  }
  const char* const cleared[] = {"filter_delta",       "projection_delta",    "scalar rho optimize",
                                 "scalar pq optimize", "scalar rho optimize", "scalar rho2 optimize",
                                 "scalar pq optimize"};
  n = 0;
  for (const char* array : cleared) {
    expect_named("cudaMemsetAsync", ++n, std::string("cudaMemsetAsync ") + array, fit);
  }
  expect_named("cudaStreamSynchronize", 1, "cudaStreamSynchronize optimize", fit);
}

TEST_F(JointOptimizerFailures, NamesEachLaunchOfAFit) {
  struct Row {
    const char* kernel;
    int launches;
  };
  for (const Row& row :
       {Row{"classify_samples_fixed_filter_kernel<4,4>", 1}, Row{"compute_weighted_residual_grad_kernel", 1},
        Row{"set_scaled_vector_kernel", 6}, Row{"accumulate_filter_gradient_kernel", 3},
        Row{"backprop_to_projected_feature_fixed_filter_kernel<4,4>", 3},
        Row{"reduce_batched_projection_gradient_kernel", 3}, Row{"dot_product_kernel", 10},
        Row{"combine_with_beta_from_scalars_kernel", 2},
        Row{"classify_sample_pair_fixed_filter_kernel<4,4>", 2},
        Row{"compute_weighted_jtj_response_kernel", 2}, Row{"update_x_r_from_scalars_kernel", 4},
        Row{"store_scalar_kernel", 2}, Row{"add_in_place_kernel", 2}}) {
    for (int n = 1; n <= row.launches; ++n) {
      expect_named(row.kernel, n, row.kernel, [this] { return optimize(); });
    }
    // There are no more.
    host::fail_call(row.kernel, row.launches + 1, cudaErrorUnknown);
    EXPECT_TRUE(optimize()) << error_;
    host::clear_faults();
  }
}

TEST_F(JointOptimizerFailures, NamesEachProductOfAFit) {
  const char* const project = "cublasSgemmStridedBatched project_features: CUBLAS_STATUS_EXECUTION_FAILED";
  const char* const gradient =
      "cublasSgemmStridedBatched projection_gradient: CUBLAS_STATUS_EXECUTION_FAILED";
  int n = 0;
  for (const char* text : {project, gradient, project, gradient, project, gradient}) {
    expect_named("cublasSgemmStridedBatched", ++n, CUBLAS_STATUS_EXECUTION_FAILED, text,
                 [this] { return optimize(); });
  }
}

TEST_F(JointOptimizerFailures, NamesFailuresOfARightHandSide) {
  const auto operation = [this] { return rhs(fit_); };
  int n = 0;
  for (const char* input : {"raw_features rhs", "labels rhs", "filter_current rhs", "projection_work rhs"}) {
    expect_named("cudaMemcpyAsync", ++n, std::string("cudaMemcpyAsync ") + input, operation);
  }
  for (const char* kernel :
       {"classify_samples_fixed_filter_kernel<4,4>", "compute_weighted_residual_grad_kernel"}) {
    expect_named(kernel, 1, kernel, operation);
  }
  expect_named_gradient(operation);
  expect_named("cudaStreamSynchronize", 1, "cudaStreamSynchronize rhs", operation);
  expect_named("cudaMemcpy", 1, "cudaMemcpy grad_filter", operation);
  expect_named("cudaMemcpy", 2, "cudaMemcpy grad_projection", operation);
}

TEST_F(JointOptimizerFailures, NamesFailuresOfTheNormalOperator) {
  ASSERT_TRUE(rhs(fit_)) << error_;
  const auto operation = [this] { return apply(); };
  expect_named("cudaMemcpyAsync", 1, "cudaMemcpyAsync direction_filter", operation);
  expect_named("cudaMemcpyAsync", 2, "cudaMemcpyAsync direction_projection", operation);
  for (const char* kernel :
       {"classify_sample_pair_fixed_filter_kernel<4,4>", "compute_weighted_jtj_response_kernel"}) {
    expect_named(kernel, 1, kernel, operation);
  }
  expect_named_gradient(operation);
  expect_named("cudaStreamSynchronize", 1, "cudaStreamSynchronize apply", operation);
  expect_named("cudaMemcpy", 1, "cudaMemcpy out_filter", operation);
  expect_named("cudaMemcpy", 2, "cudaMemcpy out_projection", operation);
}

TEST_F(JointOptimizerFailures, NamesFailuresOfShowingProjections) {
  ASSERT_TRUE(optimize()) << error_;
  const auto operation = [this] { return download(); };
  expect_named("cublasSgemmStridedBatched", 1, CUBLAS_STATUS_MAPPING_ERROR,
               "cublasSgemmStridedBatched project_features: CUBLAS_STATUS_MAPPING_ERROR", operation);
  expect_named("cudaMemcpyAsync", 1, "cudaMemcpyAsync projected_features", operation);
  expect_named("cudaStreamSynchronize", 1, "cudaStreamSynchronize projected_features", operation);
  atom::ProjectedFeatureView view;
  expect_named("cublasSgemmStridedBatched", 1, CUBLAS_STATUS_ALLOC_FAILED,
               "cublasSgemmStridedBatched project_features: CUBLAS_STATUS_ALLOC_FAILED",
               [&] { return optimizer_.get_projected_feature_device_view(&view, &error_); });
}

TEST_F(JointOptimizerFailures, IsNotReadyAfterAFirstFitThatFailed) {
  host::fail_call("classify_sample_pair_fixed_filter_kernel<4,4>", 1, cudaErrorUnknown);
  EXPECT_FALSE(optimize());
  EXPECT_EQ(log_, "");
  EXPECT_FALSE(download());
  EXPECT_EQ(error_, kNotProjected);
  EXPECT_FALSE(apply());
  EXPECT_EQ(error_, kNotReady);
  host::fail_call("cudaMemcpy", 2, cudaErrorUnknown);
  EXPECT_FALSE(rhs(fit_));
  EXPECT_FALSE(apply());
  EXPECT_EQ(error_, kNotReady);
}

TEST_F(JointOptimizerFailures, StaysReadyWithTheLastCountAfterALaterFitThatFailed) {
  ASSERT_TRUE(optimize()) << error_;
  JointFitCase smaller = JointFitCase::random({1, 3, 6, 6, 4, 4}, 4, 720);
  host::fail_call("classify_sample_pair_fixed_filter_kernel<4,4>", 1, cudaErrorUnknown);
  EXPECT_FALSE(optimize(smaller, optimizer_, &out_));
  ASSERT_TRUE(download()) << error_;
  EXPECT_EQ(values_.size(), fit_.shape.features());
  EXPECT_TRUE(apply()) << error_;
}

}  // namespace
}  // namespace ostrel_test
