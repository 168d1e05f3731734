#include <atomic>
#include <cerrno>
#include <stdexcept>
#include <thread>

#include "ostrel_plugin/algo_fixture.h"

namespace ostrel_test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

class AlgoWorkers : public AlgoTest {};

TEST_F(AlgoWorkers, GoFromTheFirstUpdateToTheFirstTrackedFrame) {
  auto starts = holdStarts();
  EXPECT_TRUE(init(makePicture(), {8, 8, 20, 16}));
  EXPECT_THAT(update(makePicture()), IsEmpty());
  EXPECT_EQ(phase(), "warming_up");
  EXPECT_EQ(status(), "init_warmup_started");
  EXPECT_THAT(update(makePicture()), IsEmpty());
  EXPECT_EQ(status(), "update_skip_warming_up");
  EXPECT_EQ(phase(), "warming_up");
  starts.release();
  Access::waitForWorkers(*algo);
  const auto boxes = update(makePicture());  // the very frame that finds the result is tracked
  ASSERT_EQ(boxes.size(), 1U);
  EXPECT_EQ(phase(), "ready");
  EXPECT_EQ(status(), "track_ok");
  EXPECT_EQ(stat("update_calls"), 3);
  EXPECT_EQ(property().at("initialized"), true);
}

TEST_F(AlgoWorkers, BuildTheTrackerFromTheSavedPictureAndBox) {
  configure("processing/frame_scale", "0.5");
  configure("learning/learning_rate", "0.125");
  init(makePicture(100, 80), {10, 20, 30, 40});
  configure("learning/learning_rate", "0.5");  // later settings do not reach a saved request
  Access::bbox(*algo) = {};
  update(makePicture(64, 48));  // this frame is only the signal
  EXPECT_EQ(property().at("bbox"), nlohmann::json({10, 20, 30, 40}));
  Access::waitForWorkers(*algo);
  const FakeBackendScript seen = asked();
  EXPECT_EQ(seen.image_size, cv::Size(50, 40));
  EXPECT_EQ(seen.init_rect, cv::Rect(5, 10, 15, 20));
  EXPECT_FLOAT_EQ(seen.made_with.learning_rate, 0.125F);
  EXPECT_EQ(seen.made_with.runtime_backend, "cuda");
}

TEST_F(AlgoWorkers, WaitForAFrameBeforeTheyAreLaunched) {
  auto starts = holdStarts();
  algo->enableDebug(true);
  init(makePicture(), {8, 8, 20, 16});
  const RecordedLog log;
  update(nullptr);
  EXPECT_EQ(phase(), "waiting_first_update");
  EXPECT_EQ(status(), "update_skip_waiting_first_update");
  EXPECT_THAT(log.console(), ElementsAre("runtime_status=wait_first_update_no_frame",
                                         "runtime_status=update_skip_waiting_first_update"));
  update(makePicture());
  EXPECT_EQ(phase(), "warming_up");
}

TEST_F(AlgoWorkers, FallBackToTheFirstUpdateWhenATargetCarryingRunHasNoFrame) {
  auto starts = holdStarts();
  configure("preposition/enabled", "true");
  Metadata metadata = makeView(10, 5, 40, 30);
  metadata["lumenar.follow_me_enabled_command"] = std::int32_t{1};
  init(makePicture(64, 48, metadata), {22, 16, 20, 16});
  ASSERT_EQ(phase(), "waiting_alignment");
  update(nullptr);
  EXPECT_EQ(phase(), "waiting_first_update");
  EXPECT_TRUE(Access::haveTarget(*algo));
  update(makePicture());
  EXPECT_EQ(phase(), "warming_up");
}

