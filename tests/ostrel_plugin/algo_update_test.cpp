#include <limits>
#include <stdexcept>

#include "ostrel_plugin/algo_fixture.h"
#include "ostrel_plugin/scripted_overlays.h"

namespace ostrel_test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

class AlgoUpdate : public AlgoTest {
 protected:
  void answerBox(float x, float y, float width, float height, float score = 0.9F) {
    script([&](FakeBackendScript& backend) {
      backend.track.bbox = {x, y, width, height};
      backend.track.score = score;
    });
  }
  void throwFromTracker(const std::function<void()>& what) {
    script([what](FakeBackendScript& backend) {
      backend.on_call = [what](const std::string& operation) {
        if (operation == "track_view") what();
      };
    });
  }
};

// --- Before the tracker

TEST_F(AlgoUpdate, SkipsBeforeAnyStartAndAlwaysSaysOk) {
  for (const bool with_picture : {false, true}) {
    EXPECT_THAT(update(with_picture ? makePicture() : nullptr), IsEmpty());
    EXPECT_EQ(status(), "update_skip_not_initialized");
    EXPECT_EQ(detail(), "");
  }
  EXPECT_EQ(stat("update_calls"), 2);
  EXPECT_EQ(property().at("frame_width"), 0);
}

TEST_F(AlgoUpdate, SkipsANullPictureOrAnEmptyVectorOnceItTracks) {
  startTracking();
  EXPECT_THAT(update(nullptr), IsEmpty());
  EXPECT_EQ(status(), "update_skip_no_frame");
  bool ok = false;
  EXPECT_THAT(publishedIn(algo->update({}, &ok)), IsEmpty());
  EXPECT_TRUE(ok);
  EXPECT_EQ(status(), "update_skip_no_frame");
  EXPECT_EQ(update(makePicture()).size(), 1U);
  EXPECT_EQ(status(), "track_ok");
}

TEST_F(AlgoUpdate, SkipsWhenTheTrackerIsGone) {
  startTracking();
  Access::tracker(*algo).reset();
  EXPECT_THAT(update(makePicture()), IsEmpty());
  EXPECT_EQ(status(), "update_skip_no_tracker_impl");
}

TEST_F(AlgoUpdate, SkipsATrackerThatWasNeverInstalled) {
  startTracking();
  Access::initialized(*algo) = false;
  EXPECT_THAT(update(makePicture()), IsEmpty());
  EXPECT_EQ(status(), "update_skip_not_initialized");
}

TEST_F(AlgoUpdate, SkipsWithoutAProcessingFrame) {
  startTracking();
  Access::processingWidth(*algo) = 0;
  EXPECT_THAT(update(makePicture()), IsEmpty());
  EXPECT_EQ(status(), "update_skip_invalid_proc_size");
}

TEST_F(AlgoUpdate, UsesOnlyTheFirstPicture) {
  startTracking();
  const PicturePtr first = makePicture();
  algo->update({first, makePicture(10, 10)}, nullptr);
  EXPECT_EQ(status(), "track_ok");
  EXPECT_EQ(asked().view, first.get());
}

TEST_F(AlgoUpdate, RefusesASmallerFrameUntilTheSizeReturns) {
  startTracking(makePicture(64, 48));
  for (const auto& size : {std::pair(62, 48), std::pair(64, 46), std::pair(10, 10)}) {
    EXPECT_THAT(update(makePicture(size.first, size.second)), IsEmpty());
    EXPECT_EQ(status(), "update_skip_source_size_changed");
    EXPECT_EQ(property().at("frame_width"), size.first);
  }
  EXPECT_EQ(property().at("source_width"), 64);
  EXPECT_EQ(update(makePicture(64, 48)).size(), 1U);
  EXPECT_EQ(status(), "track_ok");
}

