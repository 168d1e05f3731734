#include <limits>

#include "ostrel_plugin/algo_fixture.h"

namespace ostrel_test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

constexpr std::int32_t kMax = std::numeric_limits<std::int32_t>::max();

class AlgoInit : public AlgoTest {};

TEST_F(AlgoInit, AcceptsARegionAndWaitsForTheFirstUpdate) {
  EXPECT_TRUE(init(makePicture(), {8, 8, 20, 16}));
  EXPECT_THAT(outputs_of_init, IsEmpty());
  EXPECT_EQ(phase(), "waiting_first_update");
  EXPECT_EQ(status(), "init_deferred_waiting_update");
  EXPECT_EQ(detail(), "");
  EXPECT_EQ(property().at("bbox"), nlohmann::json({8, 8, 20, 16}));
  EXPECT_EQ(asked().made, 0);  // nothing is built yet
}

TEST_F(AlgoInit, WorksWithoutAPlaceForItsVerdict) {
  algo->init({makePicture()}, {8, 8, 20, 16}, nullptr);
  EXPECT_EQ(phase(), "waiting_first_update");
  algo->init({}, {8, 8, 20, 16}, nullptr);
  EXPECT_EQ(status(), "init_fail_no_frame");
}

struct BadStart {
  const char* reason;
  PicturePtr picture;
  ::BBox roi;
  const char* word;
};

TEST_F(AlgoInit, RefusesBadArgumentsWithTheirWordsAndTakesTheNextGoodCall) {
  const BadStart cases[] = {
      {"no width", makePicture(), {8, 8, 0, 16}, "init_fail_invalid_roi"},
      {"negative height", makePicture(), {8, 8, 20, -1}, "init_fail_invalid_roi"},
      {"the region is looked at before the frame", nullptr, {8, 8, 0, 0}, "init_fail_invalid_roi"},
      {"no picture", nullptr, {8, 8, 20, 16}, "init_fail_no_frame"},
      {"no picture width",
       optrix::OptrixPicture::withoutPixels(0, 48),
       {8, 8, 20, 16},
       "init_fail_invalid_source_size"},
      {"negative picture height",
       optrix::OptrixPicture::withoutPixels(64, -2),
       {8, 8, 20, 16},
       "init_fail_invalid_source_size"},
      {"an area that wraps to zero",
       optrix::OptrixPicture::withoutPixels(65536, 65536),
       {0, 0, 65536, 65536},
       "init_fail_roi_outside"},
      {"an area that wraps below zero",
       optrix::OptrixPicture::withoutPixels(50000, 50000),
       {0, 0, 50000, 50000},
       "init_fail_roi_outside"},
  };
  for (const BadStart& bad : cases) {
    SCOPED_TRACE(bad.reason);
    startTracking();
    ASSERT_EQ(status(), "track_ok");
    EXPECT_FALSE(init(bad.picture, bad.roi));
    EXPECT_THAT(outputs_of_init, IsEmpty());
    EXPECT_EQ(status(), bad.word);
    EXPECT_EQ(detail(), "");
    EXPECT_EQ(phase(), "idle");
    EXPECT_TRUE(algo->isAlive());
    EXPECT_EQ(asked().alive, 0);  // the run is reset before anything is checked
    EXPECT_THAT(update(makePicture()), IsEmpty());
    EXPECT_EQ(status(), "update_skip_not_initialized");
  }
  EXPECT_EQ(startTracking().size(), 1U);
}

TEST_F(AlgoInit, WritesFalseBeforeAnyCheck) {
  bool ok = true;
  algo->init({}, {8, 8, 20, 16}, &ok);
  EXPECT_FALSE(ok);
}

TEST_F(AlgoInit, KeepsTheBadSizeOfAPicture) {
  init(optrix::OptrixPicture::withoutPixels(640, -3), {8, 8, 20, 16});
  EXPECT_EQ(property().at("source_width"), 640);
  EXPECT_EQ(property().at("source_height"), -3);
}