TEST_F(AlgoWorkers, FailWithoutASavedRequest) {
  algo->enableDebug(true);
  for (const bool drop_all : {true, false}) {
    init(makePicture(), {8, 8, 20, 16});
    if (drop_all) {
      Access::pendingInit(*algo).reset();
    } else {
      Access::pendingInit(*algo)->picture.reset();
    }
    const RecordedLog log;
    update(makePicture());
    EXPECT_EQ(phase(), "failed");
    EXPECT_EQ(status(), "update_skip_not_initialized");
    EXPECT_THAT(log.console(), ElementsAre("runtime_status=init_fail_missing_saved_init_frame",
                                           "runtime_status=update_skip_not_initialized"));
    update(makePicture());
    EXPECT_EQ(phase(), "failed");  // the run is not deferred any more
  }
}

TEST_F(AlgoWorkers, FailWhenNoThreadCanBeStarted) {
  init(makePicture(), {8, 8, 20, 16});
  ostrel::host_cuda::fail_call("pthread_create", 1, EAGAIN);
  algo->enableDebug(true);
  const RecordedLog log;
  EXPECT_THAT(update(makePicture()), IsEmpty());
  EXPECT_EQ(phase(), "failed");
  const std::string reason = std::system_error(EAGAIN, std::generic_category()).what();
  EXPECT_THAT(log.console(), ElementsAre("runtime_status=init_async_launch_fail detail=" + reason,
                                         "runtime_status=update_skip_not_initialized"));
  EXPECT_FALSE(Access::pendingInit(*algo).has_value());
  update(makePicture());
  EXPECT_EQ(status(), "update_skip_not_initialized");
  EXPECT_EQ(startTracking().size(), 1U);
}

TEST_F(AlgoWorkers, ShowTheTextOfARefusedStart) {
  script([](FakeBackendScript& backend) { backend.initialize = {false, "no engine", {}, 0.0F}; });
  warmUp();
  EXPECT_THAT(update(makePicture()), IsEmpty());
  EXPECT_EQ(phase(), "failed");
  EXPECT_EQ(property().at("initialized"), false);
  EXPECT_EQ(asked().alive, 0);
  EXPECT_EQ(status(), "update_skip_not_initialized");
}

TEST_F(AlgoWorkers, SetTheWordOfARefusedStartBeforeTheSkip) {
  script([](FakeBackendScript& backend) { backend.initialize = {false, "no engine", {}, 0.0F}; });
  algo->enableDebug(true);
  warmUp();
  const RecordedLog log;
  update(makePicture());
  EXPECT_THAT(log.console(), ElementsAre("runtime_status=init_async_fail detail=initialize failed: no engine",
                                         "runtime_status=update_skip_not_initialized"));
  EXPECT_THAT(log.infos(),
              Contains(ReadsLike("[TRACK_FLOW][OT] init_worker_result steady_ns=<n> generation=1 "
                                 "ok=0 status=init_async_fail detail=initialize failed: no engine "
                                 "warmup_ms=<f>")));
  update(makePicture());
  EXPECT_EQ(phase(), "failed");  // never restarted by itself
  EXPECT_EQ(asked().made, 1);
}

TEST_F(AlgoWorkers, FailWhenThePictureCannotBeRead) {
  algo->enableDebug(true);
  const RecordedLog log;
  warmUp(optrix::OptrixPicture::withoutPixels(64, 48));
  update(makePicture());
  EXPECT_EQ(phase(), "failed");
  EXPECT_THAT(log.console(), Contains("runtime_status=init_async_fail detail=direct_nv12_init_frame"));
  EXPECT_EQ(asked().made, 0);
}

TEST_F(AlgoWorkers, FailWithoutAPictureInTheRequest) {
  Access::Request request;
  request.generation = 9;
  request.bbox_full = {1, 2, 3, 4};
  request.source_width = 5;
  request.tracker_input_height = 6;
  request.scale_x = 0.5F;
  request.inverse_scale_y = 2.0F;
  const Access::Result result = Access::runWorker(std::move(request));
  EXPECT_FALSE(result.ok);
  EXPECT_EQ(result.status, "init_async_fail");
  EXPECT_EQ(result.detail, "missing init picture");
  EXPECT_EQ(result.generation, 9U);
  EXPECT_TRUE(result.bbox_full == (::BBox{1, 2, 3, 4}));
  EXPECT_EQ(result.source_width, 5);
  EXPECT_EQ(result.tracker_input_height, 6);
  EXPECT_EQ(result.scale_x, 0.5F);
  EXPECT_EQ(result.inverse_scale_y, 2.0F);
}

