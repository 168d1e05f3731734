// What a profiler shows of a start, a frame and a training: the names, how they nest, and that every range that is
// opened is closed on its thread, also where a stage fails.

#include <host_cuda/control.h>

#include <algorithm>
#include <map>
#include <thread>
#include <vector>

#include "tracking_runtime/tracker/atom/gpu/profiler_range.h"
#include "tracking_runtime/tracker/atom/track_fixture.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace track_test {
namespace {

using Names = std::vector<std::string>;

/// The ranges of each thread in the order of their opening, two spaces deeper per level.
std::map<std::thread::id, Names> ranges_by_thread(const std::vector<host_cuda::RangeNote>& notes) {
  std::map<std::thread::id, Names> names;
  std::map<std::thread::id, std::size_t> depths;
  for (const host_cuda::RangeNote& note : notes) {
    std::size_t& depth = depths[note.thread];
    if (!note.is_pop) {
      names[note.thread].push_back(std::string(2 * depth++, ' ') + note.name);
    } else if (depth == 0) {
      ADD_FAILURE() << "a range is closed that was not opened";
    } else {
      --depth;
    }
  }
  for (const auto& [thread, depth] : depths) EXPECT_EQ(depth, 0U) << "a range is left open";
  return names;
}

class ProfilerRanges : public BackendTracking {
 protected:
  ~ProfilerRanges() override { host_cuda::stop_range_notes(); }

  template <typename Action>
  static std::map<std::thread::id, Names> ranges_of(Action&& action) {
    host_cuda::start_range_notes();
    action();
    return ranges_by_thread(host_cuda::stop_range_notes());
  }
  /// Of the calling thread alone.
  template <typename Action>
  static Names own_ranges_of(Action&& action) {
    return ranges_of(action)[std::this_thread::get_id()];
  }
};

const Names kSteadyViewFrame = {
    "ostrel frame",
    "  ostrel crops",
    "  ostrel backbone",
    "  ostrel projection and correlation",
    "  ostrel results to host",
    "  ostrel upsampling and peaks",
    "  ostrel analysis",
    "  ostrel sample and schedule",
};

TEST_F(ProfilerRanges, ShowTheStagesOfAFrameInTheirOrder) {
  Tracked tracked;
  const auto frame = picture(scene(Tracked::start));
  tracked.view(frame);  // uploads the weights
  EXPECT_EQ(own_ranges_of([&] { tracked.view(frame); }), kSteadyViewFrame);
}

TEST_F(ProfilerRanges, ShowTheUploadOfWeightsThatChanged) {
  Tracked tracked;
  const Names names = own_ranges_of([&] { tracked.view(picture(scene(Tracked::start))); });
  ASSERT_GT(names.size(), 2U);
  EXPECT_EQ(names[2], "  ostrel weight upload");
}

TEST_F(ProfilerRanges, ShowTheStagesOfAFrameOnTheHost) {
  Config config = tiny_config();
  config.search_scales = {1.0F};
  Tracked tracked(config);
  tracked.image(scene(Tracked::start));
  const Names expected = {"ostrel frame",
                          "  ostrel crops",
                          "  ostrel patch upload",
                          "  ostrel backbone",
                          "  ostrel projection and correlation",
                          "  ostrel results to host",
                          "  ostrel upsampling and peaks",
                          "  ostrel analysis",
                          "  ostrel sample and schedule"};
  EXPECT_EQ(own_ranges_of([&] { tracked.image(scene(Tracked::start)); }), expected);
}

TEST_F(ProfilerRanges, AreClosedWhereAStageFails) {
  const struct {
    const char* call;
    int n;
    const char* last;
  } rows[] = {{"cudaStreamSynchronize", 1, "  ostrel weight upload"},
              {"enqueueV3", 1, "  ostrel backbone"},
              {"project_features_kernel", 1, "  ostrel projection and correlation"},
              {"cudaStreamSynchronize", 2, "  ostrel results to host"}};
  for (const auto& row : rows) {
    Tracked tracked;
    const auto frame = picture(scene(Tracked::start));
    host_cuda::fail_call(row.call, row.n, cudaErrorLaunchFailure);
    const Names names = own_ranges_of([&] { tracked.view(frame); });
    EXPECT_EQ(names.front(), "ostrel frame") << row.call;
    EXPECT_EQ(names.back(), row.last) << row.call;
    host_cuda::clear_faults();
  }
}

TEST_F(ProfilerRanges, ShowATrainingOnItsOwnThread) {
  Config config = tiny_config();
  config.frames_between_learning = 1;
  const auto by_thread = ranges_of([&] {
    Tracked tracked(config);
    tracked.view(picture(scene(Tracked::start)));
  });  // the end of the backend waits for the job
  ASSERT_EQ(by_thread.size(), 2U);
  for (const auto& [thread, names] : by_thread) {
    if (thread == std::this_thread::get_id()) continue;
    EXPECT_EQ(names, (Names{"ostrel training", "  ostrel filter solve"}));
  }
}

TEST_F(ProfilerRanges, ShowTheStagesOfAStart) {
  Config config = tiny_config();
  config.proj_init_method = "randn";
  config.startup_box_refinement_iterations = 2;
  const Names names = own_ranges_of([&] { Tracked tracked(config); });
  const Names expected = {
      "ostrel start",
      "  ostrel start: engine",
      "  ostrel crops",
      "  ostrel start: template",
      "    ostrel patch upload",
      "    ostrel backbone",
      "  ostrel start: first projection",
      "  ostrel start: first filter",
      "  ostrel start: augmentation",
      "  ostrel start: features",
      "    ostrel patch upload",
      "    ostrel backbone",
      "    ostrel patch upload",
      "    ostrel backbone",
      "  ostrel joint fit",
      "    ostrel joint fit: Gauss-Newton step",
      "    ostrel joint fit: Gauss-Newton step",
      "  ostrel start: first training",
      "    ostrel filter solve",
      "  ostrel results to host",
  };
  EXPECT_EQ(names, expected);
}

TEST_F(ProfilerRanges, ShowTheStagesOfAStartOnTheHostPath) {
  Config config = tiny_config();
  config.update_projection_matrix = false;
  const Names names = own_ranges_of([&] { Tracked tracked(config); });
  const Names tail = {"  ostrel start: first training", "    ostrel filter solve"};
  ASSERT_GT(names.size(), 2U);
  EXPECT_EQ(Names(names.end() - 2, names.end()), tail);
  EXPECT_NE(std::find(names.begin(), names.end(), "  ostrel start: features"), names.end());
}

}  // namespace
}  // namespace track_test
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
