// The optimiser's memory, and how raw samples get into it.

#include <chrono>
#include <memory>
#include <thread>

#include "joint_optimizer_fixture.h"

namespace ostrel_test {
namespace {

using atom::CudaJointOptimizer;
using atom::RawFeatureSpan;
namespace host = ostrel::host_cuda;

const char* const kBadPreload = "invalid CUDA joint optimizer raw feature preload request";
const char* const kBadRange = "CUDA joint optimizer raw feature preload range is invalid";
const char* const kBadSource = "CUDA joint optimizer raw feature preload needs exactly one source";
const char* const kBadCopies = "invalid CUDA joint optimizer scaled sample materialization request";

/// Four samples of three channels, projected to three.
class JointOptimizerBuffers : public JointOptimizerTest {
 protected:
  void SetUp() override {
    fit_ = JointFitCase::random({4, 3, 2, 3, 2, 2}, 3, 700);
    ASSERT_TRUE(fit_.ensure(optimizer_, &error_)) << error_;
  }

  bool preload(const std::vector<RawFeatureSpan>& spans) {
    error_.clear();
    return optimizer_.preload_raw_feature_spans(spans, &error_);
  }
  RawFeatureSpan host_span(int first, int count) const {
    return {fit_.raw.data() + sample(first), nullptr, first, count, nullptr};
  }
  std::ptrdiff_t sample(int index) const { return index * static_cast<std::ptrdiff_t>(fit_.sample_size()); }
  /// Samples first to last - 1 of `raw`.
  std::vector<float> samples_of(const std::vector<float>& raw, int first, int last) const {
    return {raw.begin() + sample(first), raw.begin() + sample(last)};
  }
  bool copies(int source, int first, int count, const std::vector<float>& scales) {
    error_.clear();
    return optimizer_.materialize_scaled_sample_copies(source, first, count, scales, &error_);
  }
  /// The stream, which only a view shows.
  cudaStream_t own_stream() {
    EXPECT_TRUE(optimize()) << error_;
    atom::ProjectedFeatureView view;
    EXPECT_TRUE(optimizer_.get_projected_feature_device_view(&view, &error_)) << error_;
    return view.stream;
  }
};

TEST_F(JointOptimizerBuffers, TakesSamplesFromTheHost) {
  ASSERT_TRUE(preload({host_span(0, 4)})) << error_;
  EXPECT_EQ(raw_on_device(4), fit_.raw);
}

TEST_F(JointOptimizerBuffers, StagesHostSamplesBeforeItReturns) {
  std::vector<float> source = fit_.raw;
  ASSERT_TRUE(preload({{source.data(), nullptr, 0, 4, nullptr}})) << error_;
  std::fill(source.begin(), source.end(), 9.0F);
  EXPECT_EQ(raw_on_device(4), fit_.raw);
}

TEST_F(JointOptimizerBuffers, PutsEachSpanAtItsPlaceInTheOrderGiven) {
  const DeviceArray<float> device(samples_of(fit_.raw, 1, 3));
  const std::vector<float> overwritten(fit_.sample_size(), 7.0F);
  ASSERT_TRUE(preload({host_span(3, 1),
                       {overwritten.data(), nullptr, 1, 1, nullptr},
                       {nullptr, device.get(), 1, 2, nullptr}}))
      << error_;
  ASSERT_TRUE(preload({host_span(0, 1)})) << error_;
  EXPECT_EQ(raw_on_device(4), fit_.raw);
}

TEST_F(JointOptimizerBuffers, NeitherWaitsNorAllocatesForAPreload) {
  TestStream producer;
  const DeviceArray<float> device(fit_.raw);
  host::reset_counters();
  ASSERT_TRUE(preload({host_span(0, 4), {nullptr, device.get(), 0, 4, producer.get()}})) << error_;
  ASSERT_TRUE(copies(0, 1, 1, {1.0F, 2.0F, 3.0F})) << error_;
  EXPECT_EQ(host::counters().synchronisations, 0);
  EXPECT_EQ(host::counters().blocking_copies, 0);
  EXPECT_EQ(host::counters().null_stream_work, 0);
  EXPECT_EQ(calls("cudaMalloc") + calls("cudaFree"), 0);
}

TEST_F(JointOptimizerBuffers, WaitsForTheStreamThatProducesASpan) {
  TestStream producer;
  const DeviceArray<float> source(fit_.raw), device(fit_.raw.size(), 1e6F);
  require(host::enqueue(producer.get(), "slow producer",
                        [] { std::this_thread::sleep_for(std::chrono::milliseconds(50)); }));
  require(cudaMemcpyAsync(device.get(), source.get(), fit_.raw.size() * sizeof(float),
                          cudaMemcpyDeviceToDevice, producer.get()));
  ASSERT_TRUE(preload({{nullptr, device.get(), 0, 4, producer.get()}})) << error_;
  EXPECT_EQ(raw_on_device(4), fit_.raw);
}

TEST_F(JointOptimizerBuffers, MakesAnEventForAnotherStreamOnly) {
  cudaStream_t const own = own_stream();
  TestStream other;
  const DeviceArray<float> device(fit_.raw);
  const auto live = host::counters().live_events;
  host::reset_counters();
  ASSERT_TRUE(preload({{nullptr, device.get(), 0, 4, own}})) << error_;
  ASSERT_TRUE(preload({{nullptr, device.get(), 0, 4, nullptr}})) << error_;
  ASSERT_TRUE(preload({{fit_.raw.data(), nullptr, 0, 4, other.get()}})) << error_;
  EXPECT_EQ(calls("cudaEventCreateWithFlags") + calls("cudaEventRecord"), 0);
  host::start_trace();
  ASSERT_TRUE(preload({{nullptr, device.get(), 0, 4, other.get()}})) << error_;
  EXPECT_EQ(host::stop_trace(),
            (std::vector<std::string>{"cudaEventCreateWithFlags", "cudaEventRecord", "cudaStreamWaitEvent",
                                      "cudaMemcpyAsync", "cudaEventDestroy"}));
  EXPECT_EQ(host::counters().live_events, live);
}

TEST_F(JointOptimizerBuffers, RefusesSpansBeyondTheStoredSamples) {
  struct Row {
    const char* reason;
    int first, count;
    bool accepted;
  };
  for (const Row& row :
       {Row{"ends at the last sample", 2, 2, true}, Row{"one sample further", 3, 2, false},
        Row{"no samples", 0, 0, false}, Row{"fewer than none", 2, -1, false},
        Row{"before the first", -1, 2, false}, Row{"a sum that wraps", 2147483647, 2147483647, false}}) {
    SCOPED_TRACE(row.reason);
    EXPECT_EQ(preload({{fit_.raw.data(), nullptr, row.first, row.count, nullptr}}), row.accepted);
    EXPECT_EQ(error_, row.accepted ? "" : kBadRange);
  }
}

TEST_F(JointOptimizerBuffers, RefusesSpansWithoutExactlyOneSource) {
  const DeviceArray<float> device(fit_.raw);
  EXPECT_FALSE(preload({{nullptr, nullptr, 0, 1, nullptr}}));
  EXPECT_EQ(error_, kBadSource);
  EXPECT_FALSE(preload({{fit_.raw.data(), device.get(), 0, 1, nullptr}}));
  EXPECT_EQ(error_, kBadSource);
  // The range is looked at first.
  EXPECT_FALSE(preload({{nullptr, nullptr, 4, 1, nullptr}}));
  EXPECT_EQ(error_, kBadRange);
  EXPECT_FALSE(optimizer_.preload_raw_feature_spans({{nullptr, nullptr, 0, 1, nullptr}}, nullptr));
}

TEST_F(JointOptimizerBuffers, RefusesAPreloadOfNothingOrBeforeItHasSizes) {
  EXPECT_FALSE(preload({}));
  EXPECT_EQ(error_, kBadPreload);
  CudaJointOptimizer fresh;
  EXPECT_FALSE(fresh.preload_raw_feature_spans({host_span(0, 1)}, &error_));
  EXPECT_EQ(error_, kBadPreload);
  // raw_features is there, the sizes are not.
  host::fail_call("cudaMalloc", 2, cudaErrorUnknown);
  ASSERT_FALSE(fit_.ensure(fresh, &error_));
  EXPECT_FALSE(fresh.preload_raw_feature_spans({host_span(0, 1)}, &error_));
  EXPECT_EQ(error_, kBadPreload);
}

TEST_F(JointOptimizerBuffers, KeepsTheSpansBeforeARefusedOne) {
  ASSERT_TRUE(preload({host_span(1, 3)})) << error_;
  EXPECT_FALSE(preload({host_span(0, 1), host_span(4, 1)}));
  EXPECT_EQ(raw_on_device(4), fit_.raw);
}

TEST_F(JointOptimizerBuffers, LowersTheValidRangeWithTheSamplesAndKeepsTheCapacity) {
  host::reset_counters();
  fit_.shape.samples = 3;
  ASSERT_TRUE(fit_.ensure(optimizer_, &error_)) << error_;
  EXPECT_TRUE(preload({host_span(2, 1)}));
  EXPECT_FALSE(preload({host_span(3, 1)}));
  EXPECT_EQ(error_, kBadRange);
  fit_.shape.samples = 4;
  ASSERT_TRUE(fit_.ensure(optimizer_, &error_)) << error_;
  EXPECT_TRUE(preload({host_span(3, 1)})) << error_;
  EXPECT_EQ(calls("cudaMalloc") + calls("cudaFree"), 0);
}

TEST_F(JointOptimizerBuffers, ScalesTheChannelsOfEachCopy) {
  ASSERT_TRUE(preload({host_span(0, 4)})) << error_;
  const std::vector<float> scales = {0.0F, 1.25F, 2.0F, 1.0F, 0.0F, -0.5F};
  ASSERT_TRUE(copies(1, 2, 2, scales)) << error_;
  std::vector<float> expected = samples_of(fit_.raw, 0, 2);
  const auto plane = static_cast<std::size_t>(fit_.plane());
  for (std::size_t copy = 0; copy < 2; ++copy) {
    for (std::size_t i = 0; i < fit_.sample_size(); ++i) {
      expected.push_back(scales[copy * 3 + i / plane] * fit_.raw[fit_.sample_size() + i]);
    }
  }
  EXPECT_EQ(raw_on_device(4), expected);
}

TEST_F(JointOptimizerBuffers, RefusesImpossibleCopies) {
  struct Row {
    const char* reason;
    int source, first, count;
    std::size_t scales;
  };
  for (const Row& row :
       {Row{"no copies", 0, 1, 0, 0}, Row{"fewer than none", 0, 1, -1, 3}, Row{"source below 0", -1, 1, 1, 3},
        Row{"target below 0", 0, -1, 1, 3}, Row{"source beyond the samples", 4, 1, 1, 3},
        Row{"targets beyond the samples", 0, 3, 2, 6}, Row{"a sum that wraps", 0, 2147483647, 2147483647, 3},
        Row{"a scale too few", 0, 1, 2, 5}, Row{"a scale too many", 0, 1, 2, 7}}) {
    SCOPED_TRACE(row.reason);
    EXPECT_FALSE(copies(row.source, row.first, row.count, std::vector<float>(row.scales, 1.0F)));
    EXPECT_EQ(error_, kBadCopies);
  }
  EXPECT_TRUE(copies(3, 0, 3, std::vector<float>(9, 1.0F))) << error_;
}

TEST_F(JointOptimizerBuffers, DoesNotKeepTheSourceOfCopiesFromTheirTargets) {
  ASSERT_TRUE(preload({host_span(0, 4)})) << error_;
  ASSERT_TRUE(copies(1, 0, 3, std::vector<float>(9, 1.0F))) << error_;
  // Copies by 1 cannot tell when the source is overwritten.
  std::vector<float> expected;
  for (const int from : {1, 1, 1, 3}) {
    const std::vector<float> one = samples_of(fit_.raw, from, from + 1);
    expected.insert(expected.end(), one.begin(), one.end());
  }
  EXPECT_EQ(raw_on_device(4), expected);
}

TEST_F(JointOptimizerBuffers, RefusesCopiesBeforeItHasBuffers) {
  CudaJointOptimizer fresh;
  EXPECT_FALSE(fresh.materialize_scaled_sample_copies(0, 1, 1, {1.0F, 1.0F, 1.0F}, &error_));
  EXPECT_EQ(error_, kBadCopies);
}

TEST_F(JointOptimizerBuffers, RefusesToUseABufferThatAFailedGrowthTook) {
  JointFitCase larger = fit_;
  larger.in_channels = 5;
  const auto fail_growth = [&](int n, const char* buffer) {
    host::fail_call("cudaMalloc", n, cudaErrorUnknown);
    ASSERT_FALSE(larger.ensure(optimizer_, &error_));
    ASSERT_EQ(error_, std::string("cudaMalloc ") + buffer + ": " + cudaGetErrorString(cudaErrorUnknown));
  };
  const std::vector<float> scales(3, 1.0F);  // the sizes are still the old ones
  fail_growth(1, "raw_features");
  EXPECT_FALSE(preload({host_span(0, 4)}));
  EXPECT_EQ(error_, kBadPreload);
  EXPECT_FALSE(copies(0, 1, 1, scales));
  EXPECT_EQ(error_, kBadCopies);
  fail_growth(9, "channel_scales");
  EXPECT_TRUE(preload({host_span(0, 4)})) << error_;
  EXPECT_FALSE(copies(0, 1, 1, scales));
  EXPECT_EQ(error_, kBadCopies);
}

TEST_F(JointOptimizerBuffers, MakesStreamHandleAndBuffersOnce) {
  CudaJointOptimizer fresh;
  host::reset_counters();
  ASSERT_TRUE(fit_.ensure(fresh, &error_)) << error_;
  EXPECT_EQ(calls("cudaStreamCreateWithFlags"), 1);
  EXPECT_EQ(calls("cudaStreamCreateWithPriority"), 0);
  EXPECT_EQ(calls("cublasCreate"), 1);
  EXPECT_EQ(calls("cublasSetStream"), 1);
  EXPECT_EQ(calls("cudaMalloc"), 23);
  ASSERT_TRUE(fit_.ensure(fresh, &error_)) << error_;
  EXPECT_EQ(calls("cudaStreamCreateWithFlags"), 1);
  EXPECT_EQ(calls("cublasCreate"), 1);
  EXPECT_EQ(calls("cublasSetStream"), 2);
  EXPECT_EQ(calls("cudaMalloc"), 23);
}

TEST_F(JointOptimizerBuffers, HoldsExactlyTheArraysOfItsSizes) {
  CudaJointOptimizer fresh;
  const auto before = host::counters().live_device_bytes;
  ASSERT_TRUE(fresh.ensure_capacity(5, 7, 3, 4, 6, 2, 3, &error_)) << error_;
  const std::int64_t maps = 5 * 4 * 6, filter = 3 * 2 * 3, projection = 7 * 3;
  const std::int64_t floats =
      7 * maps + maps + 6 * filter + 6 * projection + 2 * 3 * maps + 4 * maps + 5 * projection + 5 * 7;
  EXPECT_EQ(host::counters().live_device_bytes - before, 4 * floats + 3 * 8);
}

TEST_F(JointOptimizerBuffers, GrowsOnlyWhatIsTooSmall) {
  struct Row {
    const char* reason;
    std::vector<int> sizes;  // samples, in, out, height, width, filter height, filter width
    int grown;
  };
  for (const Row& row :
       {Row{"nothing", {4, 3, 3, 2, 3, 2, 2}, 0}, Row{"all smaller", {1, 1, 1, 1, 1, 1, 1}, 0},
        Row{"samples: raw, labels, maps, batch, scales", {5, 3, 3, 2, 3, 2, 2}, 1 + 1 + 2 + 4 + 1 + 1},
        Row{"in: raw, projections, batch, scales", {4, 4, 3, 2, 3, 2, 2}, 1 + 6 + 1 + 1},
        Row{"out: filters, projections, z, batch", {4, 3, 4, 2, 3, 2, 2}, 6 + 6 + 2 + 1},
        Row{"map: raw, labels, z, responses", {4, 3, 3, 2, 4, 2, 2}, 1 + 1 + 2 + 4},
        Row{"filter", {4, 3, 3, 2, 3, 3, 2}, 6}}) {
    SCOPED_TRACE(row.reason);
    CudaJointOptimizer fresh;
    ASSERT_TRUE(fit_.ensure(fresh, &error_)) << error_;
    host::reset_counters();
    const std::vector<int>& s = row.sizes;
    ASSERT_TRUE(fresh.ensure_capacity(s[0], s[1], s[2], s[3], s[4], s[5], s[6], &error_)) << error_;
    EXPECT_EQ(calls("cudaMalloc"), row.grown);
    EXPECT_EQ(calls("cudaFree"), row.grown);
  }
}

TEST_F(JointOptimizerBuffers, KeepsSamplesThroughACallWithTheSameSizes) {
  ASSERT_TRUE(preload({host_span(0, 4)})) << error_;
  ASSERT_TRUE(fit_.ensure(optimizer_, &error_)) << error_;
  EXPECT_EQ(raw_on_device(4), fit_.raw);
}

TEST_F(JointOptimizerBuffers, GoesWithBuffersThenHandleThenStreamAndLeavesNothing) {
  const auto before = host::counters();
  auto fresh = std::make_unique<CudaJointOptimizer>();
  ASSERT_TRUE(fit_.ensure(*fresh, &error_)) << error_;
  ASSERT_TRUE(optimize(fit_, *fresh, &out_)) << error_;
  host::start_trace();
  fresh.reset();
  std::vector<std::string> expected(23, "cudaFree");
  expected.insert(expected.end(), {"cublasDestroy", "cudaStreamDestroy"});
  EXPECT_EQ(host::stop_trace(), expected);
  const auto after = host::counters();
  EXPECT_EQ(after.live_device_bytes, before.live_device_bytes);
  EXPECT_EQ(after.live_streams, before.live_streams);
  EXPECT_EQ(after.live_events, before.live_events);
}

}  // namespace
}  // namespace ostrel_test
