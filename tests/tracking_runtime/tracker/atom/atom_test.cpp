#include "tracking_runtime/tracker/atom/atom.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/config_text.h"
#include "tracking_runtime/tracker/atom/atom_fixture.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

using ostrel_test::config_text;
using ostrel_test::FakeBackendScript;

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr base::BBox kStartBox{100.0F, 90.0F, 48.0F, 40.0F};

class Facade : public AtomFixture {
 protected:
  void start() { ASSERT_TRUE(atom_.initialize(image(), kStartBox).ok); }
  AtomTrackResult track_view(int offset_x = 0, int offset_y = 0) {
    return atom_.trackViewWithOffset(view(), 1.0F, 1.0F, 640, 480, offset_x, offset_y);
  }
  const base::BBox& last_bbox() const { return AtomTestAccess::last_bbox(atom_); }

  ATOM atom_{config_with_backend("cuda")};
};

TEST_F(Facade, BeginsNotInitialized) {
  EXPECT_FALSE(AtomTestAccess::initialized(atom_));
  EXPECT_EQ(AtomTestAccess::frame_size(atom_), cv::Size_<float>(0.0F, 0.0F));
  expect_box(last_bbox(), 0.0F, 0.0F, 0.0F, 0.0F);
  EXPECT_EQ(seen().made, 0);
}

TEST_F(Facade, StartsABackendOnTheRoundedBox) {
  const AtomInitResult result = atom_.initialize(image(), {10.5F, 20.4F, 30.5F, 40.0F});
  EXPECT_TRUE(result.ok);
  EXPECT_EQ(result.message, "ok_atom_native_cpp_backend");
  EXPECT_EQ(seen().init_rect, cv::Rect(11, 20, 31, 40));
  EXPECT_EQ(seen().image_size, cv::Size(640, 480));
  EXPECT_TRUE(AtomTestAccess::initialized(atom_));
  EXPECT_EQ(AtomTestAccess::frame_size(atom_), cv::Size_<float>(640.0F, 480.0F));
  expect_box(last_bbox(), 11.0F, 20.0F, 31.0F, 40.0F);
}

TEST_F(Facade, AcceptsABoxOfTwoByTwoInAFrameOfOnePixel) {
  EXPECT_TRUE(atom_.initialize(image(1, 1), {0.0F, 0.0F, 2.0F, 2.0F}).ok);
  EXPECT_EQ(seen().init_rect, cv::Rect(0, 0, 1, 1));
}

TEST_F(Facade, RefusesBoxesThatCannotBeSearchedFor) {
  const std::vector<base::BBox> boxes = {{10.0F, 10.0F, 1.0F, 5.0F},  {10.0F, 10.0F, 5.0F, 1.0F},
                                         {kNan, 10.0F, 5.0F, 5.0F},   {10.0F, kNan, 5.0F, 5.0F},
                                         {10.0F, 10.0F, kNan, 5.0F},  {10.0F, 10.0F, 5.0F, kInfinity},
                                         {10.0F, 10.0F, -5.0F, 5.0F}, {-kInfinity, 10.0F, 5.0F, 5.0F}};
  for (const base::BBox& box : boxes) {
    const AtomInitResult result = atom_.initialize(image(), box);
    EXPECT_FALSE(result.ok);
    EXPECT_EQ(result.message, "initialize failed: invalid init bbox");
  }
  EXPECT_EQ(seen().made, 0);
}

TEST_F(Facade, KeepsTrackingThroughARefusedStart) {
  start();
  EXPECT_EQ(atom_.initialize(cv::Mat(), kStartBox).message, "initialize failed: empty image");
  EXPECT_EQ(atom_.initialize(image(8, 8), {0.0F, 0.0F, 1.0F, 1.0F}).message,
            "initialize failed: invalid init bbox");
  EXPECT_EQ(AtomTestAccess::frame_size(atom_), cv::Size_<float>(640.0F, 480.0F));
  EXPECT_TRUE(atom_.track(image()).ok);
}

TEST_F(Facade, IsNotInitializedAfterABackendFailedToStart) {
  start();
  fakes().set([](FakeBackendScript& script) { script.initialize = {false, "no engine", {}, 0.0F}; });
  const AtomInitResult result = atom_.initialize(image(320, 240), kStartBox);
  EXPECT_FALSE(result.ok);
  EXPECT_EQ(result.message, "initialize failed: no engine");
  EXPECT_EQ(atom_.track(image()).status, "not_initialized");
  EXPECT_EQ(AtomTestAccess::frame_size(atom_), cv::Size_<float>(320.0F, 240.0F));
  EXPECT_EQ(seen().alive, 1);  // the failed one stays, the old one is gone
  EXPECT_EQ(seen().made, 2);
}