TEST_F(AlgoUpdate, LetsAFrameThatIsLargerInBothDirectionsRaiseTheSource) {
  startTracking(makePicture(64, 48));
  EXPECT_EQ(update(makePicture(80, 60)).size(), 1U);
  EXPECT_EQ(property().at("source_width"), 80);
  EXPECT_EQ(property().at("source_height"), 60);
  EXPECT_EQ(property().at("tracker_input_width"), 64);  // the processing frame stays
  EXPECT_THAT(update(makePicture(64, 48)), IsEmpty());
  EXPECT_EQ(status(), "update_skip_source_size_changed");
}

TEST_F(AlgoUpdate, RefusesAFrameThatIsLargerInOneDirectionAndSmallerInTheOther) {
  startTracking(makePicture(64, 48));
  EXPECT_THAT(update(makePicture(80, 40)), IsEmpty());
  EXPECT_EQ(status(), "update_skip_source_size_changed");
  EXPECT_EQ(property().at("source_width"), 80);
  EXPECT_EQ(property().at("source_height"), 48);
}

TEST_F(AlgoUpdate, TakesTheSourceSizeForAFrameWithoutASize) {
  startTracking(makePicture(64, 48));
  answerBox(60, 44, 10, 10);
  const auto boxes = update(optrix::OptrixPicture::withoutPixels(0, 48));
  ASSERT_EQ(boxes.size(), 1U);
  EXPECT_TRUE(boxes[0].box == (::BBox{54, 38, 10, 10}));
  EXPECT_EQ(property().at("frame_width"), 64);
  EXPECT_EQ(property().at("frame_height"), 48);
}

// --- The tracker call

TEST_F(AlgoUpdate, HandsTheTrackerThePictureTheScalesAndTheProcessingFrame) {
  configure("processing/frame_scale", "0.5");
  startTracking(makePicture(100, 60));
  const PicturePtr picture = makePicture(100, 60);
  update(picture);
  const FakeBackendScript seen = asked();
  EXPECT_EQ(seen.view, picture.get());
  EXPECT_FLOAT_EQ(seen.view_scale.x, 2.0F);
  EXPECT_FLOAT_EQ(seen.view_scale.y, 2.0F);
  EXPECT_EQ(seen.frame_size, cv::Size(50, 30));
}

TEST_F(AlgoUpdate, PublishesTheTrackersBoxInFullFramePixels) {
  configure("processing/frame_scale", "0.5");
  algo->setConfig(R"({"target":{"class_id":3,"tracker_id":65535,"class_name":"boat"}})");
  answerBox(5.2F, 6.3F, 10.4F, 11.6F, 0.7F);
  const auto boxes = startTracking(makePicture(100, 80));
  ASSERT_EQ(boxes.size(), 1U);
  EXPECT_TRUE(boxes[0].box == (::BBox{10, 13, 21, 23}));  // 10.4, 12.6, 20.8, 23.2
  EXPECT_EQ(boxes[0].class_id, 3);
  EXPECT_EQ(boxes[0].class_name, "boat");
  EXPECT_EQ(boxes[0].class_info, "");
  EXPECT_EQ(boxes[0].tracker_id, 65535);
  EXPECT_EQ(boxes[0].score, static_cast<double>(0.7F));
  const auto state = property();
  EXPECT_EQ(state.at("bbox"), nlohmann::json({10, 13, 21, 23}));
  EXPECT_EQ(state.at("raw_bbox"), nlohmann::json({10.4, 12.6, 20.8, 23.2}));
  EXPECT_EQ(state.at("score"), 0.7);
  EXPECT_EQ(state.at("raw_score"), 0.7);
  EXPECT_EQ(state.at("debug_frame_counter"), 1);
  EXPECT_EQ(status(), "track_ok");
  EXPECT_EQ(detail(), "ok_atom_native_cpp_backend");
  EXPECT_EQ(stat("track_ok"), 1);
}

TEST_F(AlgoUpdate, RoundsHalvesAwayFromZero) {
  answerBox(2.5F, 3.5F, 4.5F, 5.5F);
  const auto boxes = startTracking();
  ASSERT_EQ(boxes.size(), 1U);
  EXPECT_TRUE(boxes[0].box == (::BBox{3, 4, 5, 6}));
}

