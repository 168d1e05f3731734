// Training jobs: scheduling, log lines, exceptions, the wait at the end.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <host_cuda/control.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <limits>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "tracking_runtime/tracker/atom/training_fixture.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

using ::testing::Contains;

using Lines = std::vector<std::string>;
const std::string kTag = "[CudaRuntimeBackend][train] ";

class TrainingJobs : public TrainingFixture {};

TEST_F(TrainingJobs, TellTheirLifeAndReplaceTheFilter) {
  fill(4);
  const std::vector<float> before = filter();
  const Lines lines = printed([&] {
    schedule(5, 3, "periodic", 42);
    wait_for_job();
  });
  EXPECT_EQ(lines, (Lines{kTag + "job=1 frame=42 reason=periodic schedule iter=5 stored=4 selected=3 cap=3",
                          kTag + "job=1 frame=42 reason=periodic start iter=5 stored=4 selected=3 cap=3",
                          kTag + "job=1 frame=42 reason=periodic done status=ok iter=5 stored=4 selected=3 "
                                 "elapsed=T"}));
  EXPECT_NE(filter(), before);
  EXPECT_EQ(filter().size(), before.size());
  EXPECT_EQ(filter_version(), 8U);
  EXPECT_FALSE(Access::training_in_flight(*backend_));
  EXPECT_EQ(Access::active_training_job(*backend_), 0);
  EXPECT_EQ(Access::training_job_counter(*backend_), 1);
}

TEST_F(TrainingJobs, UseTheWholeMemoryWithoutACap) {
  fill(4);
  for (const int cap : {0, -3}) {
    const Lines lines = printed([&] {
      schedule(1, cap, "periodic", 1);
      wait_for_job();
    });
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_NE(lines[0].find(" stored=4 selected=4 cap=" + std::to_string(cap)), std::string::npos);
    EXPECT_NE(lines[2].find(" stored=4 selected=4 elapsed=T"), std::string::npos);
  }
}

TEST_F(TrainingJobs, TakeACapOfAllThatIsStoredForNoReduction) {
  fill(4);
  const Lines lines = printed([&] {
    schedule(1, 4, "periodic", 1);
    wait_for_job();
  });
  EXPECT_NE(lines.at(0).find(" stored=4 selected=4 cap=4"), std::string::npos);
}

TEST_F(TrainingJobs, CountStoredSamplesUpToTheCapacity) {
  fill(4);
  for (int i = 0; i < 9; ++i) {
    ASSERT_TRUE(Access::store_training_sample(*backend_, feature(i), label(i), 0.1F));
  }
  const Lines lines = printed([&] {
    schedule(1, 0, "periodic", 1);
    wait_for_job();
  });
  EXPECT_NE(lines.at(0).find(" stored=6 selected=6 "), std::string::npos);
}