TEST_F(Facade, IsNotInitializedAfterABackendThrewAtStart) {
  start();
  fakes().set([](FakeBackendScript& script) {
    script.on_call = [](const std::string&) { throw std::runtime_error("out of memory"); };
  });
  EXPECT_THROW(atom_.initialize(image(), kStartBox), std::runtime_error);
  EXPECT_EQ(atom_.track(image()).status, "not_initialized");
}

TEST_F(Facade, DestroysTheOldBackendBeforeItMakesTheNext) {
  start();
  int alive_at_start = 0;
  fakes().set([&](FakeBackendScript& script) {
    script.on_call = [&](const std::string&) { alive_at_start = seen().alive; };
  });
  start();
  EXPECT_EQ(alive_at_start, 1);
  EXPECT_EQ(seen().made, 2);
}

TEST_F(Facade, NamesAnUnsupportedBackend) {
  ATOM atom(config_with_backend("cpu"));
  EXPECT_EQ(atom.initialize(image(), kStartBox).message,
            "initialize failed: unsupported ATOM runtime backend: cpu");
}

TEST_F(Facade, MeasuresEveryStartInWholeMicroseconds) {
  fakes().set([](FakeBackendScript& script) {
    script.on_call = [](const std::string&) { std::this_thread::sleep_for(std::chrono::milliseconds(3)); };
  });
  const double started_ms = atom_.initialize(image(), kStartBox).init_time_ms;
  EXPECT_GE(started_ms, 3.0);
  EXPECT_NEAR(started_ms * 1000.0, std::round(started_ms * 1000.0), 1e-6);
  EXPECT_GE(atom_.initialize(cv::Mat(), kStartBox).init_time_ms, 0.0);
}

TEST_F(Facade, TakesTheEngineOfTheEnvironmentAtEveryStart) {
  const std::string configured = AtomTestAccess::config(atom_).trt_engine_path;
  ::setenv(kEngineVariable, "other.engine", 1);
  start();
  EXPECT_EQ(seen().made_with.trt_engine_path, "other.engine");
  EXPECT_EQ(AtomTestAccess::config(atom_).trt_engine_path, configured);
  ::setenv(kEngineVariable, "", 1);
  start();
  EXPECT_EQ(seen().made_with.trt_engine_path, configured);
  ::unsetenv(kEngineVariable);
  start();
  EXPECT_EQ(seen().made_with.trt_engine_path, configured);
}

TEST_F(Facade, ChecksAnImageInOrder) {
  EXPECT_EQ(atom_.track(cv::Mat()).status, "not_initialized");
  start();
  EXPECT_EQ(atom_.track(cv::Mat()).status, "empty_image");
  AtomTestAccess::drop_backend(&atom_);
  EXPECT_EQ(atom_.track(cv::Mat()).status, "empty_image");
  const AtomTrackResult result = atom_.track(image());
  EXPECT_EQ(result.status, "missing_backend");
  EXPECT_FALSE(result.ok);
}

TEST_F(Facade, ChecksAViewInOrder) {
  EXPECT_EQ(atom_.trackViewWithOffset(nullptr, 1.0F, 1.0F, 1, 1, 0, 0).status, "not_initialized");
  start();
  EXPECT_EQ(atom_.trackViewWithOffset(nullptr, 1.0F, 1.0F, 1, 1, 0, 0).status, "null_frame_view");
  AtomTestAccess::drop_backend(&atom_);
  EXPECT_EQ(atom_.trackViewWithOffset(nullptr, 1.0F, 1.0F, 1, 1, 0, 0).status, "null_frame_view");
  EXPECT_EQ(track_view().status, "missing_backend");
}

TEST_F(Facade, HandsAViewOnUnchanged) {
  start();
  const auto picture = view();
  EXPECT_TRUE(atom_.trackViewWithOffset(picture, 1.5F, 2.5F, 320, 240, 0, 0).ok);
  EXPECT_EQ(seen().view, picture.get());
  EXPECT_EQ(seen().view_scale, cv::Point_<float>(1.5F, 2.5F));
  EXPECT_EQ(seen().frame_size, cv::Size(320, 240));
}

