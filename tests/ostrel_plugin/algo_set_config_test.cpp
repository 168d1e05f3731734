#include <algorithm>
#include <limits>

#include "ostrel_plugin/algo_fixture.h"
#include "ostrel_plugin/src/tracker_runtime_config.h"

namespace ostrel_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kDebugOn = R"({"debug":{"enabled":true}})";

class AlgoSetConfig : public AlgoTest {
 protected:
  long countOf(const std::string& operation) {
    const auto calls = asked().calls;
    return std::count(calls.begin(), calls.end(), operation);
  }
  /// Ten frames below the score threshold: the box is hidden from the tenth on.
  void hideTheBox() {
    script([](FakeBackendScript& backend) { backend.track.score = 0.1F; });
    for (int frame = 0; frame < 10; ++frame) update(makePicture());
    ASSERT_EQ(status(), "overlay_rejected");
  }
  std::vector<const ITrackingOverlay*> chain() {
    std::vector<const ITrackingOverlay*> overlays;
    for (const auto& overlay : Access::overlays(*algo)) overlays.push_back(overlay.get());
    return overlays;
  }
};

// --- Texts that are no configuration

struct RefusedText {
  const char* reason;
  std::string text;
  const char* message;
};

TEST_F(AlgoSetConfig, RefusesATextThatIsNoObjectFromEndToEnd) {
  const RefusedText cases[] = {
      {"nothing at all", "", "Unexpected end of JSON input (index 0)"},
      {"white space alone", " \n\t", "Unexpected end of JSON input (index 3) near \" \n\t\""},
      {"no JSON", "class_id=3", "Invalid JSON token (index 0) near \"class_id=3\""},
      {"an object that does not end", R"({"target":)",
       R"(Unexpected end of JSON input (index 10) near "{"target":")"},
      {"a bad literal in an unknown key", R"({"target":{"class_id":3},"x":truex})",
       R"(Invalid boolean literal (index 34) near "ass_id":3},"x":truex}")"},
      {"a second value", R"({"target":{"class_id":3}} {})", "Unexpected characters at the end of JSON."},
      {"a letter behind the white space", "{\"target\":{\"class_id\":3}} \n\tx",
       "Unexpected characters at the end of JSON."},
      {"a zero byte at the end", std::string("{\"target\":{\"class_id\":3}}\0", 26),
       "Unexpected characters at the end of JSON."},
      {"an array with something behind it", "[1] 2", "Unexpected characters at the end of JSON."},
      {"an array", R"([{"target":{"class_id":3}}])", ""},
      {"an empty array", "[]", ""},
      {"a string", R"("{}")", ""},
      {"a number", "12", ""},
      {"a truth value", "true", ""},
      {"null", " null ", ""},
  };
  startTracking();
  const auto overlays = chain();
  for (const RefusedText& refused : cases) {
    SCOPED_TRACE(refused.reason);
    algo->enableDebug(true);
    const std::string before = algo->property("").substr(0, algo->property("").find("\"track_idle_ms\""));
    const RecordedLog log;
    algo->setConfig(refused.text);
    EXPECT_EQ(log.consoleText(), std::string("[AlgoPlugin INFO] [OstrelAlgo] setConfig(): invalid JSON (") +
                                     refused.message + ")\n");
    EXPECT_THAT(log.infos(), IsEmpty());
    EXPECT_EQ(algo->property("").substr(0, before.size()), before);
    EXPECT_EQ(config().class_id, -1);
  }
  EXPECT_EQ(chain(), overlays);
  EXPECT_EQ(countOf("updateConfig"), 0);
}

TEST_F(AlgoSetConfig, RefusesSilentlyWithoutDebugging) {
  const RecordedLog log;
  algo->setConfig("[]");
  algo->setConfig("{");
  EXPECT_EQ(log.consoleText(), "");
}

TEST_F(AlgoSetConfig, KeepsDebuggingOnWhenItRefuses) {
  algo->enableDebug(true);
  algo->setConfig("{");  // the record would turn it off
  const RecordedLog log;
  algo->setConfig("{");
  EXPECT_THAT(log.console(), ElementsAre(ReadsLike("setConfig(): invalid JSON (<*>")));
}

TEST_F(AlgoSetConfig, TakesWhiteSpaceAroundTheObject) {
  algo->setConfig(" \t\n\v\f\r{\"target\":{\"class_id\":3}}\r\f\v\n\t ");
  EXPECT_EQ(config().class_id, 3);
}

TEST_F(AlgoSetConfig, TakesAnEmptyObjectAndUnknownKeysAsNoChange) {
  startTracking();
  const auto overlays = chain();
  algo->enableDebug(true);
  const RecordedLog log;
  algo->setConfig("{}");
  algo->setConfig(R"({"unknown":{"key":1},"target":{"other":2}})");
  EXPECT_EQ(log.consoleText(), "");
  EXPECT_EQ(chain(), overlays);
}

// --- Copies, and documents without a change

TEST_F(AlgoSetConfig, OverwritesTheDebugSwitchAlsoWhenNothingChanges) {
  algo->enableDebug(true);
  algo->setConfig("{}");  // the record says false
  {
    const RecordedLog log;
    algo->setConfig("[]");
    EXPECT_EQ(log.consoleText(), "");
  }
  algo->setConfig(kDebugOn);
  algo->enableDebug(false);
  algo->setConfig(kDebugOn);  // says nothing new
  const RecordedLog log;
  algo->setConfig("[]");
  EXPECT_THAT(log.console(), ElementsAre("setConfig(): invalid JSON ()"));
}

TEST_F(AlgoSetConfig, RaisesThePeriodOfTheLogToOne) {
  for (const std::int32_t period : {0, -7, std::numeric_limits<std::int32_t>::min()}) {
    Access::config(*algo).log_every_n_frames = period;
    algo->setConfig("{}");
    EXPECT_EQ(property().at("debug_log_period"), 1);
  }
  Access::config(*algo).log_every_n_frames = 2;
  algo->setConfig("{}");
  EXPECT_EQ(property().at("debug_log_period"), 2);
}

TEST_F(AlgoSetConfig, LeavesEverythingInPlaceWhenADocumentRepeatsTheValues) {
  const char* document = R"({"target":{"class_id":3},"debug":{"enabled":true}})";
  algo->setConfig(document);
  startTracking();
  hideTheBox();
  const auto overlays = chain();
  const RecordedLog log;
  algo->setConfig(document);
  EXPECT_EQ(log.consoleText(), "");
  EXPECT_EQ(chain(), overlays);
  EXPECT_EQ(countOf("updateConfig"), 0);
  script([](FakeBackendScript& backend) { backend.track.score = 0.9F; });
  EXPECT_THAT(update(makePicture()), IsEmpty());  // still waits for its confirmation
  EXPECT_EQ(status(), "overlay_rejected");
}

TEST_F(AlgoSetConfig, ForgetsTheCountersOfTheOverlaysWithAnyChange) {
  startTracking();
  hideTheBox();
  configure("learning/learning_rate", "0.5");
  EXPECT_EQ(update(makePicture()).size(), 1U);  // low as before, and shown again
  EXPECT_EQ(status(), "track_ok");
}

TEST_F(AlgoSetConfig, BuildsOverlaysBeforeThereIsATracker) {
  configure("target/class_id", "3");
  EXPECT_EQ(chain().size(), 2U);
  EXPECT_EQ(countOf("updateConfig"), 0);
}

TEST_F(AlgoSetConfig, SetsNoStatusOfItsOwn) {
  configure("target/class_id", "3");
  EXPECT_EQ(status(), "idle");
  startTracking();
  script([](FakeBackendScript& backend) { backend.update_config = {false, "refused", {}, 0.0F}; });
  configure("target/class_id", "4");
  EXPECT_EQ(status(), "track_ok");
  EXPECT_EQ(detail(), "ok_atom_native_cpp_backend");
}

// --- The running tracker

TEST_F(AlgoSetConfig, HandsTheTrackerTheWholeRecord) {
  startTracking();
  algo->setConfig(R"({"learning":{"update_iterations":7},"scale":{"scale_smoothing":0.25},
                      "processing":{"search_scales":[0.9,1.1]}})");
  ASSERT_EQ(countOf("updateConfig"), 1);
  const auto seen = asked().updated_with;
  const auto built = ostrel_algo_internal::buildTrackerRuntimeConfig(config());
  EXPECT_EQ(seen.update_iterations, 7);
  EXPECT_EQ(seen.scale_smoothing, 0.25F);
  EXPECT_THAT(seen.search_scales, ElementsAre(0.9F, 1.1F));
  EXPECT_EQ(seen.trt_engine_path, built.trt_engine_path);
  EXPECT_EQ(seen.search_size, built.search_size);
  EXPECT_EQ(seen.learning_rate, built.learning_rate);
  EXPECT_EQ(seen.reacquire_max_frames, built.reacquire_max_frames);
}

