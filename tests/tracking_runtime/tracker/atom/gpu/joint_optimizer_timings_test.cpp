// The event ranges of the stages, and the two lines that tell their times.

#include <gtest/gtest.h>

#include <host_cuda/control.h>

#include <chrono>
#include <map>
#include <sstream>
#include <string>
#include <thread>

#include "call_fault.h"
#include "device_arrays.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_joint_optimizer_support.h"

namespace ostrel_test {
namespace {

namespace host = ostrel::host_cuda;
using atom::detail::CudaEventRange;
using atom::detail::JointOptPhase;
using atom::detail::JointOptTimingCollector;

constexpr int kPhases = 21;
constexpr auto kPhase = JointOptPhase::kCgJtj;

class JointOptTimings : public ::testing::Test {
 protected:
  TestStream stream_;
  JointOptTimingCollector collector_;
  CudaEventRange range_;
  std::string error_;
  std::int64_t live_before_ = host::counters().live_events;

  void TearDown() override { host::clear_faults(); }

  std::int64_t live_events() const { return host::counters().live_events - live_before_; }
  bool begin() { return atom::detail::begin_timed_range(stream_.get(), &range_, "stage", &error_); }
  bool end(JointOptPhase phase = kPhase) {
    return atom::detail::end_timed_range(&collector_, phase, stream_.get(), &range_, "stage", &error_);
  }
  /// A stage that takes about this long on the stream.
  void add_stage(JointOptPhase phase, int duration_ms) {
    ASSERT_TRUE(begin()) << error_;
    require(host::enqueue(stream_.get(), "stage", [duration_ms] {
      std::this_thread::sleep_for(std::chrono::milliseconds(duration_ms));
    }));
    ASSERT_TRUE(end(phase)) << error_;
  }
  std::string logged(int samples, int gauss_newton, int conjugate_gradient) {
    stream_.wait();
    ::testing::internal::CaptureStderr();
    atom::detail::log_joint_opt_timings(collector_, samples, gauss_newton, conjugate_gradient);
    return ::testing::internal::GetCapturedStderr();
  }
};

/// The numbers of a line, by name.
std::map<std::string, double> numbers_of(const std::string& text) {
  std::map<std::string, double> numbers;
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    const auto sign = word.find('=');
    if (sign != std::string::npos) numbers[word.substr(0, sign)] = std::stod(word.substr(sign + 1));
  }
  return numbers;
}

TEST_F(JointOptTimings, HandsAFinishedRangeToItsPhase) {
  ASSERT_TRUE(begin()) << error_;
  EXPECT_TRUE(range_.start);
  EXPECT_TRUE(range_.stop);
  ASSERT_TRUE(end()) << error_;
  EXPECT_FALSE(range_.start);
  EXPECT_FALSE(range_.stop);
  for (int phase = 0; phase < kPhases; ++phase) {
    EXPECT_EQ(collector_.ranges[static_cast<std::size_t>(phase)].size(),
              phase == static_cast<int>(kPhase) ? 1U : 0U);
  }
  EXPECT_EQ(live_events(), 2);
}

TEST_F(JointOptTimings, DestroysAllEventsWithTheCollector) {
  {
    JointOptTimingCollector collector;
    for (int phase = 0; phase < kPhases; ++phase) {
      ASSERT_TRUE(begin()) << error_;
      ASSERT_TRUE(atom::detail::end_timed_range(&collector, static_cast<JointOptPhase>(phase), stream_.get(),
                                                &range_, "stage", &error_));
    }
    EXPECT_EQ(live_events(), 2 * kPhases);
  }
  EXPECT_EQ(live_events(), 0);
}

TEST_F(JointOptTimings, DestroysARangeThatIsOpen) {
  ASSERT_TRUE(begin()) << error_;
  atom::detail::destroy_event_range(&range_);
  EXPECT_FALSE(range_.start);
  EXPECT_FALSE(range_.stop);
  EXPECT_EQ(live_events(), 0);
}

TEST_F(JointOptTimings, DoesNothingForANullRange) {
  host::reset_counters();
  EXPECT_TRUE(atom::detail::begin_timed_range(stream_.get(), nullptr, "stage", &error_));
  EXPECT_TRUE(atom::detail::end_timed_range(&collector_, kPhase, stream_.get(), nullptr, "stage", &error_));
  EXPECT_EQ(host::counters().calls_of("cudaEventCreate") + host::counters().calls_of("cudaEventRecord"), 0);
}

TEST_F(JointOptTimings, NamesTheLabelOfAFailedBeginAndDestroysItsEvents) {
  for (const CallFault& fault :
       {CallFault{"cudaEventCreate", 1, "stage"}, CallFault{"cudaEventCreate", 2, "stage"},
        CallFault{"cudaEventRecord", 1, "stage"}}) {
    host::fail_call(fault.call, fault.n, cudaErrorUnknown);
    error_.clear();
    EXPECT_FALSE(begin());
    EXPECT_EQ(error_, fault.text());
    EXPECT_FALSE(range_.start);
    EXPECT_FALSE(range_.stop);
    EXPECT_EQ(live_events(), 0);
  }
}

TEST_F(JointOptTimings, NamesTheLabelOfAFailedEndAndDestroysItsEvents) {
  ASSERT_TRUE(begin()) << error_;
  const CallFault fault{"cudaEventRecord", 1, "stage"};
  host::fail_call(fault.call, fault.n, cudaErrorUnknown);
  EXPECT_FALSE(end());
  EXPECT_EQ(error_, fault.text());
  EXPECT_FALSE(range_.start);
  EXPECT_TRUE(collector_.of(kPhase).empty());
  EXPECT_EQ(live_events(), 0);
}

TEST_F(JointOptTimings, AddsTheTimesOfAPhase) {
  add_stage(kPhase, 10);
  add_stage(kPhase, 20);
  stream_.wait();
  const double sum = atom::detail::sum_event_ranges_ms(collector_.of(kPhase));
  EXPECT_GE(sum, 29.0);
  EXPECT_LT(sum, 3000.0);  // a machine under load sleeps longer, never that long
  EXPECT_EQ(atom::detail::sum_event_ranges_ms({}), 0.0);
}

TEST_F(JointOptTimings, SkipsRangesWhoseTimeCannotBeTold) {
  add_stage(kPhase, 10);
  std::vector<CudaEventRange>& ranges = collector_.of(kPhase);
  ranges.insert(ranges.begin(), CudaEventRange{});
  ranges.insert(ranges.begin(), CudaEventRange{});
  require(ranges[0].start.create());  // no stop
  ranges.emplace_back();
  require(ranges.back().start.create());  // never recorded
  require(ranges.back().stop.create());
  stream_.wait();
  EXPECT_GE(atom::detail::sum_event_ranges_ms(ranges), 9.0);
  EXPECT_EQ(cudaGetLastError(), cudaSuccess);
  host::fail_call("cudaEventElapsedTime", 1, cudaErrorUnknown);
  EXPECT_EQ(atom::detail::sum_event_ranges_ms(ranges), 0.0);
  EXPECT_EQ(cudaGetLastError(), cudaSuccess);
}

TEST_F(JointOptTimings, WritesTheSummaryAndThePhases) {
  EXPECT_EQ(logged(9, 20, 3),
            "[CudaJointOptimizer] timing summary: samples=9 gn=20 cg=3 total=0.0ms upload=0.0 rhs=0.0 "
            "cg=0.0 apply=0.0 download=0.0\n"
            "[CudaJointOptimizer] timing phases: rhs_project=0.0 rhs_classify=0.0 rhs_residual=0.0 "
            "rhs_reg=0.0 rhs_filter_grad=0.0 rhs_backprop=0.0 rhs_proj_grad=0.0 cg_rho=0.0 cg_beta=0.0 "
            "cg_reg=0.0 cg_project=0.0 cg_classify=0.0 cg_jtj=0.0 cg_filter_grad=0.0 cg_backprop=0.0 "
            "cg_proj_grad=0.0 cg_pq=0.0 cg_update=0.0\n");
}

TEST_F(JointOptTimings, TellsEachPhaseInItsFieldAndItsGroup) {
  struct Row {
    const char* field;  // of the second line
    const char* group;  // of the first line
  };
  const Row rows[kPhases] = {{nullptr, "upload"},     {"rhs_project", "rhs"},   {"rhs_classify", "rhs"},
                             {"rhs_residual", "rhs"}, {"rhs_reg", "rhs"},       {"rhs_filter_grad", "rhs"},
                             {"rhs_backprop", "rhs"}, {"rhs_proj_grad", "rhs"}, {"cg_rho", "cg"},
                             {"cg_beta", "cg"},       {"cg_reg", "cg"},         {"cg_project", "cg"},
                             {"cg_classify", "cg"},   {"cg_jtj", "cg"},         {"cg_filter_grad", "cg"},
                             {"cg_backprop", "cg"},   {"cg_proj_grad", "cg"},   {"cg_pq", "cg"},
                             {"cg_update", "cg"},     {nullptr, "apply"},       {nullptr, "download"}};
  for (int phase = 0; phase < kPhases; ++phase) {
    SCOPED_TRACE(phase);
    collector_ = JointOptTimingCollector();
    add_stage(static_cast<JointOptPhase>(phase), 3);
    const std::string text = logged(1, 1, 1);
    const std::size_t second_line = text.find('\n');
    std::map<std::string, double> summary = numbers_of(text.substr(0, second_line));
    for (const char* count : {"samples", "gn"}) summary.erase(count);
    // The count of iterations and the group's time share the name "cg"; the time stands last.
    for (const auto& [name, value] : summary) {
      EXPECT_EQ(value >= 2.9, name == "total" || name == rows[phase].group) << name << " " << value;
    }
    const std::map<std::string, double> phases = numbers_of(text.substr(second_line));
    EXPECT_EQ(phases.size(), 18U);
    for (const auto& [name, value] : phases) {
      EXPECT_EQ(value >= 2.9, rows[phase].field != nullptr && name == rows[phase].field)
          << name << " " << value;
    }
  }
}

}  // namespace
}  // namespace ostrel_test