TEST_F(AlgoInit, FixesTheProcessingFrame) {
  configure("processing/frame_scale", "0.5");
  init(optrix::OptrixPicture::withoutPixels(1920, 1080), {10, 10, 50, 50});
  EXPECT_EQ(property().at("tracker_input_width"), 960);
  EXPECT_EQ(property().at("tracker_input_height"), 540);
  EXPECT_EQ(property().at("source_width"), 1920);
  EXPECT_EQ(property().at("source_height"), 1080);
  EXPECT_EQ(Access::scale(*algo), std::make_pair(0.5F, 0.5F));
  EXPECT_EQ(Access::inverseScale(*algo), std::make_pair(2.0F, 2.0F));
  const ::BBox scaled = Access::pendingInit(*algo)->bbox_proc;
  EXPECT_TRUE(scaled == (::BBox{5, 5, 25, 25}));
}

TEST_F(AlgoInit, CutsTheFullBoxAtTheEdgeButMovesTheScaledOneIn) {
  init(makePicture(100, 80), {90, 10, 30, 20});
  EXPECT_EQ(property().at("bbox"), nlohmann::json({90, 10, 10, 20}));
  EXPECT_TRUE(Access::pendingInit(*algo)->bbox_proc == (::BBox{70, 10, 30, 20}));
}

TEST_F(AlgoInit, AcceptsARegionWhollyOutsideAndKeepsItsFullBox) {
  EXPECT_TRUE(init(makePicture(100, 80), {500, 10, 30, 20}));
  EXPECT_EQ(property().at("bbox"), nlohmann::json({500, 10, 30, 20}));
  EXPECT_TRUE(Access::pendingInit(*algo)->bbox_proc == (::BBox{70, 10, 30, 20}));
}

TEST_F(AlgoInit, TakesAnyNumbersInARegion) {
  EXPECT_TRUE(init(makePicture(100, 80), {kMax, kMax, kMax, kMax}));
  EXPECT_TRUE(init(makePicture(100, 80), {-kMax, -kMax, kMax, 1}));
  EXPECT_TRUE(init(makePicture(100, 80), {50, 40, kMax, kMax}));
  EXPECT_EQ(property().at("bbox"), nlohmann::json({50, 40, 50, 40}));
}

TEST_F(AlgoInit, StartsOnOddAndTinyPictures) {
  EXPECT_EQ(startTracking(makePicture(65, 49)).size(), 1U);
  EXPECT_EQ(property().at("tracker_input_width"), 64);
  EXPECT_EQ(startTracking(makePicture(2, 2), {0, 0, 2, 2}).size(), 1U);
  EXPECT_EQ(startTracking(makePicture(1, 1), {0, 0, 1, 1}).size(), 1U);
  EXPECT_EQ(property().at("tracker_input_width"), 2);
}

TEST_F(AlgoInit, ClearsTheWholeRun) {
  startTracking(makePicture(64, 48, makeView(1, 2, 40, 30)));
  update(makePicture());
  ASSERT_EQ(stat("track_ok"), 2);
  ASSERT_EQ(property().at("frame_width"), 64);
  const auto generation = Access::generation(*algo);
  EXPECT_TRUE(init(makePicture(), {1, 2, 3, 4}));
  EXPECT_EQ(Access::generation(*algo), generation + 1);
  const auto state = property();
  EXPECT_EQ(state.at("initialized"), false);
  EXPECT_EQ(state.at("score"), 0);
  EXPECT_EQ(state.at("raw_bbox"), nlohmann::json({0, 0, 0, 0}));
  EXPECT_EQ(state.at("raw_score"), 0);
  EXPECT_EQ(state.at("frame_width"), 0);
  EXPECT_EQ(state.at("frame_height"), 0);
  EXPECT_EQ(state.at("debug_frame_counter"), 0);
  EXPECT_EQ(state.at("track_idle_ms"), -1);
  EXPECT_EQ(
      state.at("stats"),
      nlohmann::json({{"update_calls", 0}, {"track_ok", 0}, {"track_fail", 0}, {"track_fail_hold", 0}}));
  EXPECT_EQ(Access::overlayFrameIndex(*algo), 0U);
  EXPECT_THAT(Access::overlays(*algo), IsEmpty());
  EXPECT_EQ(asked().alive, 0);
  EXPECT_FALSE(Access::armed(*algo));
  EXPECT_FALSE(Access::haveInitView(*algo));
  EXPECT_FALSE(Access::haveZoomReference(*algo));
  EXPECT_EQ(Access::zoomReference(*algo), std::make_pair(0.0, 0.0));
}