TEST_F(AlgoSetConfig, HandsItOverForSettingsOfThePlugInToo) {
  startTracking();
  configure("target/class_id", "3");
  EXPECT_EQ(countOf("updateConfig"), 1);
}

TEST_F(AlgoSetConfig, LogsWhatTheTrackerSaid) {
  startTracking();
  algo->setConfig(kDebugOn);
  struct Case {
    FakeAnswer answer;
    const char* line;
  };
  const Case cases[] = {
      {{true, "", {}, 0.0F}, "setConfig hot_apply=1 detail=config_updated"},
      {{true, "search_size requires reinit", {}, 0.0F},
       "setConfig hot_apply=1 detail=search_size requires reinit"},
      {{false, "no state", {}, 0.0F}, "setConfig hot_apply=0 detail=no state"},
      {{false, "", {}, 0.0F}, "setConfig hot_apply=0 detail=config_updated"},
  };
  int class_id = 0;
  for (const Case& each : cases) {
    script([&each](FakeBackendScript& backend) { backend.update_config = each.answer; });
    const RecordedLog log;
    configure("target/class_id", std::to_string(++class_id));
    EXPECT_THAT(log.console(), ElementsAre(each.line));
    EXPECT_THAT(log.infos(), IsEmpty());
  }
}

TEST_F(AlgoSetConfig, LogsByTheSwitchThatItHasJustSet) {
  startTracking();
  RecordedLog log;
  algo->setConfig(kDebugOn);
  EXPECT_THAT(log.console(), ElementsAre("setConfig hot_apply=1 detail=config_updated"));
  log.clear();
  algo->setConfig(R"({"debug":{"enabled":false}})");
  EXPECT_EQ(log.consoleText(), "");
  EXPECT_EQ(countOf("updateConfig"), 2);
}