TEST_F(AlgoUpdate, SurvivesABoxThatIsNoNumber) {
  startTracking();
  answerBox(std::numeric_limits<float>::quiet_NaN(), 3, 10, 10);
  const auto boxes = update(makePicture());
  ASSERT_EQ(boxes.size(), 1U);
  EXPECT_TRUE(boxes[0].box == (::BBox{0, 3, 10, 10}));
}

TEST_F(AlgoUpdate, CarriesTheTrackersWordInTheDetail) {
  script([](FakeBackendScript& backend) { backend.track.text = "ok_hold_something"; });
  startTracking();
  EXPECT_EQ(status(), "track_ok");
  EXPECT_EQ(detail(), "ok_hold_something");
}

// --- Failures of the tracker

TEST_F(AlgoUpdate, HoldsTheLastBoxWithAZeroScore) {
  startTracking();
  script([](FakeBackendScript& backend) { backend.track = {false, "not_found", {1, 1, 5, 5}, 0.4F}; });
  for (int frame = 1; frame <= 3; ++frame) {
    const auto boxes = update(makePicture());
    ASSERT_EQ(boxes.size(), 1U);
    EXPECT_TRUE(boxes[0].box == (::BBox{10, 8, 30, 40}));
    EXPECT_EQ(boxes[0].score, 0.0);
    EXPECT_EQ(status(), "track_fail_hold");
    EXPECT_EQ(detail(), "not_found");
    EXPECT_EQ(stat("track_fail_hold"), frame);
  }
  EXPECT_EQ(stat("track_fail"), 0);
  EXPECT_EQ(property().at("score"), 0);
  EXPECT_EQ(property().at("raw_score"), 0.9);  // keeps the last good answer
  EXPECT_EQ(property().at("raw_bbox"), nlohmann::json({10, 8, 30, 40}));
  script([](FakeBackendScript& backend) { backend.track.ok = true; });
  update(makePicture());
  EXPECT_EQ(status(), "track_ok");
}

TEST_F(AlgoUpdate, FailsWithoutABoxToHold) {
  startTracking();
  script([](FakeBackendScript& backend) { backend.track.ok = false; });
  for (const ::BBox& flat : {::BBox{1, 1, 5, 0}, ::BBox{1, 1, 0, 5}}) {
    Access::bbox(*algo) = flat;
    EXPECT_THAT(update(makePicture()), IsEmpty());
    EXPECT_EQ(status(), "track_fail");
  }
  Access::bbox(*algo) = {};
  algo->enableDebug(true);
  const RecordedLog log;
  EXPECT_THAT(update(makePicture()), IsEmpty());
  EXPECT_EQ(status(), "track_fail");
  EXPECT_EQ(detail(), "native_cpp_track_failed");
  EXPECT_EQ(stat("track_fail"), 3);
  EXPECT_EQ(stat("track_fail_hold"), 0);
  EXPECT_THAT(log.console(), Contains("track_fail reason=native_cpp_track_failed raw_score=0.900"));
}

TEST_F(AlgoUpdate, HoldsTheStartBoxWhenTheFirstTrackedFrameThrows) {
  throwFromTracker([] { throw std::runtime_error("lost device"); });
  const auto boxes = startTracking(makePicture(), {8, 8, 20, 16});
  ASSERT_EQ(boxes.size(), 1U);
  EXPECT_TRUE(boxes[0].box == (::BBox{8, 8, 20, 16}));
  EXPECT_EQ(boxes[0].score, 0.0);
  EXPECT_EQ(status(), "track_fail_hold");
  EXPECT_EQ(detail(), "track_view_exception:lost device");
  EXPECT_EQ(stat("track_fail_hold"), 1);
}