TEST_F(AlgoInit, ForgetsTheOldRunEvenWhenItRefuses) {
  configure("preposition/enabled", "true");
  Metadata metadata = makeView(10, 5, 40, 30);
  metadata["lumenar.follow_me_enabled_command"] = std::int32_t{1};
  configure("processing/frame_scale", "0.5");
  warmUp(makePicture(64, 48, metadata));
  ASSERT_TRUE(Access::haveTarget(*algo));
  ASSERT_NE(Access::initReturnNs(*algo), 0U);
  ASSERT_NE(Access::initLaunchNs(*algo), 0U);
  EXPECT_FALSE(init(nullptr, {8, 8, 20, 16}));
  const auto state = property();
  for (const char* size : {"source_width", "source_height", "tracker_input_width", "tracker_input_height"}) {
    EXPECT_EQ(state.at(size), 0) << size;
  }
  EXPECT_EQ(state.at("bbox"), nlohmann::json({0, 0, 0, 0}));
  EXPECT_EQ(Access::scale(*algo), std::make_pair(1.0F, 1.0F));
  EXPECT_EQ(Access::inverseScale(*algo), std::make_pair(1.0F, 1.0F));
  EXPECT_FALSE(Access::haveTarget(*algo));
  EXPECT_EQ(Access::target(*algo), std::make_pair(0.0, 0.0));
  EXPECT_FALSE(Access::haveInitView(*algo));
  EXPECT_EQ(Access::initReturnNs(*algo), 0U);
  EXPECT_EQ(Access::initLaunchNs(*algo), 0U);
}

TEST_F(AlgoInit, DropsAFinishedWorkerBeforeItLooksAtItsArguments) {
  warmUp();
  algo->enableDebug(true);
  const RecordedLog log;
  EXPECT_FALSE(init(makePicture(), {8, 8, 0, 16}));
  EXPECT_THAT(log.console(),
              ElementsAre("drop_stale_init_result generation=1 current=2 status=init_ok",
                          "runtime_status=init_start", "runtime_status=init_fail_invalid_roi"));
  EXPECT_EQ(asked().alive, 0);
}

TEST_F(AlgoInit, RemembersTheViewOfItsPicture) {
  init(makePicture(64, 48, makeView(190, 5, 40, 30)), {8, 8, 20, 16});
  EXPECT_TRUE(Access::haveInitView(*algo));
  init(makePicture(), {8, 8, 20, 16});
  EXPECT_FALSE(Access::haveInitView(*algo));
}

TEST_F(AlgoInit, UsesOnlyTheFirstPicture) {
  bool ok = false;
  algo->init({makePicture(64, 48), makePicture(200, 100)}, {8, 8, 20, 16}, &ok);
  EXPECT_TRUE(ok);
  EXPECT_EQ(property().at("source_width"), 64);
  algo->init({nullptr, makePicture()}, {8, 8, 20, 16}, &ok);
  EXPECT_EQ(status(), "init_fail_no_frame");
}

TEST_F(AlgoInit, LogsTheRegionOnBothPathsAndItsReturn) {
  configure("processing/frame_scale", "0.5");
  algo->enableDebug(true);
  const RecordedLog log;
  init(makePicture(100, 80), {90, 10, 30, 20});
  const char* region =
      "init_roi raw_full=[90,10,30,20] scaled=[35,5,15,10] frame_full=100x80 frame_proc=50x40 "
      "scale=[0.5000,0.5000] resize_scale=0.500";
  EXPECT_THAT(log.console(),
              ElementsAre("runtime_status=init_start", region,
                          "init_preposition_disabled config_enabled=0 follow_me_enabled_command=missing "
                          "value=0 roi=[90,10,10,20]",
                          "runtime_status=init_deferred_waiting_update"));
  EXPECT_THAT(
      log.infos(),
      ElementsAre(ReadsLike("[TRACK_FLOW][OT] runtime_status steady_ns=<n> status=init_start detail=-"),
                  region,
                  ReadsLike("[TRACK_FLOW][OT] runtime_status steady_ns=<n> "
                            "status=init_deferred_waiting_update detail=-"),
                  ReadsLike("[TRACK_FLOW][OT] init_return steady_ns=<n> enter_to_return_ms=<f> pic_ptr=<p> "
                            "pic_ts=77 roi=[90,10,30,20] outputs=0 have_target=0 deferred_init=1 "
                            "target_pan=0.000 target_tilt=0.000 init_cg=60 init_gn=20 search_factor=7.000")));
  EXPECT_THAT(log.warnings(), IsEmpty());
}

