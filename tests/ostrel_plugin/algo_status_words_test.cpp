#include <cerrno>
#include <stdexcept>
#include <system_error>

#include "ostrel_plugin/algo_fixture.h"
#include "ostrel_plugin/scripted_clock.h"
#include "ostrel_plugin/scripted_overlays.h"
#include "ostrel_plugin/status_words.h"

/// Every status word, brought about and read where a host can read it: in the log, since some are replaced within
/// their own call.

namespace ostrel_test {
namespace {

using testing::Contains;

/// The steps of the scenarios, one plug-in object each.
class StatusRun : public AlgoTest {
 public:
  static constexpr ::BBox kRoi{65, 10, 20, 20};  // its gimbal target lies at pan 20, tilt 12.5

  static PicturePtr view(double pan = 10, double tilt = 5) {
    Metadata metadata = makeView(pan, tilt, 40, 30);
    metadata["lumenar.follow_me_enabled_command"] = std::int32_t{1};
    return makePicture(100, 80, metadata);
  }
  void TestBody() override {}

  void start(const PicturePtr& picture = makePicture(), const ::BBox& roi = {8, 8, 20, 16}) {
    init(picture, roi);
  }
  void frame(const PicturePtr& picture = makePicture()) { update(picture); }
  void track() { startTracking(); }
  void waitForView() {
    configure("preposition/enabled", "true");
    warmUp(view(), kRoi);
  }
  /// A start that ends as the script says.
  void startThatEndsIn(const std::function<void(FakeBackendScript&)>& change) {
    script(change);
    warmUp();
    frame();
  }
  void answer(const std::function<void(FakeBackendScript&)>& change) { script(change); }
  void set(const std::string& path, const std::string& value) { configure(path, value); }
  void holdTheStart() { held_ = std::make_unique<HeldStarts>(holdStarts()); }
  OstrelAlgo& object() { return *algo; }

  ScriptedClock clock;

