// The joint fit through host memory.

#include <chrono>
#include <future>
#include <mutex>

#include "support/heap_counter.h"
#include "tracking_runtime/tracker/atom/direct_start_fixture.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_joint_optimizer_impl.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace init_test {
namespace {

using ::testing::Contains;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

std::vector<float> random_values(std::size_t count, unsigned seed) {
  std::mt19937 generator(seed);
  std::uniform_real_distribution<float> draw(-1.0F, 1.0F);
  std::vector<float> values(count);
  for (float& value : values) value = draw(generator);
  return values;
}

/// Four raw samples of 6 channels and 5 x 4 cells, with labels; the weights project them to 3 channels.
class HostFit : public DirectStart {
 protected:
  static constexpr int kRaw = 6, kProjected = 3, kHeight = 5, kWidth = 4, kSamples = 4;
  static constexpr std::size_t kPositions = kHeight * kWidth;

  HostFit() {
    for (unsigned i = 0; i < kSamples; ++i) {
      raw.push_back({1, kRaw, kHeight, kWidth, random_values(kRaw * kPositions, i)});
      labels.push_back({1, kHeight, kWidth, random_values(kPositions, 100 + i)});
    }
    config.filter_regularization = 0.5F;
    config.projection_regularization = 0.25F;
  }

  void SetUp() override {
    ClassifierState& state = weights();
    state.projection_matrix = random_values(kRaw * kProjected, 50);
    state.proj_in_channels = kRaw;
    state.proj_out_channels = kProjected;
    state.projection_version = 4;
    state.filter_weights = random_values(kProjected * 4, 60);
    state.filter_channels = kProjected;
    state.filter_height = 2;
    state.filter_width = 2;
    state.filter_version = 9;
    keep_weights();
  }

  std::vector<const FeatureMap*> pointers() const {
    std::vector<const FeatureMap*> list;
    for (const FeatureMap& feature : raw) list.push_back(&feature);
    return list;
  }
  bool fit(std::vector<FeatureMap>* out, std::string* text) {
    ::testing::internal::CaptureStderr();
    const bool done = Access::optimize_joint_init(backend(), pointers(), labels, out, text);
    printed = ::testing::internal::GetCapturedStderr();
    return done;
  }
  void expect_refusal(const std::string& text) {
    error = "stale";
    EXPECT_FALSE(fit(&projected, &error));
    EXPECT_EQ(error, text);
    EXPECT_FALSE(fit(&projected, nullptr));
    expect_kept_weights();
    EXPECT_TRUE(projected.empty());
  }
  /// The same for a fault, which is gone after the first call.
  void expect_failure(const char* call, int n, int status, const std::string& text) {
    SCOPED_TRACE(text);
    ostrel::host_cuda::fail_call(call, n, status);
    EXPECT_FALSE(fit(&projected, &error));
    EXPECT_EQ(error, text);
    expect_kept_weights();
    EXPECT_TRUE(projected.empty());
  }