TEST_F(TrainingJobs, SkipWhileOneRunsAndStoreTheSampleAllTheSame) {
  fill(4);
  const Lines lines = printed([&] {
    std::unique_lock<std::mutex> solver(Access::filter_trainer_mutex(*backend_));
    schedule(5, 10, "periodic", 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    // The job waits for the solver and holds nothing that a frame needs.
    EXPECT_TRUE(Access::store_training_sample(*backend_, feature(5), label(5), 0.1F));
    schedule(7, 9, "hard_negative", 2);
    schedule(7, 9, nullptr, 3);
    EXPECT_TRUE(Access::training_in_flight(*backend_));
    EXPECT_EQ(Access::active_training_job(*backend_), 1);
    solver.unlock();
    wait_for_job();
  });
  ASSERT_EQ(lines.size(), 5U);
  // The job's own thread may begin late, so its lines may stand among these.
  EXPECT_THAT(lines, Contains(kTag + "frame=2 reason=hard_negative skip=busy active_job=1 iter=7 cap=9"));
  EXPECT_THAT(lines, Contains(kTag + "frame=3 reason=unknown skip=busy active_job=1 iter=7 cap=9"));
  EXPECT_EQ(Access::memory(*backend_).num_stored_samples, 5);
  EXPECT_EQ(Access::training_job_counter(*backend_), 1);
}

TEST_F(TrainingJobs, FollowOneAnother) {
  fill(4);
  const Lines lines = printed([&] {
    for (int frame = 1; frame <= 3; ++frame) {
      schedule(1, 10, "periodic", frame);
      wait_for_job();
    }
  });
  ASSERT_EQ(lines.size(), 9U);
  EXPECT_EQ(lines[3], kTag + "job=2 frame=2 reason=periodic schedule iter=1 stored=4 selected=4 cap=10");
  EXPECT_EQ(lines[8],
            kTag + "job=3 frame=3 reason=periodic done status=ok iter=1 stored=4 selected=4 elapsed=T");
  EXPECT_EQ(filter_version(), 10U);
}

TEST_F(TrainingJobs, AreSkippedWithoutMemoryOrFilter) {
  const std::string skip = kTag + "frame=3 reason=periodic skip=no_memory iter=5 cap=10";
  const auto attempt = [&] { schedule(5, 10, "periodic", 3); };
  EXPECT_EQ(printed(attempt), Lines{skip});
  fill(2);
  SampleMemory& memory = Access::memory(*backend_);
  const SampleMemory good = memory;
  memory.training_labels.clear();
  EXPECT_EQ(printed(attempt), Lines{skip});
  memory = good;
  memory.training_features.clear();
  EXPECT_EQ(printed(attempt), Lines{skip});
  memory = good;
  memory.sample_weights.clear();
  EXPECT_EQ(printed(attempt), Lines{skip});
  memory = good;
  Access::weights(*backend_).filter_weights.clear();
  EXPECT_EQ(printed(attempt), Lines{skip});
  EXPECT_EQ(Access::training_job_counter(*backend_), 0);
}

TEST_F(TrainingJobs, AreSkippedWithoutSamples) {
  fill(2);
  Access::memory(*backend_).num_stored_samples = 0;
  EXPECT_EQ(printed([&] { schedule(5, 10, nullptr, 3); }),
            Lines{kTag + "frame=3 reason=unknown skip=no_samples iter=5 stored=0 cap=10"});
  EXPECT_FALSE(Access::training_in_flight(*backend_));
}

TEST_F(TrainingJobs, KeepTheFilterWhenTheSolverFails) {
  fill(4);
  const std::vector<float> before = filter();
  const Lines lines = printed([&] {
    ostrel::host_cuda::fail_every_call("cudaMalloc", static_cast<int>(cudaErrorMemoryAllocation));
    schedule(5, 10, "periodic", 1);
    wait_for_job();
  });
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_EQ(lines[2].rfind(kTag + "GPU filter trainer failed: ", 0), 0U);
  EXPECT_NE(lines[2].find(cudaGetErrorString(cudaErrorMemoryAllocation)), std::string::npos);
  EXPECT_EQ(lines[3],
            kTag + "job=1 frame=1 reason=periodic done status=failed iter=5 stored=4 selected=4 elapsed=T");
  EXPECT_EQ(filter(), before);
  EXPECT_EQ(filter_version(), 7U);
  EXPECT_FALSE(Access::training_in_flight(*backend_));
}

TEST_F(TrainingJobs, RecoverWithTheNextOne) {
  fill(4);
  const Lines lines = printed([&] {
    ostrel::host_cuda::fail_every_call("cudaMalloc", static_cast<int>(cudaErrorMemoryAllocation));
    schedule(1, 10, "periodic", 1);
    wait_for_job();
    ostrel::host_cuda::clear_faults();
    schedule(1, 10, "periodic", 2);
    wait_for_job();
  });
  EXPECT_NE(lines.back().find("job=2 frame=2 reason=periodic done status=ok"), std::string::npos);
  EXPECT_EQ(filter_version(), 8U);
}

TEST_F(TrainingJobs, ReportAnExceptionWithTheCountsOfScheduling) {
  fill(4);
  // A sample that no memory can hold: copying it throws.
  SampleMemory& memory = Access::memory(*backend_);
  memory.memory_channels = memory.memory_height = std::numeric_limits<int>::max();
  memory.memory_label_height = memory.memory_height;
  memory.memory_width = memory.memory_label_width = 1;
  const Lines lines = printed([&] {
    schedule(5, 1, "periodic", 8);
    wait_for_job();
  });
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[2].rfind(kTag + "job=1 frame=8 reason=periodic exception=", 0), 0U);
  EXPECT_EQ(lines[2].find("exception= "), std::string::npos);
  EXPECT_EQ(lines[2].find("exception=unknown"), std::string::npos);
  EXPECT_NE(lines[2].find(" stored=4 selected=1 elapsed=T"), std::string::npos);
  EXPECT_FALSE(Access::training_in_flight(*backend_));
  EXPECT_EQ(Access::active_training_job(*backend_), 0);
  EXPECT_NO_THROW(Access::training_future(*backend_).get());
  EXPECT_TRUE(Access::state_mutex(*backend_).try_lock());
  Access::state_mutex(*backend_).unlock();
}

TEST_F(TrainingJobs, GoOnAfterOneThatThrew) {
  fill(4);
  leave_failed_job(std::runtime_error("device lost"));
  Lines lines = printed([&] {
    schedule(1, 10, "periodic", 5);
    wait_for_job();
  });
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_EQ(lines[0], kTag + "frame=5 reason=periodic previous_job_exception=device lost");
  EXPECT_NE(lines[3].find("done status=ok"), std::string::npos);

  leave_failed_job(17);
  lines = printed([&] {
    schedule(1, 10, nullptr, 6);
    wait_for_job();
  });
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_EQ(lines[0], kTag + "frame=6 reason=unknown previous_job_exception=unknown");
}

