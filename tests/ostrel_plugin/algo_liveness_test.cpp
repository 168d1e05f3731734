#include "ostrel_plugin/algo_fixture.h"
#include "ostrel_plugin/scripted_clock.h"
#include "ostrel_plugin/scripted_overlays.h"
#include "ostrel_plugin/src/steady_clock.h"

namespace ostrel_test {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class AlgoLiveness : public AlgoTest {
 protected:
  void loseTarget() {
    script([](FakeBackendScript& backend) { backend.track.ok = false; });
  }
  void findTarget() {
    script([](FakeBackendScript& backend) { backend.track.ok = true; });
  }
  std::uint64_t refreshed() { return Access::lastTrackOkNs(*algo); }
  /// The number behind "track_idle_ms", as it is written.
  std::string idleText() {
    const std::string text = algo->property("");
    const std::string key = "\"track_idle_ms\":";
    const auto begin = text.find(key) + key.size();
    return text.substr(begin, text.find(',', begin) - begin);
  }
  static PicturePtr view(double pan, double tilt) {
    Metadata metadata = makeView(pan, tilt, 40, 30);
    metadata["lumenar.follow_me_enabled_command"] = std::int32_t{1};
    return makePicture(100, 80, metadata);
  }

  ScriptedClock clock;
};

TEST_F(AlgoLiveness, DiesAtTheTimeoutToTheNanosecond) {
  startTracking();
  loseTarget();
  clock.advance(10 * kSecond_ns - 1);
  EXPECT_EQ(update(makePicture()).size(), 1U);
  EXPECT_TRUE(algo->isAlive());
  EXPECT_EQ(status(), "track_fail_hold");
  clock.advance(1);
  EXPECT_EQ(update(makePicture()).size(), 1U);  // the held box is still published
  EXPECT_FALSE(algo->isAlive());
  EXPECT_EQ(property().at("alive"), false);
  EXPECT_EQ(phase(), "ready");
  EXPECT_EQ(status(), "tracking_dead_timeout");
  EXPECT_EQ(detail(), "elapsed_s=10 timeout_s=10 last_status=track_fail_hold");
}

TEST_F(AlgoLiveness, LogsADeathOnceOnBothPaths) {
  configure("runtime/dead_timeout_s", "2.5");
  startTracking();
  loseTarget();
  algo->enableDebug(true);
  clock.advance(12'345'678'900);
  RecordedLog log;
  update(makePicture());
  const std::string detail = "elapsed_s=12.3457 timeout_s=2.5 last_status=track_fail_hold";
  EXPECT_THAT(log.console(), Contains("runtime_status=tracking_dead_timeout detail=" + detail));
  EXPECT_THAT(log.infos(), Contains("[TRACK_FLOW][OT] runtime_status steady_ns=1012345678900 "
                                    "status=tracking_dead_timeout detail=" +
                                    detail));
  EXPECT_THAT(log.warnings(), Contains("[TRACK_FLOW][OT] tracking_declared_dead steady_ns=1012345678900 "
                                       "elapsed_s=12.346 timeout_s=2.500 last_status=track_fail_hold"));
  log.clear();
  clock.advance(kSecond_ns);
  update(makePicture());
  EXPECT_THAT(log.warnings(), Not(Contains(HasSubstr("tracking_declared_dead"))));
}

TEST_F(AlgoLiveness, DiesSilentlyWithoutDebugging) {
  startTracking();
  loseTarget();
  clock.advance(10 * kSecond_ns);
  const RecordedLog log;
  update(makePicture());
  EXPECT_FALSE(algo->isAlive());
  EXPECT_THAT(log.warnings(), IsEmpty());
  EXPECT_THAT(log.infos(), IsEmpty());
  EXPECT_EQ(log.consoleText(), "");
}

TEST_F(AlgoLiveness, StaysDeadWhileItTracksOnUntilTheNextStart) {
  startTracking();
  loseTarget();
  clock.advance(11 * kSecond_ns);
  update(makePicture());
  ASSERT_EQ(status(), "tracking_dead_timeout");
  clock.advance(kSecond_ns);
  update(makePicture());
  EXPECT_EQ(status(), "track_fail_hold");  // the check is quiet from now on
  findTarget();
  EXPECT_EQ(update(makePicture()).size(), 1U);
  EXPECT_EQ(status(), "track_ok");
  EXPECT_EQ(refreshed(), clock.now());
  EXPECT_FALSE(algo->isAlive());
  init(makePicture(), {8, 8, 20, 16});
  EXPECT_TRUE(algo->isAlive());
  EXPECT_EQ(idleText(), "-1");
}

TEST_F(AlgoLiveness, LivesForeverWhenTheHostStopsCalling) {
  startTracking();
  clock.advance(3600 * kSecond_ns);
  EXPECT_TRUE(algo->isAlive());
  EXPECT_EQ(idleText(), "3.6e+06");
  loseTarget();
  update(makePicture());  // only this looks
  EXPECT_FALSE(algo->isAlive());
}

TEST_F(AlgoLiveness, HasNoTimeoutAtZero) {
  configure("runtime/dead_timeout_s", "0");
  startTracking();
  loseTarget();
  clock.advance(1'000'000 * kSecond_ns);
  update(makePicture());
  EXPECT_TRUE(algo->isAlive());
  EXPECT_EQ(status(), "track_fail_hold");
}

TEST_F(AlgoLiveness, DoesNotCountBeforeArming) {
  configure("preposition/enabled", "true");
  warmUp(view(10, 5), {65, 10, 20, 20});
  clock.advance(1000 * kSecond_ns);
  update(view(10, 5));
  ASSERT_EQ(status(), "wait_alignment");
  clock.advance(1'000'000 * kSecond_ns);
  update(view(10, 5));
  EXPECT_EQ(status(), "wait_alignment");
  EXPECT_TRUE(algo->isAlive());
  EXPECT_EQ(idleText(), "-1");
  Access::lastTrackOkNs(*algo) = 1;  // not even with a time to count from
  update(view(10, 5));
  EXPECT_TRUE(algo->isAlive());
}

/// A frame that ends in a word which lets the time run.
struct IdleFrame {
  const char* word;
  std::function<void(OstrelAlgo&)> bring_about;
  PicturePtr picture;
};

void PrintTo(const IdleFrame& frame, std::ostream* out) {
  *out << frame.word;
}

std::function<void(OstrelAlgo&)> withOverlay(const std::function<ITrackingOverlay*()>& make) {
  return [make](OstrelAlgo& algo) {
    Access::overlays(algo).clear();
    Access::overlays(algo).emplace_back(make());
  };
}

std::vector<IdleFrame> idleFrames() {
  const auto tracker_fails = [](OstrelAlgo&) {
    FakeBackends::instance().set([](FakeBackendScript& backend) { backend.track.ok = false; });
  };
  return {
      {"track_fail_hold", tracker_fails, makePicture()},
      {"track_fail",
       [tracker_fails](OstrelAlgo& algo) {
         tracker_fails(algo);
         Access::bbox(algo) = {};
       },
       makePicture()},
      {"overlay_rejected", withOverlay([] { return new VerdictOverlay(true, false); }), makePicture()},
      {"overlay_dead", withOverlay([] { return new VerdictOverlay(false, false); }), makePicture()},
      {"overlay_bbox_hold", withOverlay([] { return new ShiftOverlay(1, 0); }), makePicture()},
      {"update_skip_no_frame", [](OstrelAlgo&) {}, nullptr},
      {"update_skip_source_size_changed", [](OstrelAlgo&) {}, makePicture(32, 24)},
      {"update_skip_invalid_proc_size", [](OstrelAlgo& algo) { Access::processingWidth(algo) = 0; },
       makePicture()},
      {"update_skip_no_tracker_impl", [](OstrelAlgo& algo) { Access::tracker(algo).reset(); }, makePicture()},
      {"update_skip_not_initialized", [](OstrelAlgo& algo) { Access::initialized(algo) = false; },
       makePicture()},
  };
}

class AlgoIdleFrame : public AlgoLiveness, public testing::WithParamInterface<IdleFrame> {};

TEST_P(AlgoIdleFrame, LetsTheTimeRunToTheTimeout) {
  startTracking();
  GetParam().bring_about(*algo);
  const std::uint64_t armed_ns = refreshed();
  clock.advance(9 * kSecond_ns);
  update(GetParam().picture);
  EXPECT_EQ(status(), GetParam().word);
  EXPECT_EQ(refreshed(), armed_ns);
  EXPECT_EQ(idleText(), "9000");
  EXPECT_TRUE(algo->isAlive());
  clock.advance(kSecond_ns);
  update(GetParam().picture);
  EXPECT_FALSE(algo->isAlive());
  EXPECT_EQ(detail(), std::string("elapsed_s=10 timeout_s=10 last_status=") + GetParam().word);
}

INSTANTIATE_TEST_SUITE_P(EveryWord, AlgoIdleFrame, testing::ValuesIn(idleFrames()),
                         [](const auto& frame) { return std::string(frame.param.word); });

TEST_F(AlgoLiveness, IsRefreshedByAGoodFrame) {
  startTracking();
  clock.advance(9 * kSecond_ns);
  update(makePicture());
  EXPECT_EQ(refreshed(), clock.now());
  clock.advance(9 * kSecond_ns);
  loseTarget();
  update(makePicture());
  EXPECT_TRUE(algo->isAlive());
}

TEST_F(AlgoLiveness, IsSetByTheInstallationWithoutATarget) {
  warmUp();
  EXPECT_EQ(refreshed(), 0U);
  clock.advance(60 * kSecond_ns);
  update(nullptr);  // installs, tracks nothing
  EXPECT_EQ(refreshed(), clock.now());
}

TEST_F(AlgoLiveness, IsSetByTheMoveToTheTargetNotByTheInstallationBeforeIt) {
  configure("preposition/enabled", "true");
  warmUp(view(10, 5), {65, 10, 20, 20});
  update(view(10, 5));
  EXPECT_EQ(refreshed(), 0U);
  clock.advance(60 * kSecond_ns);
  const std::uint64_t moved_ns = clock.now();
  loseTarget();
  script([this](FakeBackendScript& backend) {
    backend.on_call = [this](const std::string& operation) {
      if (operation == "track_view") clock.advance(kSecond_ns);
    };
  });
  update(view(20, 12.5));
  ASSERT_EQ(phase(), "ready");
  EXPECT_EQ(refreshed(), moved_ns);
}

TEST_F(AlgoLiveness, ReadsTheClockAgainWhereItGaveZero) {
  const auto expect_refreshed_at = [this](std::uint64_t second_reading_ns) {
    EXPECT_EQ(refreshed(), second_reading_ns);
    EXPECT_EQ(clock.takeReadings(), 3);
  };
  warmUp();
  clock.readNext({0, 5, 6});
  clock.takeReadings();
  update(nullptr);  // the installation, then the dead check
  expect_refreshed_at(5);
  clock.readNext({0, 7, 8});
  update(makePicture());  // a good frame, then the dead check
  expect_refreshed_at(7);

  configure("preposition/enabled", "true");
  warmUp(view(10, 5), {65, 10, 20, 20});
  loseTarget();
  clock.readNext({0, 9, 10});
  clock.takeReadings();
  update(view(20, 12.5));  // the move, then the dead check
  expect_refreshed_at(9);
}

TEST_F(AlgoLiveness, ChecksWithASecondReadingWhereTheFirstGaveZero) {
  startTracking();
  Access::lastTrackOkNs(*algo) = 5;
  clock.readNext({0, 5 + 10 * kSecond_ns});
  update(nullptr);
  EXPECT_FALSE(algo->isAlive());
  EXPECT_EQ(detail(), "elapsed_s=10 timeout_s=10 last_status=update_skip_no_frame");
}

TEST_F(AlgoLiveness, CountsFromTheFirstCheckWhenNothingHasSetTheTime) {
  startTracking();
  Access::lastTrackOkNs(*algo) = 0;
  clock.advance(100 * kSecond_ns);
  update(nullptr);
  EXPECT_TRUE(algo->isAlive());
  EXPECT_EQ(refreshed(), clock.now());
  clock.advance(10 * kSecond_ns);
  update(nullptr);
  EXPECT_FALSE(algo->isAlive());
}

TEST_F(AlgoLiveness, ShowsTheIdleTimeInSixDigits) {
  EXPECT_EQ(idleText(), "-1");
  startTracking();
  const std::uint64_t tracked_ns = clock.now();
  const std::pair<std::uint64_t, const char*> cases[] = {
      {0, "0"},
      {1, "1e-06"},
      {kMillisecond_ns, "1"},
      {1500 * kMillisecond_ns + 250'000, "1500.25"},
      {123'456'700'000, "123457"},
      {999'999 * kMillisecond_ns, "999999"},
      {1'000'000 * kMillisecond_ns, "1e+06"},
      {1'234'567 * kMillisecond_ns, "1.23457e+06"},
  };
  for (const auto& [idle_ns, text] : cases) {
    clock.set(tracked_ns + idle_ns);
    EXPECT_EQ(idleText(), text) << idle_ns;
  }
}

TEST_F(AlgoLiveness, StampsEveryFlowLineWithTheClock) {
  algo->enableDebug(true);
  const RecordedLog log;
  script([this](FakeBackendScript& backend) {
    backend.on_call = [this](const std::string& operation) {
      if (operation == "initialize") clock.advance(125 * kMillisecond_ns);
    };
  });
  auto starts = holdStarts();
  clock.readNext({clock.now() - 3 * kMillisecond_ns});  // the call's entry
  init(makePicture(), {8, 8, 20, 16});
  clock.advance(250 * kMillisecond_ns);
  update(makePicture());
  starts.release();
  Access::waitForWorkers(*algo);
  clock.advance(75 * kMillisecond_ns);
  update(nullptr);
  const auto infos = log.infos();
  const char* expected[] = {
      "[TRACK_FLOW][OT] runtime_status steady_ns=1000000000000 status=init_start detail=-",
      "[TRACK_FLOW][OT] init_return steady_ns=1000000000000 enter_to_return_ms=3.000 <*>",
      "[TRACK_FLOW][OT] deferred_init_launch steady_ns=1000250000000 <*>",
      "[TRACK_FLOW][OT] launch_init_worker steady_ns=1000250000000 <*> since_init_return_ms=250.000",
      "[TRACK_FLOW][OT] worker_start steady_ns=1000250000000 <*>",
      "[TRACK_FLOW][OT] worker_done steady_ns=1000375000000 <*> elapsed_ms=125.000 <*>",
      "[TRACK_FLOW][OT] init_worker_result steady_ns=1000450000000 <*> warmup_ms=200.000 tracking_armed=1"};
  for (const char* line : expected) EXPECT_THAT(infos, Contains(ReadsLike(line)));
}

TEST(SteadyClock, RunsByItselfAgainAfterAReplacement) {
  using ostrel_algo_internal::steadyNowNs;
  const std::uint64_t before = steadyNowNs();
  {
    const ScriptedClock clock(7);
    EXPECT_EQ(steadyNowNs(), 7U);
    EXPECT_EQ(ostrel_algo_internal::elapsedMs(steadyNowNs(), 1'500'007), 1.5);
  }
  const std::uint64_t after = steadyNowNs();
  EXPECT_THAT(after, AllOf(testing::Ge(before), testing::Lt(before + 60 * kSecond_ns)));
}

}  // namespace
}  // namespace ostrel_test