TEST_F(Facade, PublishesTheBoxInFrameCoordinates) {
  start();
  const AtomTrackResult from_image = atom_.trackWithOffset(image(), 5, -3);
  EXPECT_TRUE(from_image.ok);
  expect_box(from_image.bbox, 15.0F, 17.0F, 30.0F, 40.0F);
  expect_box(last_bbox(), 15.0F, 17.0F, 30.0F, 40.0F);
  expect_box(track_view(7, 1).bbox, 17.0F, 21.0F, 30.0F, 40.0F);
}

TEST_F(Facade, ClampsTheBoxToTheFrameThatStartedIt) {
  start();
  expect_box(atom_.trackWithOffset(image(2000, 2000), 1000, 1000).bbox, 610.0F, 440.0F, 30.0F, 40.0F);
  expect_box(track_view(-1000, -1000).bbox, 0.0F, 0.0F, 30.0F, 40.0F);
}

TEST_F(Facade, FallsBackToAFrameThatHoldsImageAndBoxWithoutAStoredSize) {
  start();
  for (const auto& [width, height] :
       std::vector<std::pair<float, float>>{{0.0F, 0.0F}, {0.0F, 20.0F}, {20.0F, 0.4F}}) {
    AtomTestAccess::set_frame_size(&atom_, width, height);
    fakes().set([](FakeBackendScript& script) { script.track.bbox = {10.25F, 20.0F, 30.5F, 40.0F}; });
    expect_box(atom_.track(image(100, 30)).bbox, 10.25F, 20.0F, 30.5F, 40.0F);
    fakes().set([](FakeBackendScript& script) { script.track.bbox = {-500.0F, -500.0F, 200.0F, 200.0F}; });
    expect_box(atom_.track(image(100, 30)).bbox, 0.0F, 0.0F, 100.0F, 30.0F);
    expect_box(track_view().bbox, 0.0F, 0.0F, 1.0F, 1.0F);
  }
}

TEST_F(Facade, ClampsTheScore) {
  start();
  for (const auto& [given, published] : std::vector<std::pair<float, float>>{
           {1.7F, 1.0F}, {-0.2F, 0.0F}, {0.4F, 0.4F}, {kNan, 0.0F}, {kInfinity, 1.0F}}) {
    fakes().set([given = given](FakeBackendScript& script) { script.track.score = given; });
    EXPECT_EQ(atom_.track(image()).score, published);
    EXPECT_EQ(track_view().score, published);
  }
}

TEST_F(Facade, PassesStatusWordsOnAndFillsSilence) {
  start();
  EXPECT_EQ(atom_.track(image()).status, "ok_atom_native_cpp_backend");
  EXPECT_EQ(track_view().status, "ok_atom_native_cpp_backend");
  fakes().set([](FakeBackendScript& script) { script.track.text = "target_not_found_hold"; });
  EXPECT_EQ(atom_.track(image()).status, "target_not_found_hold");
  EXPECT_TRUE(track_view().ok);
  fakes().set([](FakeBackendScript& script) { script.track = {false, "", {}, 0.5F}; });
  EXPECT_EQ(atom_.track(image()).status, "native_cpp_track_failed");
  fakes().set([](FakeBackendScript& script) { script.track.text = "gpu_lost"; });
  EXPECT_EQ(track_view().status, "gpu_lost");
}

TEST_F(Facade, KeepsTheLastBoxThroughAFailedFrame) {
  start();
  fakes().set([](FakeBackendScript& script) { script.track.ok = false; });
  const AtomTrackResult result = atom_.track(image());
  EXPECT_FALSE(result.ok);
  EXPECT_EQ(result.score, 0.0F);
  expect_box(result.bbox, 0.0F, 0.0F, 0.0F, 0.0F);
  expect_box(last_bbox(), 100.0F, 90.0F, 48.0F, 40.0F);
}