TEST_F(AlgoUpdate, FitsAHeldStartBoxThatLiesOutside) {
  throwFromTracker([] { throw std::runtime_error("lost device"); });
  const auto boxes = startTracking(makePicture(64, 48), {500, 8, 20, 16});
  ASSERT_EQ(boxes.size(), 1U);
  EXPECT_TRUE(boxes[0].box == (::BBox{44, 8, 20, 16}));
}

TEST_F(AlgoUpdate, TellsTheKindsOfExceptionsApart) {
  startTracking();
  std::string what;
  throwFromTracker([&what] {
    const cv::Exception error(cv::Error::StsBadArg, "bad mat", "function", "file", 7);
    what = error.what();
    throw cv::Exception(error);
  });
  update(makePicture());
  EXPECT_EQ(detail(), "track_view_cv_exception:" + what);
  throwFromTracker([] { throw 5; });
  update(makePicture());
  EXPECT_EQ(detail(), "track_view_exception");
  throwFromTracker([] {});
  update(makePicture());
  EXPECT_EQ(status(), "track_ok");
}

// --- Overlays

TEST_F(AlgoUpdate, HandsEachOverlayTheSameRecord) {
  startTracking();
  std::vector<TrackingContext> seen;
  Access::overlays(*algo).clear();
  Access::overlays(*algo).push_back(std::make_unique<SpyOverlay>(&seen));
  Access::overlays(*algo).push_back(std::make_unique<SpyOverlay>(&seen));
  answerBox(-5, 10, 20, 12, 0.25F);
  update(makePicture());
  update(makePicture());
  ASSERT_EQ(seen.size(), 4U);
  EXPECT_FLOAT_EQ(seen[0].score, 0.25F);
  EXPECT_TRUE(seen[0].bbox == (::BBox{0, 10, 20, 12}));
  EXPECT_TRUE(seen[0].alive);
  EXPECT_TRUE(seen[0].publish);
  EXPECT_EQ(seen[0].frame_index, 2U);  // the first tracked frame had 1
  EXPECT_EQ(seen[1].frame_index, 2U);
  EXPECT_EQ(seen[2].frame_index, 3U);
}

TEST_F(AlgoUpdate, EmitsNothingForARejectedFrame) {
  configure("publication/lost_after_low_score_frames", "1");
  startTracking();
  answerBox(1, 2, 10, 10, 0.3F);
  const auto alive_since = Access::lastTrackOkNs(*algo);
  EXPECT_THAT(update(makePicture()), IsEmpty());
  EXPECT_EQ(status(), "overlay_rejected");
  EXPECT_EQ(detail(), "");
  EXPECT_EQ(property().at("bbox"), nlohmann::json({10, 8, 30, 40}));
  EXPECT_EQ(property().at("raw_bbox"), nlohmann::json({1, 2, 10, 10}));
  EXPECT_EQ(property().at("debug_frame_counter"), 1);
  EXPECT_EQ(Access::lastTrackOkNs(*algo), alive_since);
  EXPECT_TRUE(algo->isAlive());
}

TEST_F(AlgoUpdate, EmitsNothingForADeadFrame) {
  algo->setConfig(R"({"publication":{"lost_after_low_score_frames":1,"publish_after_confirm_frames":0,
                                     "dead_status_confirm_frames":0}})");
  startTracking();
  const auto alive_since = Access::lastTrackOkNs(*algo);
  answerBox(1, 2, 10, 10, 0.3F);
  EXPECT_THAT(update(makePicture()), IsEmpty());
  EXPECT_EQ(status(), "overlay_dead");
  EXPECT_EQ(property().at("bbox"), nlohmann::json({10, 8, 30, 40}));
  EXPECT_EQ(Access::lastTrackOkNs(*algo), alive_since);
  EXPECT_TRUE(algo->isAlive());  // a verdict on the frame, not on the run
}