TEST_F(TrainingJobs, StayMarkedAsRunningWhenTheirThreadCannotStart) {
  fill(4);
  const Lines lines = printed([&] {
    ostrel::host_cuda::fail_call("pthread_create", 1, EAGAIN);
    EXPECT_THROW(schedule(1, 10, "periodic", 1), std::system_error);
    schedule(1, 10, "periodic", 2);
  });
  EXPECT_EQ(lines, (Lines{kTag + "job=1 frame=1 reason=periodic schedule iter=1 stored=4 selected=4 cap=10",
                          kTag + "frame=2 reason=periodic skip=busy active_job=1 iter=1 cap=10"}));
  EXPECT_TRUE(Access::training_in_flight(*backend_));
  EXPECT_FALSE(Access::training_future(*backend_).valid());
}

TEST_F(TrainingJobs, AreAwaitedByTheEndOfTheBackend) {
  fill(4);
  std::atomic<bool> destroyed{false};
  const Lines lines = printed([&] {
    std::unique_lock<std::mutex> solver(Access::filter_trainer_mutex(*backend_));
    schedule(1, 10, "periodic", 1);
    std::thread destroyer([&] {
      backend_.reset();
      destroyed = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_FALSE(destroyed);
    solver.unlock();
    destroyer.join();
  });
  EXPECT_TRUE(destroyed);
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_THAT(lines, Contains(kTag + "shutdown wait active_job=1"));
  EXPECT_NE(lines[3].find("done status=ok"), std::string::npos);
}

TEST_F(TrainingJobs, ThatEndedUnclaimedAreToldAtTheEndOfTheBackendToo) {
  fill(4);
  const Lines lines = printed([&] {
    schedule(1, 10, "periodic", 1);
    wait_for_job();
    backend_.reset();
  });
  EXPECT_EQ(lines.back(), kTag + "shutdown wait active_job=0");
}

TEST_F(TrainingJobs, ThatThrewDoNotHinderTheEndOfTheBackend) {
  leave_failed_job(std::runtime_error("device lost"));
  EXPECT_EQ(printed([&] { backend_.reset(); }), Lines{kTag + "shutdown wait active_job=0"});
}

TEST_F(TrainingJobs, LeaveABackendWithoutOneSilent) {
  EXPECT_EQ(printed([&] { backend_.reset(); }), Lines{});
}

TEST_F(TrainingJobs, RunBesideStoresAndClassifications) {
  fill(4);
  const std::size_t size = filter().size();
  printed([&] {
    for (int frame = 1; frame <= 40; ++frame) {
      EXPECT_FALSE(Access::classify_feature(*backend_, feature(frame)).empty());
      EXPECT_TRUE(Access::store_training_sample(*backend_, feature(frame), label(frame), 0.05F));
      EXPECT_EQ(filter().size(), size);
      schedule(3, 4, "periodic", frame);
    }
    wait_for_job();
  });
  EXPECT_GT(filter_version(), 7U);
  EXPECT_EQ(Access::memory(*backend_).num_stored_samples, 44);
}

// Who waits while another thread holds the lock, and who does not.
class StateLock : public TrainingFixture {
 protected:
  // Whether `action` goes through only after the lock is free.
  template <typename Action>
  bool waits(const Action& action) {
    std::atomic<bool> begun{false};
    std::atomic<bool> through{false};
    std::unique_lock<std::mutex> lock(Access::state_mutex(*backend_));
    std::thread other([&] {
      begun = true;
      action();
      through = true;
    });
    while (!begun) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const bool held_up = !through;
    lock.unlock();
    other.join();
    return held_up && through;
  }
};

TEST_F(StateLock, GuardsMemoryFilterAndConfiguration) {
  fill(3);
  EXPECT_TRUE(waits([&] { fill(2); }));
  EXPECT_TRUE(waits([&] { Access::store_training_sample(*backend_, feature(5), label(5), 0.1F); }));
  EXPECT_TRUE(waits([&] { Access::classify_feature(*backend_, feature(5)); }));
  EXPECT_TRUE(waits([&] { Access::train_filter_from_memory(*backend_, 1, 0, nullptr, nullptr); }));
  EXPECT_TRUE(waits([&] { Access::adopt_filter(*backend_, std::vector<float>(8, 0.5F)); }));
  EXPECT_TRUE(waits([&] {
    NativeCppBackend::Config wanted = config();
    wanted.learning_rate = 0.5F;
    backend_->updateConfig(&wanted, nullptr);
  }));
  EXPECT_EQ(Access::state(*backend_).config.learning_rate, 0.5F);
}

TEST_F(StateLock, IsNotTakenByCorrectionsFromOutside) {
  TargetState& state = Access::state(*backend_);
  state.initialized = state.runtime_initialized = true;
  state.image_size = {100, 80};
  state.base_target_size = {10.0F, 10.0F};
  const std::lock_guard<std::mutex> lock(Access::state_mutex(*backend_));
  EXPECT_TRUE(backend_->teleport({40.0F, 30.0F, 20.0F, 20.0F}, nullptr, nullptr));
  EXPECT_TRUE(backend_->zoomChanged(1.5F, nullptr, nullptr));
}

}  // namespace
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
