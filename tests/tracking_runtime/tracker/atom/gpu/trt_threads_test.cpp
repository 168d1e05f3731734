// Several trackers of one process: one engine, private workers; and weights that change while a frame runs.
#include <atomic>
#include <thread>

#include "classify_fixture.h"
#include "tracking_runtime/tracker/atom/gpu/trt_forward.h"

namespace ostrel_test {
namespace {

/// One tracker's share, on a thread of its own.
struct Tracker {
  std::unique_ptr<TrtBackbone> trt;
  std::vector<std::unique_ptr<TrtBackbone>> trt_workers;
  std::mutex state_mutex;
  ClassifierState weights = random_weights(6, 4, 4, 4);
  atom::ClassifyScratch scratch;
  std::vector<cv::Mat> responses;
  std::vector<FeatureMap> features;
  std::string error;

  bool start(const std::string& path, std::size_t scales) {
    return atom::make_trt_workers({path, 32, scales}, &trt, &trt_workers, &error);
  }
  bool classify(const std::vector<cv::Mat>& patches) {
    return atom::classify_patches(trt, trt_workers, patches, {state_mutex, weights, true}, &scratch,
                                  {&responses, &features}, &error);
  }
};

class TrtThreads : public EngineTest {};

TEST_F(TrtThreads, TwoStartsOfOnePathShareOneEngine) {
  const std::string path = write_engine({});
  Tracker trackers[2];
  bool started[2] = {};
  ::testing::internal::CaptureStderr();
  std::thread other([&] { started[1] = trackers[1].start(path, 3); });
  started[0] = trackers[0].start(path, 3);
  other.join();
  const std::string text = ::testing::internal::GetCapturedStderr();
  ASSERT_TRUE(started[0] && started[1]) << trackers[0].error << trackers[1].error;
  EXPECT_EQ(trackers[0].trt->engine_entry, trackers[1].trt->engine_entry);
  const auto count = [&text](const std::string& word) {
    std::size_t found = 0;
    for (auto at = text.find(word); at != std::string::npos; at = text.find(word, at + 1)) ++found;
    return found;
  };
  EXPECT_EQ(count("cache=miss"), 1U) << "the first to insert wins";
  EXPECT_EQ(count("cache=hit"), 1U);
}

TEST_F(TrtThreads, TwoTrackersRunOnOneEngineAtOnce) {
  const StridedEngine engine = engine_of_batch(1);
  const std::string path = write_engine(engine);
  constexpr int kFrames = 20;
  const auto track = [&](std::uint32_t seed) {
    Tracker tracker;
    ASSERT_TRUE(tracker.start(path, 3)) << tracker.error;
    for (int frame = 0; frame < kFrames; ++frame) {
      const std::vector<cv::Mat> patches = random_patches(3, seed + static_cast<std::uint32_t>(frame));
      ASSERT_TRUE(tracker.classify(patches)) << tracker.error;
      for (std::size_t i = 0; i < 3; ++i) {
        const FeatureMap projected = expected_projection(engine.expected(1, patches[i]), tracker.weights);
        expect_same_features(projected, tracker.features[i]);
        expect_response(projected, tracker.weights, tracker.responses[i]);
      }
    }
  };
  std::thread other(track, 1000);
  track(1);
  other.join();
}

TEST_F(TrtThreads, AClassificationSeesTheWholeOldFilterOrTheWholeNewOne) {
  const StridedEngine engine = engine_of_batch(1);
  Tracker tracker;
  ASSERT_TRUE(tracker.start(write_engine(engine), 1)) << tracker.error;
  const std::size_t filter_size = tracker.weights.filter_weights.size();
  const std::vector<cv::Mat> patches = random_patches(1);
  // Every filter is one number throughout, so that a response to a mixture is no multiple of the first.
  tracker.weights.filter_weights.assign(filter_size, 1.0F);
  ASSERT_TRUE(tracker.classify(patches)) << tracker.error;
  const cv::Mat unit = tracker.responses[0].clone();
  std::atomic<bool> stop{false};
  std::thread trainer([&] {
    for (int round = 2; !stop; round = round % 8 + 1) {
      std::vector<float> filter(filter_size, static_cast<float>(round));
      const std::lock_guard<std::mutex> lock(tracker.state_mutex);
      tracker.weights.filter_weights.swap(filter);
      ++tracker.weights.filter_version;
    }
  });
  for (int frame = 0; frame < 100; ++frame) {
    const bool classified = tracker.classify(patches);
    EXPECT_TRUE(classified) << tracker.error;
    if (!classified) break;
    const float factor = tracker.scratch.snapshot.filter_weights.front();
    EXPECT_LT(cv::norm(unit * factor, tracker.responses[0], cv::NORM_INF), 8 * kResponseTolerance);
  }
  stop = true;
  trainer.join();
}

}  // namespace
}  // namespace ostrel_test