TEST_F(AlgoWorkers, ShowTheTextOfAnException) {
  script([](FakeBackendScript& backend) {
    backend.on_call = [](const std::string&) { throw std::runtime_error("out of \"everything\""); };
  });
  algo->enableDebug(true);
  warmUp();
  const RecordedLog log;
  update(makePicture());
  EXPECT_EQ(phase(), "failed");
  EXPECT_THAT(log.console(), Contains("runtime_status=init_async_exception detail=out of \"everything\""));
  EXPECT_EQ(asked().alive, 0);
}

TEST_F(AlgoWorkers, NameAnExceptionThatHasNoText) {
  script([](FakeBackendScript& backend) { backend.on_call = [](const std::string&) { throw 5; }; });
  algo->enableDebug(true);
  warmUp();
  const RecordedLog log;
  update(makePicture());
  EXPECT_THAT(log.console(), Contains("runtime_status=init_async_exception detail=unknown exception"));
}

TEST_F(AlgoWorkers, KeepOnlyTheLatestRequestBeforeALaunch) {
  init(makePicture(), {8, 8, 20, 16});
  init(makePicture(), {1, 1, 10, 10});
  update(makePicture());
  Access::waitForWorkers(*algo);
  update(makePicture());
  EXPECT_EQ(asked().made, 1);
  EXPECT_EQ(asked().init_rect, cv::Rect(1, 1, 10, 10));
}

TEST_F(AlgoWorkers, DropTheResultOfASupersededStart) {
  auto starts = holdStarts();
  init(makePicture(), {8, 8, 20, 16});
  update(makePicture());
  const auto before = std::chrono::steady_clock::now();
  EXPECT_TRUE(init(makePicture(), {1, 1, 10, 10}));  // does not wait for the first worker
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(1));
  update(makePicture());
  EXPECT_EQ(Access::workers(*algo).size(), 2U);
  algo->enableDebug(true);
  starts.release();
  Access::waitForWorkers(*algo);
  const RecordedLog log;
  ASSERT_EQ(update(makePicture()).size(), 1U);
  EXPECT_THAT(log.console(), Contains("drop_stale_init_result generation=1 current=2 status=init_ok"));
  EXPECT_THAT(log.infos(),
              Contains(ReadsLike("[TRACK_FLOW][OT] init_worker_result steady_ns=<n> generation=2 "
                                 "ok=1<*>")));
  EXPECT_EQ(asked().made, 2);
  EXPECT_EQ(asked().alive, 1);
  EXPECT_THAT(Access::workers(*algo), IsEmpty());
}

TEST_F(AlgoWorkers, ChangeNothingByAStaleResult) {
  auto starts = holdStarts();
  init(makePicture(), {8, 8, 20, 16});
  update(makePicture());
  init(makePicture(), {1, 1, 10, 10});
  starts.release();
  Access::waitForWorkers(*algo);
  algo->init({}, {1, 1, 10, 10}, nullptr);  // polls with its generation raised
  EXPECT_THAT(Access::workers(*algo), IsEmpty());
  EXPECT_EQ(status(), "init_fail_no_frame");
  EXPECT_EQ(property().at("initialized"), false);
  EXPECT_EQ(asked().alive, 0);
}

TEST_F(AlgoWorkers, EraseAnEntryWithoutAFuture) {
  Access::workers(*algo).emplace_back();
  update(makePicture());
  EXPECT_THAT(Access::workers(*algo), IsEmpty());
}