 private:
  std::unique_ptr<HeldStarts> held_;
};

struct Scenario {
  const char* word;
  std::string detail;
  std::function<void(StatusRun&)> bring_about;
};

void PrintTo(const Scenario& scenario, std::ostream* out) {
  *out << scenario.word;
}

std::vector<Scenario> startScenarios() {
  return {
      {"init_start", "", [](StatusRun& run) { run.start(); }},
      {"init_fail_invalid_roi", "",
       [](StatusRun& run) {
         run.start(makePicture(), {8, 8, 0, 16});
       }},
      {"init_fail_no_frame", "", [](StatusRun& run) { run.start(nullptr); }},
      {"init_fail_invalid_source_size", "",
       [](StatusRun& run) { run.start(optrix::OptrixPicture::withoutPixels(0, 48)); }},
      {"init_fail_roi_outside", "",
       [](StatusRun& run) {
         run.start(optrix::OptrixPicture::withoutPixels(65536, 65536), {0, 0, 65536, 65536});
       }},
      {"init_deferred_waiting_update", "", [](StatusRun& run) { run.start(); }},
      {"init_deferred_waiting_alignment", "",
       [](StatusRun& run) {
         run.set("preposition/enabled", "true");
         run.object().enableDebug(true);
         run.start(StatusRun::view(), StatusRun::kRoi);
       }},
      {"wait_first_update_no_frame", "",
       [](StatusRun& run) {
         run.start();
         run.frame(nullptr);
       }},
      {"init_fail_missing_saved_init_frame", "",
       [](StatusRun& run) {
         run.start();
         Access::pendingInit(run.object()).reset();
         run.frame();
       }},
      {"init_warmup_started", "",
       [](StatusRun& run) {
         run.start();
         run.frame();
       }},
      {"init_async_launch_fail", std::system_error(EAGAIN, std::generic_category()).what(),
       [](StatusRun& run) {
         run.start();
         ostrel::host_cuda::fail_call("pthread_create", 1, EAGAIN);
         run.frame();
       }},
      {"init_ok", "ok_atom_native_cpp_backend", [](StatusRun& run) { run.track(); }},
      {"init_async_fail", "initialize failed: no engine",
       [](StatusRun& run) {
         run.startThatEndsIn([](FakeBackendScript& backend) {
           backend.initialize.ok = false;
           backend.initialize.text = "no engine";
         });
       }},
      {"init_async_exception", "lost device",
       [](StatusRun& run) {
         run.startThatEndsIn([](FakeBackendScript& backend) {
           backend.on_call = [](const std::string&) { throw std::runtime_error("lost device"); };
         });
       }},
  };
}

std::vector<Scenario> alignmentScenarios() {
  const auto while_waiting = [](const PicturePtr& picture) {
    return [picture](StatusRun& run) {
      run.waitForView();
      run.object().enableDebug(true);
      run.frame(picture);
    };
  };
  return {
      {"wait_alignment_no_frame", "", while_waiting(nullptr)},
      {"wait_alignment_source_size_changed", "", while_waiting(makePicture(64, 48))},
      {"wait_alignment_metadata", "", while_waiting(makePicture(100, 80))},
      {"wait_alignment", "dx_norm=0.25 dy_norm=-0.25", while_waiting(StatusRun::view())},
      {"teleport_failed", "no state",
       [while_waiting](StatusRun& run) {
         run.answer([](FakeBackendScript& backend) { backend.teleport = {false, "no state", {}, 0.0F}; });
         while_waiting(StatusRun::view(20, 12.5))(run);
       }},
      {"teleport_ok", "moved",
       [while_waiting](StatusRun& run) {
         run.answer([](FakeBackendScript& backend) { backend.teleport.text = "moved"; });
         while_waiting(StatusRun::view(20, 12.5))(run);
       }},
      {"preposition_disabled_tracking_armed", "",
       [while_waiting](StatusRun& run) {
         while_waiting(StatusRun::view())(run);
         run.object().setConfig(R"({"preposition":{"enabled":false},"debug":{"enabled":true}})");
       }},
      {"preposition_disabled_waiting_update", "",
       [](StatusRun& run) {
         run.set("preposition/enabled", "true");
         run.start(StatusRun::view(), StatusRun::kRoi);
         run.object().setConfig(R"({"preposition":{"enabled":false},"debug":{"enabled":true}})");
       }},
  };
}

std::vector<Scenario> skipScenarios() {
  return {
      {"update_skip_not_initialized", "", [](StatusRun& run) { run.frame(); }},
      {"update_skip_waiting_first_update", "",
       [](StatusRun& run) {
         run.start();
         run.frame(nullptr);
       }},
      {"update_skip_warming_up", "",
       [](StatusRun& run) {
         run.holdTheStart();
         run.start();
         run.frame();
         run.frame();
       }},
      {"update_skip_waiting_alignment", "",
       [](StatusRun& run) {
         run.waitForView();
         run.frame(StatusRun::view());
         Access::tracker(run.object()).reset();
         run.object().enableDebug(true);
         run.frame(StatusRun::view());
       }},
      {"update_skip_no_tracker_impl", "",
       [](StatusRun& run) {
         run.track();
         Access::tracker(run.object()).reset();
         run.frame();
       }},
      {"update_skip_no_frame", "",
       [](StatusRun& run) {
         run.track();
         run.frame(nullptr);
       }},
      {"update_skip_source_size_changed", "",
       [](StatusRun& run) {
         run.track();
         run.frame(makePicture(32, 24));
       }},
      {"update_skip_invalid_proc_size", "",
       [](StatusRun& run) {
         run.track();
         Access::processingWidth(run.object()) = 0;
         run.frame();
       }},
  };
}

std::vector<Scenario> frameScenarios() {
  const auto lose = [](FakeBackendScript& backend) { backend.track = {false, "not found", {}, 0.0F}; };
  const auto low_score = [](FakeBackendScript& backend) { backend.track.score = 0.1F; };
  const auto publish = [](StatusRun& run, const char* values) {
    run.object().setConfig(std::string(R"({"debug":{"enabled":true},"publication":)") + values + "}");
  };
  return {
      {"track_ok", "ok_atom_native_cpp_backend", [](StatusRun& run) { run.track(); }},
      {"track_fail", "not found",
       [lose](StatusRun& run) {
         run.track();
         run.answer(lose);
         Access::bbox(run.object()) = {};
         run.frame();
       }},
      {"track_fail_hold", "not found",
       [lose](StatusRun& run) {
         run.track();
         run.answer(lose);
         run.frame();
       }},
      {"overlay_bbox_hold", "ok_atom_native_cpp_backend",
       [](StatusRun& run) {
         run.track();
         Access::overlays(run.object()).push_back(std::make_unique<ShiftOverlay>(1, 0));
         run.frame();
       }},
      {"overlay_rejected", "",
       [low_score, publish](StatusRun& run) {
         publish(run, R"({"lost_after_low_score_frames":1})");
         run.answer(low_score);
         run.track();
       }},
      {"overlay_dead", "",
       [low_score, publish](StatusRun& run) {
         publish(run, R"({"lost_after_low_score_frames":1,"publish_after_confirm_frames":0,
                          "dead_status_confirm_frames":1})");
         run.answer(low_score);
         run.track();
       }},
      {"tracking_dead_timeout", "elapsed_s=10 timeout_s=10 last_status=update_skip_no_frame",
       [](StatusRun& run) {
         run.track();
         run.clock.advance(10 * kSecond_ns);
         run.frame(nullptr);
       }},
  };
}

std::vector<Scenario> scenarios() {
  std::vector<Scenario> all;
  for (const auto& group : {startScenarios(), alignmentScenarios(), skipScenarios(), frameScenarios()}) {
    all.insert(all.end(), group.begin(), group.end());
  }
  return all;
}

class StatusWord : public testing::TestWithParam<Scenario> {};

TEST_P(StatusWord, IsReachedWithItsDetail) {
  const Scenario& scenario = GetParam();
  StatusRun run;
  run.object().enableDebug(true);
  const RecordedLog log;
  scenario.bring_about(run);
  const std::string line = std::string("runtime_status=") + scenario.word;
  EXPECT_THAT(log.console(), Contains(scenario.detail.empty() ? line : line + " detail=" + scenario.detail));
}

INSTANTIATE_TEST_SUITE_P(Every, StatusWord, testing::ValuesIn(scenarios()),
                         [](const auto& scenario) { return std::string(scenario.param.word); });

TEST(StatusWords, AreAllReached) {
  std::vector<std::string> reached{"idle"};  // an object that was never started
  EXPECT_NE(OstrelAlgo().property("").find(R"("runtime_status":"idle","runtime_detail":"")"),
            std::string::npos);
  for (const Scenario& scenario : scenarios()) reached.emplace_back(scenario.word);
  EXPECT_THAT(reached, testing::ElementsAreArray(kStatusWords));
}

}  // namespace
}  // namespace ostrel_test