TEST_F(AlgoInit, MakesAGimbalTargetOnlyWhenBothSidesAskForIt) {
  algo->enableDebug(true);
  struct Case {
    bool enabled;
    optrix::OptrixPicture::MetadataValue flag;
    const char* line;
  };
  const Case cases[] = {
      {false, std::int32_t{1}, "config_enabled=0 follow_me_enabled_command=present value=1"},
      {true, std::int32_t{0}, "config_enabled=1 follow_me_enabled_command=present value=0"},
      {true, std::string("1"), "config_enabled=1 follow_me_enabled_command=missing value=0"},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.line);
    const RecordedLog log;
    algo->setConfig(std::string(R"({"debug":{"enabled":true},"preposition":{"enabled":)") +
                    (each.enabled ? "true}}" : "false}}"));
    Metadata metadata = makeView(10, 5, 40, 30);
    metadata["lumenar.follow_me_enabled_command"] = each.flag;
    EXPECT_TRUE(init(makePicture(64, 48, metadata), {8, 8, 20, 16}));
    EXPECT_THAT(outputs_of_init, IsEmpty());
    EXPECT_EQ(phase(), "waiting_first_update");
    EXPECT_THAT(log.console(),
                Contains(std::string("init_preposition_disabled ") + each.line + " roi=[8,8,20,16]"));
  }
}

TEST_F(AlgoInit, AnswersWithTheGimbalTarget) {
  configure("preposition/enabled", "true");
  algo->enableDebug(true);
  const RecordedLog log;
  Metadata metadata = makeView(10, 5, 40, 30);
  metadata["lumenar.follow_me_enabled_command"] = 1.0;
  // The centre of the region lies at three quarters of the width and a quarter of the height.
  EXPECT_TRUE(init(makePicture(64, 48, metadata), {38, 4, 20, 16}));
  ASSERT_EQ(outputs_of_init.size(), 1U);
  EXPECT_EQ(outputs_of_init[0].output_type, "gimbal_preposition.v1");
  const auto& members = std::get<4>(outputs_of_init[0].payload.value);
  ASSERT_EQ(members.size(), 2U);
  EXPECT_EQ(members[0].first, "target_pan_deg");
  EXPECT_DOUBLE_EQ(std::get<2>(members[0].second.value), 20.0);
  EXPECT_EQ(members[1].first, "target_tilt_deg");
  EXPECT_DOUBLE_EQ(std::get<2>(members[1].second.value), 12.5);
  EXPECT_EQ(phase(), "waiting_alignment");
  EXPECT_EQ(status(), "init_deferred_waiting_alignment");
  EXPECT_EQ(Access::target(*algo), std::make_pair(20.0, 12.5));
  EXPECT_THAT(log.infos(), Contains(ReadsLike("[TRACK_FLOW][OT] init_return<*> outputs=1 have_target=1 "
                                              "deferred_init=1 target_pan=20.000 target_tilt=12.500 <*>")));
  EXPECT_THAT(log.console(), Not(Contains(ReadsLike("init_preposition_disabled<*>"))));
}

TEST_F(AlgoInit, AimsAtTheRegionAsGivenNotAtItsCutPart) {
  configure("preposition/enabled", "true");
  Metadata metadata = makeView(0, 0, 64, 48);
  metadata["lumenar.follow_me_enabled_command"] = std::int64_t{1};
  init(makePicture(64, 48, metadata), {54, 14, 20, 20});  // crosses the right edge
  EXPECT_DOUBLE_EQ(Access::target(*algo).first, 32.0);
}

TEST_F(AlgoInit, StartsPlainlyWhenTheViewIsMissing) {
  configure("preposition/enabled", "true");
  algo->enableDebug(true);
  const RecordedLog log;
  Metadata metadata;
  metadata["lumenar.follow_me_enabled_command"] = std::int32_t{1};
  EXPECT_TRUE(init(makePicture(64, 48, metadata), {8, 8, 20, 16}));
  EXPECT_THAT(outputs_of_init, IsEmpty());
  EXPECT_THAT(log.console(), Not(Contains(ReadsLike("init_preposition_disabled<*>"))));
  EXPECT_EQ(phase(), "waiting_first_update");
}

}  // namespace
}  // namespace ostrel_test