TEST_F(AlgoWorkers, HaveAWordForAResultWithoutOne) {
  algo->enableDebug(true);
  const auto hand_over = [this](Access::Result result) {
    std::promise<Access::Result> promise;
    promise.set_value(std::move(result));
    Access::workers(*algo).push_back({Access::generation(*algo), promise.get_future()});
    const RecordedLog log;
    update(nullptr);
    return log.console();
  };
  Access::Result good;
  good.ok = true;
  EXPECT_THAT(hand_over(std::move(good)), Contains("runtime_status=init_async_fail"));  // without a tracker
  EXPECT_EQ(phase(), "failed");
  good = {};
  good.ok = true;
  good.tracker = std::make_unique<atom::ATOM>(atom::NativeCppBackend::Config());
  EXPECT_THAT(hand_over(std::move(good)), Contains("runtime_status=init_ok"));
  EXPECT_EQ(phase(), "ready");
  Access::Result bad;
  bad.detail = "why";
  EXPECT_THAT(hand_over(std::move(bad)), Contains("runtime_status=init_async_fail detail=why"));
  EXPECT_EQ(phase(), "failed");
  EXPECT_FALSE(Access::tracker(*algo));
  EXPECT_FALSE(Access::armed(*algo));
}

TEST_F(AlgoWorkers, AreNotLaunchedTwice) {
  init(makePicture(), {8, 8, 20, 16});
  EXPECT_TRUE(Access::launch(*algo));
  EXPECT_TRUE(Access::launch(*algo));
  Access::waitForWorkers(*algo);
  EXPECT_EQ(asked().made, 1);
  OstrelAlgo other;
  EXPECT_FALSE(Access::launch(other));  // nothing saved
}

TEST_F(AlgoWorkers, InstallTheOverlaysOfTheLiveSettings) {
  auto starts = holdStarts();
  EXPECT_THAT(Access::overlays(*algo), IsEmpty());
  init(makePicture(), {8, 8, 20, 16});
  update(makePicture());
  configure("publication/lost_after_low_score_frames", "1");  // after the request was saved
  starts.release();
  Access::waitForWorkers(*algo);
  script([](FakeBackendScript& backend) { backend.track.score = 0.1F; });
  EXPECT_THAT(update(makePicture()), IsEmpty());
  EXPECT_EQ(status(), "overlay_rejected");
  EXPECT_EQ(Access::overlays(*algo).size(), 2U);
}

TEST_F(AlgoWorkers, SetTheZoomReferenceFromTheViewOfTheStart) {
  warmUp(makePicture(64, 48, makeView(0, 0, 40, 30)));
  EXPECT_FALSE(Access::haveZoomReference(*algo));
  update(makePicture());
  EXPECT_TRUE(Access::haveZoomReference(*algo));
  EXPECT_EQ(Access::zoomReference(*algo), std::make_pair(40.0, 30.0));
}

TEST_F(AlgoWorkers, LogTheirWholeWay) {
  configure("processing/frame_scale", "0.5");
  algo->enableDebug(true);
  const RecordedLog log;
  warmUp(makePicture(100, 80), {10, 20, 30, 40});
  update(makePicture(100, 80));
  const auto infos = log.infos();
  const char* expected[] = {
      "[TRACK_FLOW][OT] deferred_init_launch steady_ns=<n> generation=1 update_pic_ptr=<p> update_pic_ts=77 "
      "init_pic_ptr=<p> init_pic_ts=77 bbox_full=[10,20,30,40] bbox_proc=[5,10,15,20]",
      "[TRACK_FLOW][OT] launch_init_worker steady_ns=<n> generation=1 pic_ptr=<p> pic_ts=77 "
      "since_init_return_ms=<f>",
      "[TRACK_FLOW][OT] worker_start steady_ns=<n> generation=1 pic_ptr=<p> pic_ts=77 init_cg=60 init_gn=20 "
      "search_factor=7.000",
      "tracking_input_path=direct_nv12 frame_proc=50x40 frame_full=100x80",
      "[TRACK_FLOW][OT] worker_done steady_ns=<n> generation=1 ok=1 elapsed_ms=<f> "
      "message=ok_atom_native_cpp_backend",
      "[TRACK_FLOW][OT] init_worker_result steady_ns=<n> generation=1 ok=1 status=init_ok "
      "detail=ok_atom_native_cpp_backend warmup_ms=<f> tracking_armed=1",
      "[TRACK_FLOW][OT] runtime_status steady_ns=<n> status=init_ok detail=ok_atom_native_cpp_backend"};
  for (const char* line : expected) EXPECT_THAT(infos, Contains(ReadsLike(line)));
  EXPECT_THAT(log.warnings(),
              testing::IsSupersetOf(
                  {std::string("[TRACK_DEBUG] init: roi_full_px=[10,20,30,40] -> scaled_proc=[5,10,15,20] "
                               "frame_full=100x80 frame_proc=50x40 scale=[0.5000,0.5000]"),
                   std::string("[TRACK_DEBUG] init: after fitRect=[5,10,15,20]")}));
  EXPECT_THAT(log.console(), Contains("runtime_status=init_ok detail=ok_atom_native_cpp_backend"));
}