TEST_F(AlgoUpdate, EmitsTheBoxOfAnOverlayThatMovedItAsAHold) {
  startTracking();
  Access::overlays(*algo).clear();
  Access::overlays(*algo).push_back(std::make_unique<ShiftOverlay>(-100, -500));
  const auto alive_since = Access::lastTrackOkNs(*algo);
  answerBox(20, 10, 12, 8, 0.75F);
  algo->enableDebug(true);
  const RecordedLog log;
  const auto boxes = update(makePicture());
  ASSERT_EQ(boxes.size(), 1U);
  EXPECT_TRUE(boxes[0].box == (::BBox{0, 10, 1, 8}));  // moved in, and at least one pixel wide
  EXPECT_EQ(boxes[0].score, 0.75);
  EXPECT_EQ(status(), "overlay_bbox_hold");
  EXPECT_EQ(detail(), "ok_atom_native_cpp_backend");
  EXPECT_EQ(stat("track_fail_hold"), 1);
  EXPECT_EQ(stat("track_ok"), 1);
  EXPECT_EQ(Access::lastTrackOkNs(*algo), alive_since);
  EXPECT_THAT(log.console(),
              Contains("overlay_bbox_hold score=0.750 keep_bbox=[0,10,1,8] candidate=[20,10,12,8]"));
}

TEST_F(AlgoUpdate, HidesAndShowsTheBoxByTheScoresOfManyFrames) {
  startTracking();
  const auto frames = [this](int count, float score) {
    std::string seen;
    answerBox(1, 2, 10, 10, score);
    for (int i = 0; i < count; ++i) seen += update(makePicture()).empty() ? '-' : 'x';
    return seen;
  };
  EXPECT_EQ(frames(12, 0.6F), "xxxxxxxxx---");
  EXPECT_EQ(frames(6, 0.8F), "----xx");
}

// --- Scores and log lines

TEST_F(AlgoUpdate, ClampsTheScoreOfABox) {
  answerBox(1, 2, 10, 10, 7.0F);
  configure("publication/lost_after_low_score_frames", "0");
  EXPECT_EQ(startTracking().at(0).score, 1.0);
  answerBox(1, 2, 10, 10, -0.5F);
  EXPECT_EQ(update(makePicture()).at(0).score, 0.0);
  answerBox(1, 2, 10, 10, std::numeric_limits<float>::quiet_NaN());
  EXPECT_EQ(update(makePicture()).at(0).score, 0.0);
}

TEST_F(AlgoUpdate, WarnsAboutTheFirstElevenEmittedBoxes) {
  configure("processing/frame_scale", "0.5");
  answerBox(5, 6, 10, 12, 0.9F);
  warmUp(makePicture(100, 80));
  algo->enableDebug(true);
  const RecordedLog log;
  for (int frame = 0; frame < 15; ++frame) update(makePicture(100, 80));
  const auto warnings = log.warnings();
  ASSERT_EQ(warnings.size(), 11U);
  EXPECT_EQ(warnings[0],
            "[TRACK_DEBUG] frame=0: bbox_proc=[5.0,6.0,10.0,12.0] → bbox_full=[10.0,12.0,20.0,24.0] "
            "scale=[2.0000,2.0000] ok=1 score=0.900");
  EXPECT_EQ(warnings[10].substr(0, 24), "[TRACK_DEBUG] frame=10: ");
}

TEST_F(AlgoUpdate, WarnsAboutFirstFramesThatFailAsWell) {
  script([](FakeBackendScript& backend) { backend.track.ok = false; });
  warmUp();
  algo->enableDebug(true);
  const RecordedLog log;
  update(makePicture());
  EXPECT_THAT(log.warnings(),
              ElementsAre("[TRACK_DEBUG] frame=0: bbox_proc=[0.0,0.0,0.0,0.0] → "
                          "bbox_full=[0.0,0.0,0.0,0.0] scale=[1.0000,1.0000] ok=0 score=0.000"));
}