/// Tells when it goes.
struct MortalOverlay : ITrackingOverlay {
  explicit MortalOverlay(bool* gone) : gone_(gone) {}
  ~MortalOverlay() override { *gone_ = true; }
  void process(TrackingContext&) override {}
  void reset() override {}
  bool* gone_;
};

TEST_F(AlgoSetConfig, ReplacesTheOverlaysBeforeTheTrackerIsTold) {
  startTracking();
  bool gone = false;
  bool gone_before_hand_over = false;
  Access::overlays(*algo).push_back(std::make_unique<MortalOverlay>(&gone));
  script([&](FakeBackendScript& backend) {
    backend.on_call = [&](const std::string&) { gone_before_hand_over = gone; };
  });
  algo->setConfig("{}");
  EXPECT_FALSE(gone);
  configure("target/class_id", "3");
  EXPECT_TRUE(gone_before_hand_over);
  EXPECT_EQ(chain().size(), 2U);
}

TEST_F(AlgoSetConfig, HoldsTheLockUntilTheTrackerIsDone) {
  startTracking();
  std::promise<void> entered;
  std::promise<void> gate;
  script([&entered, opened = gate.get_future().share()](FakeBackendScript& backend) {
    backend.on_call = [&entered, opened](const std::string&) {
      entered.set_value();
      opened.wait();
    };
  });
  auto change = std::async(std::launch::async, [this] { configure("target/class_id", "3"); });
  entered.get_future().wait();
  auto look = std::async(std::launch::async, [this] { algo->property(""); });
  EXPECT_EQ(look.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  gate.set_value();
  look.wait();
  change.wait();
}

}  // namespace
}  // namespace ostrel_test