TEST_F(Facade, ChecksATeleportInOrder) {
  std::string status;
  const base::BBox bad{kNan, 0.0F, 5.0F, 5.0F};
  EXPECT_FALSE(atom_.teleport(bad, &status));
  EXPECT_EQ(status, "not_initialized");
  start();
  for (const base::BBox& box :
       {bad, base::BBox{0.0F, 0.0F, 1.0F, 5.0F}, base::BBox{0.0F, 0.0F, 5.0F, 1.0F}}) {
    EXPECT_FALSE(atom_.teleport(box, &status));
    EXPECT_EQ(status, "invalid_expected_bbox");
  }
  AtomTestAccess::drop_backend(&atom_);
  EXPECT_FALSE(atom_.teleport(bad, &status));
  EXPECT_EQ(status, "missing_backend");
  EXPECT_FALSE(atom_.teleport(bad, nullptr));
}

TEST_F(Facade, TakesTheTeleportedBoxAsItIs) {
  start();
  fakes().set([](FakeBackendScript& script) {
    script.teleport = {true, "teleport_ok", {-50.0F, 1.0F, 9000.0F, 4.0F}, 0.0F};
  });
  std::string status;
  EXPECT_TRUE(atom_.teleport(kStartBox, &status));
  EXPECT_EQ(status, "teleport_ok");
  expect_box(last_bbox(), -50.0F, 1.0F, 9000.0F, 4.0F);
  fakes().set([](FakeBackendScript& script) { script.teleport = {false, "unknown_frame_size", {}, 0.0F}; });
  EXPECT_FALSE(atom_.teleport(kStartBox, &status));
  EXPECT_EQ(status, "unknown_frame_size");
  expect_box(last_bbox(), -50.0F, 1.0F, 9000.0F, 4.0F);
}

TEST_F(Facade, ChecksAZoomInOrder) {
  std::string status;
  EXPECT_FALSE(atom_.zoomChanged(0.0F, &status));
  EXPECT_EQ(status, "not_initialized");
  start();
  for (const float factor : {0.0F, -1.0F, kNan, kInfinity}) {
    EXPECT_FALSE(atom_.zoomChanged(factor, &status));
    EXPECT_EQ(status, "invalid_scale_factor");
  }
  AtomTestAccess::drop_backend(&atom_);
  EXPECT_FALSE(atom_.zoomChanged(0.0F, &status));
  EXPECT_EQ(status, "missing_backend");
  EXPECT_FALSE(atom_.zoomChanged(2.0F, nullptr));
}

TEST_F(Facade, TakesTheBoxOfAZoom) {
  start();
  EXPECT_TRUE(atom_.zoomChanged(1.5F, nullptr));
  EXPECT_EQ(seen().scale_factor, 1.5F);
  expect_box(last_bbox(), 10.0F, 20.0F, 30.0F, 40.0F);
}

TEST_F(Facade, TakesAnyRecordBeforeTheStartAndUsesItThere) {
  NativeCppBackend::Config config = config_with_backend("nonsense");
  std::string status = "untouched";
  EXPECT_TRUE(atom_.updateConfig(config, &status));
  EXPECT_EQ(status, "untouched");
  config.runtime_backend = "";
  config.search_size = 64;
  EXPECT_TRUE(atom_.updateConfig(config, nullptr));
  start();
  EXPECT_EQ(config_text(seen().made_with), config_text(config));
}

TEST_F(Facade, AdoptsTheRecordThatTheBackendCorrected) {
  start();
  fakes().set([](FakeBackendScript& script) {
    script.update_config.text = "search_size requires reinit";
    script.correct_config = [](NativeCppBackend::Config* config) { config->search_size = 288; };
  });
  NativeCppBackend::Config config = config_with_backend("cuda");
  config.search_size = 64;
  config.learning_rate = 0.5F;
  std::string status;
  EXPECT_TRUE(atom_.updateConfig(config, &status));
  EXPECT_EQ(status, "search_size requires reinit");
  EXPECT_EQ(AtomTestAccess::config(atom_).search_size, 288);
  EXPECT_EQ(AtomTestAccess::config(atom_).learning_rate, 0.5F);
  fakes().set([](FakeBackendScript& script) { script.update_config.ok = false; });
  config.learning_rate = 0.75F;
  EXPECT_FALSE(atom_.updateConfig(config, &status));
  EXPECT_EQ(AtomTestAccess::config(atom_).learning_rate, 0.5F);
}

TEST_F(Facade, DestroysItsBackend) {
  {
    ATOM atom(config_with_backend("cuda"));
    ASSERT_TRUE(atom.initialize(image(), kStartBox).ok);
    EXPECT_EQ(seen().alive, 1);
  }
  EXPECT_EQ(seen().alive, 0);
}

}  // namespace
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