TEST_F(AlgoUpdate, WritesThePeriodicLinesOfAGoodFrame) {
  configure("processing/frame_scale", "0.5");
  configure("debug/log_every_n_frames", "1");
  answerBox(5.25F, 6, 10, 12, 0.9F);
  warmUp(makePicture(100, 80));
  update(makePicture(100, 80));
  algo->enableDebug(true);
  const RecordedLog log;
  update(makePicture(100, 80));
  const std::string pipeline =
      "bbox_pipeline frame=2 proc=[5.25,6.00,10.00,12.00] raw_full=[10.50,12.00,20.00,24.00] "
      "final=[11,12,20,24] scale=[2.000000,2.000000] proc_frame=50x40 full_frame=100x80 "
      "status=ok_atom_native_cpp_backend";
  const std::string emitted =
      "emit_bbox frame=2 x=11 y=12 w=20 h=24 cx=21.0 cy=24.0 nx=0.2100 ny=0.3000 score=0.900 raw_score=0.900 "
      "status=track_ok detail=ok_atom_native_cpp_backend stats(ok=2 fail=0 hold=0) class_id=-1 tracker_id=0";
  EXPECT_THAT(log.console(),
              ElementsAre("raw_tracker_bbox frame=2 x=10.50 y=12.00 w=20.00 h=24.00 raw_score=0.900 "
                          "status=ok_atom_native_cpp_backend fw=100 fh=80",
                          pipeline, "track_ok final=[11,12,20,24] raw=[10.50,12.00,20.00,24.00] score=0.900",
                          "runtime_status=track_ok detail=ok_atom_native_cpp_backend", emitted));
  EXPECT_THAT(log.infos(), ElementsAre(pipeline, emitted));
}

TEST_F(AlgoUpdate, WritesThePeriodicLinesOnEveryFifthBox) {
  answerBox(1, 2, 10, 10);
  startTracking();
  algo->enableDebug(true);
  const RecordedLog log;
  for (int frame = 2; frame <= 11; ++frame) update(makePicture());
  EXPECT_THAT(log.infos(),
              ElementsAre(ReadsLike("bbox_pipeline frame=5 <*>"), ReadsLike("emit_bbox frame=5 <*>"),
                          ReadsLike("bbox_pipeline frame=10 <*>"), ReadsLike("emit_bbox frame=10 <*>")));
  EXPECT_THAT(log.console(), Contains(ReadsLike("raw_tracker_bbox frame=10 <*>")));
  EXPECT_THAT(log.console(), Not(Contains(ReadsLike("raw_tracker_bbox frame=11 <*>"))));
}

TEST_F(AlgoUpdate, WritesTheLineOfAHold) {
  startTracking();
  script([](FakeBackendScript& backend) { backend.track = {false, "not_found", {}, 0.4F}; });
  algo->enableDebug(true);
  const RecordedLog log;
  update(makePicture());
  EXPECT_THAT(log.console(),
              ElementsAre("track_fail_hold reason=not_found keep_bbox=[10,8,30,40] raw_score=0.900",
                          "runtime_status=track_fail_hold detail=not_found"));
}

TEST_F(AlgoUpdate, WritesALineForABoxThatHadToMoveIn) {
  startTracking();
  algo->enableDebug(true);
  RecordedLog log;
  answerBox(34, 2, 30, 10);
  update(makePicture());
  EXPECT_THAT(log.console(), Not(Contains(ReadsLike("bbox_clamped<*>"))));
  Access::inverseScaleX(*algo) = 2.0F;
  update(makePicture());
  EXPECT_THAT(log.console(), Contains("bbox_clamped raw_i=[68,2,60,10] clamped=[4,2,60,10] frame=64x48"));
  Access::inverseScaleX(*algo) = 0.01F;
  log.clear();
  update(makePicture());  // a side that rounds to nothing is one pixel before the box is fitted
  EXPECT_THAT(log.console(), Not(Contains(ReadsLike("bbox_clamped<*>"))));
  EXPECT_EQ(property().at("bbox"), nlohmann::json({0, 2, 1, 10}));
}

}  // namespace
}  // namespace ostrel_test