TEST_F(AlgoWorkers, UseTheDebugSettingOfTheirStart) {
  init(makePicture(), {8, 8, 20, 16});
  algo->enableDebug(true);  // too late for the worker
  const RecordedLog log;
  update(makePicture());
  Access::waitForWorkers(*algo);
  EXPECT_THAT(log.infos(), Not(Contains(ReadsLike("[TRACK_FLOW][OT] worker_start<*>"))));
  EXPECT_THAT(log.warnings(), IsEmpty());
}

TEST_F(AlgoWorkers, ShowMinusOneWithoutATimeToCountFrom) {
  auto starts = holdStarts();
  init(makePicture(), {8, 8, 20, 16});
  algo->enableDebug(true);
  const RecordedLog log;
  Access::initReturnNs(*algo) = 0;
  update(makePicture());
  starts.release();
  Access::waitForWorkers(*algo);
  Access::initLaunchNs(*algo) = 0;
  update(makePicture());
  EXPECT_THAT(log.infos(), Contains(ReadsLike("<*> launch_init_worker <*> since_init_return_ms=-1.000")));
  EXPECT_THAT(log.infos(),
              Contains(ReadsLike("<*> init_worker_result <*> warmup_ms=-1.000 tracking_armed=1")));
}

TEST_F(AlgoWorkers, AreWaitedForByTheDestructor) {
  auto starts = holdStarts();
  init(makePicture(), {8, 8, 20, 16});
  update(makePicture());
  init(makePicture(), {1, 1, 10, 10});
  update(makePicture());
  std::atomic<bool> destroyed{false};
  std::thread destroyer([this, &destroyed] {
    algo.reset();
    destroyed = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_FALSE(destroyed);
  starts.release();
  destroyer.join();
  EXPECT_EQ(asked().alive, 0);
}

TEST_F(AlgoWorkers, MayThrowDuringTheDestructor) {
  script([](FakeBackendScript& backend) { backend.on_call = [](const std::string&) { throw 5; }; });
  auto starts = holdStarts();
  for (int run = 0; run < 2; ++run) {
    init(makePicture(), {8, 8, 20, 16});
    update(makePicture());
  }
  starts.release();
  algo.reset();
  EXPECT_EQ(asked().alive, 0);
}

TEST_F(AlgoWorkers, RunBesideCallsOfOtherThreads) {
  std::atomic<bool> stop{false};
  std::thread reader([this, &stop] {
    while (!stop) {
      algo->isAlive();
      algo->property("");
      algo->getUuid();
      std::this_thread::yield();
    }
  });
  for (int round = 0; round < 10; ++round) {
    init(makePicture(), {8, 8, 20, 16});
    for (int frame = 0; frame < 3; ++frame) update(makePicture());
  }
  Access::waitForWorkers(*algo);
  EXPECT_EQ(update(makePicture()).size(), 1U);
  stop = true;
  reader.join();
  EXPECT_EQ(asked().alive, 1);
}

}  // namespace
}  // namespace ostrel_test