  std::vector<FeatureMap> raw;
  std::vector<LabelMap> labels;
  std::vector<FeatureMap> projected;
};

TEST_F(HostFit, ReplacesMatrixAndFilterByWhatTheSolverFinds) {
  ASSERT_TRUE(fit(&projected, &error)) << error;
  std::vector<float> flat_raw, flat_labels;
  for (const FeatureMap& feature : raw)
    flat_raw.insert(flat_raw.end(), feature.data.begin(), feature.data.end());
  for (const LabelMap& label : labels) {
    flat_labels.insert(flat_labels.end(), label.data.begin(), label.data.end());
  }
  CudaJointOptimizer solver;
  std::vector<float> filter, matrix;
  ::testing::internal::CaptureStderr();
  const bool solved =
      solver.ensure_capacity(kSamples, kRaw, kProjected, kHeight, kWidth, 2, 2, &error) &&
      solver.optimize(flat_raw, flat_labels, kSamples, kept().filter_weights, kept().projection_matrix, 0.5F,
                      0.25F, 1.0F / kSamples, kGaussNewton, kConjugateGradient, &filter, &matrix, &error);
  ::testing::internal::GetCapturedStderr();
  ASSERT_TRUE(solved) << error;
  EXPECT_LT(largest_difference(weights().projection_matrix, matrix), 1e-5);
  EXPECT_LT(largest_difference(weights().filter_weights, filter), 1e-5);
  EXPECT_EQ(weights().projection_version, 5u);
  EXPECT_EQ(weights().filter_version, 10u);
  EXPECT_THAT(printed, HasSubstr("timing summary: samples=4 gn=2 cg=2 total="));
}

TEST_F(HostFit, HandsOutTheSamplesProjectedWithTheNewMatrix) {
  projected.resize(7);
  ASSERT_TRUE(fit(&projected, &error)) << error;
  ASSERT_EQ(projected.size(), raw.size());
  for (std::size_t i = 0; i < raw.size(); ++i) {
    EXPECT_EQ(projected[i].samples, 1);
    EXPECT_EQ(projected[i].channels, kProjected);
    EXPECT_EQ(projected[i].height, kHeight);
    EXPECT_EQ(projected[i].width, kWidth);
    const FeatureMap expected = Access::project_feature(backend(), raw[i]);
    EXPECT_LT(largest_difference(projected[i].data, expected.data), kProjectionTolerance) << i;
  }
}

TEST_F(HostFit, FitsWithoutHandingOutSamples) {
  ostrel::host_cuda::reset_counters();
  EXPECT_TRUE(fit(nullptr, &error)) << error;
  EXPECT_EQ(weights().projection_version, 5u);
  EXPECT_EQ(ostrel::host_cuda::counters().calls_of("cublasSgemmStridedBatched"), kProductsOfAFit);
}

TEST_F(HostFit, RefusesASetThatIsEmptyOrHasAnotherNumberOfLabels) {
  const std::string text = "joint optimization got an invalid augmented sample set";
  labels.pop_back();
  expect_refusal(text);
  raw.resize(labels.size() - 1);
  expect_refusal(text);
  raw.clear();
  expect_refusal(text);
  labels.clear();
  expect_refusal(text);
}

TEST_F(HostFit, RefusesIncompleteWeights) {
  const struct {
    const char* reason;
    void (*spoil)(ClassifierState*);
  } rows[] = {
      {"no matrix", [](ClassifierState* state) { state->projection_matrix.clear(); }},
      {"no filter", [](ClassifierState* state) { state->filter_weights.clear(); }},
      {"no raw channels", [](ClassifierState* state) { state->proj_in_channels = 0; }},
      {"no projected channels",
       [](ClassifierState* state) { state->proj_out_channels = state->filter_channels = 0; }},
      {"a filter of other channels", [](ClassifierState* state) { state->filter_channels = 2; }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.reason);
    SetUp();
    row.spoil(&weights());
    keep_weights();
    expect_refusal("joint optimization state is incomplete");
  }
}

TEST_F(HostFit, RefusesSamplesAndLabelsOfAnotherShape) {
  const FeatureMap good = raw[1];
  const FeatureMap bad_samples[] = {
      {1, kRaw, kHeight, kWidth, std::vector<float>(7)},
      {2, kRaw, kHeight, kWidth, random_values(2 * kRaw * kPositions, 1)},
      {1, kRaw - 1, kHeight, kWidth, random_values((kRaw - 1) * kPositions, 1)},
      {1, kRaw, kHeight + 1, kWidth, random_values(kRaw * (kHeight + 1) * kWidth, 1)},
      {1, kRaw, kHeight, kWidth + 1, random_values(kRaw * kHeight * (kWidth + 1), 1)},
  };
  const std::string text = "joint optimization received inconsistent augmented sample dimensions";
  for (const FeatureMap& bad : bad_samples) {
    for (const std::size_t at : {0u, 1u}) {
      const FeatureMap aside = raw[at];
      raw[at] = bad;
      expect_refusal(text);
      raw[at] = aside;
    }
  }
  const LabelMap bad_labels[] = {
      {},
      {1, kHeight, kWidth, std::vector<float>(3)},
      {2, kHeight, kWidth, random_values(2 * kPositions, 1)},
      {1, kHeight + 1, kWidth, random_values((kHeight + 1) * kWidth, 1)},
      {1, kHeight, kWidth - 1, random_values(kHeight * (kWidth - 1), 1)},
  };
  for (const LabelMap& bad : bad_labels) {
    const LabelMap aside = labels[3];
    labels[3] = bad;
    expect_refusal(text);
    labels[3] = aside;
  }
  EXPECT_TRUE(fit(&projected, &error)) << error;
}

TEST_F(HostFit, LooksAtTheSetThenAtTheWeightsThenAtTheShapes) {
  raw[1].height = kHeight + 1;
  weights().filter_channels = kProjected + 1;
  keep_weights();
  expect_refusal("joint optimization state is incomplete");
  labels.pop_back();
  expect_refusal("joint optimization got an invalid augmented sample set");
}

TEST_F(HostFit, RefusesAMissingSample) {
  std::vector<const FeatureMap*> list = pointers();
  for (const std::size_t at : {2u, 0u}) {
    list[at] = nullptr;
    EXPECT_FALSE(Access::optimize_joint_init(backend(), list, labels, &projected, &error));
    EXPECT_EQ(error, "joint optimization received inconsistent augmented sample dimensions");
  }
  expect_kept_weights();
}

TEST_F(HostFit, WaitsForAnotherUseOfTheOptimiser) {
  std::unique_lock<std::mutex> busy(Access::joint_optimizer_mutex(backend()));
  auto fitted = std::async(std::launch::async, [this] { return fit(&projected, &error); });
  EXPECT_EQ(fitted.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
  EXPECT_EQ(Access::joint_optimizer(backend()), nullptr);
  busy.unlock();
  EXPECT_TRUE(fitted.get()) << error;
  EXPECT_TRUE(Access::joint_optimizer_mutex(backend()).try_lock());
  Access::joint_optimizer_mutex(backend()).unlock();
}

TEST_F(HostFit, LeavesTheLockOfTheStateAlone) {
  std::unique_lock<std::mutex> reader(Access::state_mutex(backend()));
  auto fitted = std::async(std::launch::async, [this] { return fit(&projected, &error); });
  EXPECT_EQ(fitted.wait_for(std::chrono::seconds(60)), std::future_status::ready);
  reader.unlock();
  EXPECT_TRUE(fitted.get()) << error;
  EXPECT_EQ(weights().projection_version, kept().projection_version + 1);
}

TEST_F(HostFit, KeepsTheSolversTexts) {
  const std::string unknown = cudaGetErrorString(cudaErrorUnknown);
  expect_failure("cudaMalloc", 1, cudaErrorUnknown, "cudaMalloc raw_features: " + unknown);
  expect_failure("cudaMemcpyAsync", 1, cudaErrorUnknown,
                 "cudaMemcpyAsync preload_raw_features host: " + unknown);
  expect_failure("cudaStreamSynchronize", 1, cudaErrorUnknown, "cudaStreamSynchronize optimize: " + unknown);
  expect_failure("cudaStreamSynchronize", 2, cudaErrorUnknown,
                 "cudaStreamSynchronize projected_features: " + unknown);
}

TEST_F(HostFit, NeedsAnOptimiser) {
  ostrel_test::fail_heap_allocations_of(sizeof(CudaJointOptimizer::Impl));
  const bool done = Access::optimize_joint_init(backend(), pointers(), labels, &projected, &error);
  ostrel_test::fail_heap_allocations_of(0);
  EXPECT_FALSE(done);
  EXPECT_EQ(error, "CUDA joint optimizer is unavailable");
  expect_kept_weights();
  EXPECT_TRUE(Access::joint_optimizer_mutex(backend()).try_lock());
  Access::joint_optimizer_mutex(backend()).unlock();
}

/// Starts whose first chunk fails, so that all goes through the host.
class HostFitStart : public DirectStart {
 protected:
  static void leave_for_host() { ostrel::host_cuda::fail_call("enqueueV3", 2, 1); }
};

TEST_F(HostFitStart, TakesTheTimeOfTheFit) {
  leave_for_host();
  InitPipeline pipeline(&backend(), frame, kBox, &error);
  ::testing::internal::CaptureStderr();
  ASSERT_TRUE(pipeline.run()) << error;
  ::testing::internal::GetCapturedStderr();
  const InitTimings t = InitPipelineTestAccess(&pipeline).timings();
  EXPECT_EQ(t.path, "host_path");
  for (const double stage_ms :
       {t.joint_opt, t.host_aug_feat, t.host_project, t.memory_train, t.template_host}) {
    EXPECT_GT(stage_ms, 0.0);
  }
  for (const double stage_ms : {t.direct_dropout, t.direct_filter_train, t.projected_download}) {
    EXPECT_EQ(stage_ms, 0.0);
  }
}

TEST_F(HostFitStart, StoresWhatTheFitProjected) {
  leave_for_host();
  InitPipeline pipeline(&backend(), frame, kBox, &error);
  InitPipelineTestAccess steps(&pipeline);
  ::testing::internal::CaptureStderr();
  const bool gathered = steps.prepare() && steps.gather_training_set();
  ::testing::internal::GetCapturedStderr();
  ASSERT_TRUE(gathered) << error;
  ASSERT_EQ(steps.features().size(), 9u);
  for (std::size_t i = 0; i < 9; ++i) {
    const FeatureMap expected = Access::project_feature(backend(), steps.item(i));
    EXPECT_LT(largest_difference(steps.features()[i].data, expected.data), kProjectionTolerance) << i;
  }
}

TEST_F(HostFitStart, FitsOnTheSamplesThatWorked) {
  leave_for_host();
  ostrel::host_cuda::fail_call("enqueueV3", 4, 1);  // the batch, after the template on the host
  ostrel::host_cuda::fail_call("enqueueV3", 5, 1);  // the batch's own sequential tier
  ostrel::host_cuda::fail_call("enqueueV3", 7, 1);  // the second of six, one by one
  ASSERT_TRUE(start()) << error;
  EXPECT_THAT(init_lines(), Contains("[CudaRuntimeBackend] init stage=joint_opt done samples=8"));
  EXPECT_EQ(path(), "host_path");
  EXPECT_EQ(memory().num_stored_samples, 8);
}

TEST_F(HostFitStart, EndsWithTheSolversTextAndNoTraceWhenTheFitFails) {
  leave_for_host();
  ostrel::host_cuda::fail_call("cublasSgemmStridedBatched", 1, 13);
  EXPECT_FALSE(start());
  EXPECT_EQ(error, "cublasSgemmStridedBatched project_features: CUBLAS_STATUS_EXECUTION_FAILED");
  EXPECT_THAT(trace_lines(), IsEmpty());
  EXPECT_EQ(weights().projection_version, 1u);
  EXPECT_EQ(weights().filter_version, 1u);
  EXPECT_FALSE(state().initialized);
}

TEST_F(HostFitStart, EndsAsTemplateOnlyWhenTheLastTrainingFails) {
  leave_for_host();
  ostrel::host_cuda::fail_call("compute_weighted_residual_grad_kernel", kGaussNewton + 1,
                               cudaErrorLaunchFailure);
  ASSERT_TRUE(start()) << error;
  EXPECT_THAT(init_lines(), Contains(EndsWith("path=template_only")));
  EXPECT_EQ(memory().num_stored_samples, 1);
  EXPECT_EQ(weights().projection_version, 2u) << "the fitted matrix stays";
}

}  // namespace
}  // namespace init_test
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
