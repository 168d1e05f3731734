#include <algorithm>
#include <thread>

#include "ostrel_plugin/algo_fixture.h"
#include "ostrel_plugin/src/ostrel_config_io.h"
#include "ostrel_plugin/src/property_json.h"
#include "support/grouping_locale.h"

namespace ostrel_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class AlgoBasics : public AlgoTest {};

TEST_F(AlgoBasics, AnnouncesItsTwoOutputTypes) {
  const auto declarations = algo->getOutputDeclarations();
  ASSERT_EQ(declarations.size(), 2U);
  EXPECT_EQ(declarations[0].output_type, "detection.v1");
  EXPECT_EQ(declarations[0].param_a, 10);
  EXPECT_EQ(declarations[0].param_b, 30);
  EXPECT_EQ(declarations[1].output_type, "gimbal_preposition.v1");
  EXPECT_EQ(declarations[1].param_a, 0);
  EXPECT_EQ(declarations[1].param_b, 0);
}

TEST_F(AlgoBasics, HasAFixedNameAndIsDynamic) {
  EXPECT_EQ(algo->getName(), "OstrelAlgo");
  EXPECT_TRUE(algo->isDynamic());
}

TEST_F(AlgoBasics, IsAliveBeforeItEverTracked) {
  EXPECT_TRUE(algo->isAlive());
}

TEST_F(AlgoBasics, ShowsItsStateAfterConstruction) {
  EXPECT_EQ(algo->property(""),
            "{\"alive\":true,\"initialized\":false,\"init_phase\":\"idle\",\"score\":0,\"bbox\":[0,0,0,0],"
            "\"runtime_status\":\"idle\",\"runtime_detail\":\"\",\"raw_bbox\":[0,0,0,0],\"raw_score\":0,"
            "\"frame_width\":0,\"frame_height\":0,\"resize_scale\":1,\"tracker_input_width\":0,"
            "\"tracker_input_height\":0,\"source_width\":0,\"source_height\":0,\"debug_frame_counter\":0,"
            "\"debug_log_period\":5,\"tracking_dead_timeout_s\":10,\"track_idle_ms\":-1,"
            "\"stats\":{\"update_calls\":0,\"track_ok\":0,\"track_fail\":0,\"track_fail_hold\":0}}");
}

TEST_F(AlgoBasics, IgnoresTheArgumentOfProperty) {
  EXPECT_EQ(algo->property("alive"), algo->property("no such key"));
}

TEST_F(AlgoBasics, WritesNumbersWithSixDigitsWhateverTheLocale) {
  const GroupingLocale grouping;
  const PicturePtr wide = optrix::OptrixPicture::withoutPixels(1234567, 2000000);
  script([](FakeBackendScript& backend) {
    backend.track.bbox = {0.00001234F, 2.0F / 3.0F, 12.3456789F, 20.0F};
    backend.track.score = 0.7F;
  });
  startTracking();
  update(wide);
  const std::string text = algo->property("");
  EXPECT_THAT(text, testing::HasSubstr("\"raw_bbox\":[1.234e-05,0.666667,12.3457,20],\"raw_score\":0.7,"));
  EXPECT_THAT(text, testing::HasSubstr("\"score\":0.7,\"bbox\":[0,1,12,20],"));
  EXPECT_THAT(text, testing::HasSubstr("\"source_width\":1234567,\"source_height\":2000000,"));
  init(wide, {1000001, 1, 1234567, 5});
  EXPECT_THAT(algo->property(""), testing::HasSubstr("\"bbox\":[1000001,1,234566,5]"));
}

TEST_F(AlgoBasics, WritesFloatsOfAMillionAndMoreWithAnExponent) {
  const PicturePtr wide = optrix::OptrixPicture::withoutPixels(2000000, 2000000);
  startTracking();
  Access::inverseScaleX(*algo) = 100000.0F;
  script([](FakeBackendScript& backend) { backend.track.bbox = {1.0F, 2.0F, 12.34567F, 20.0F}; });
  update(wide);
  EXPECT_THAT(algo->property(""), testing::HasSubstr("\"raw_bbox\":[100000,2,1.23457e+06,20]"));
}

bool isOfType(const nlohmann::ordered_json& value, const nlohmann::ordered_json& described) {
  const std::string type = described.at("type");
  if (type == "boolean") return value.is_boolean();
  if (type == "string") return value.is_string();
  if (type == "number") return value.is_number();
  if (type == "integer") return value.is_number_integer();
  if (type != "array") return type == "object" && value.is_object();
  return value.is_array() && value.size() == described.at("minItems") &&
         value.size() == described.at("maxItems") &&
         std::all_of(value.begin(), value.end(),
                     [&](const auto& item) { return isOfType(item, described.at("items")); });
}

void expectDescribedInOrder(const nlohmann::ordered_json& shown, const nlohmann::ordered_json& schema) {
  EXPECT_EQ(schema.at("additionalProperties"), false);
  const auto& described = schema.at("properties");
  ASSERT_EQ(shown.size(), described.size());
  auto next = described.items().begin();
  for (const auto& [key, value] : shown.items()) {
    EXPECT_EQ(key, next.key());
    EXPECT_TRUE(isOfType(value, next.value())) << key << " is " << value;
    ++next;
  }
}

TEST_F(AlgoBasics, ShowsWhatItsSchemaDescribesInTheSameOrder) {
  const auto schema = nlohmann::ordered_json::parse(algo->getPropertyList());
  const auto expect_described = [&] {
    const auto shown = nlohmann::ordered_json::parse(algo->property(""));
    expectDescribedInOrder(shown, schema);
    expectDescribedInOrder(shown.at("stats"), schema.at("properties").at("stats"));
  };
  expect_described();
  startTracking();
  expect_described();
}

TEST_F(AlgoBasics, WritesItsPropertiesWithoutWhiteSpace) {
  startTracking();
  EXPECT_EQ(algo->property("").find_first_of(" \n\t"), std::string::npos);
}

TEST_F(AlgoBasics, EscapesStatusAndDetail) {
  Access::setStatus(*algo, "a\"b", std::string("tab\tand\x01quote\\"));
  EXPECT_THAT(algo->property(""),
              testing::HasSubstr(R"("runtime_status":"a\"b","runtime_detail":"tab\tand quote\\")"));
}

TEST_F(AlgoBasics, ListsItsPropertiesAndSettingsAsConstantTexts) {
  const std::string settings = algo->getConfigList();
  EXPECT_EQ(settings, ostrel_cfg::schema());
  const std::string listed = algo->getPropertyList();
  EXPECT_EQ(listed, ostrel_algo_internal::propertySchema());
  startTracking();
  algo->setConfig(R"({"target":{"class_id":3},"runtime":{"dead_timeout_s":3}})");
  algo->setConfig("{");
  EXPECT_EQ(algo->getConfigList(), settings);
  EXPECT_EQ(algo->getPropertyList(), listed);
}

TEST_F(AlgoBasics, IgnoresPerformanceAndProperties) {
  const std::string before = algo->property("");
  for (const int level : {-1, 0, 1000000}) algo->changePerformance(level);
  algo->setProperty("alive", "false");
  algo->setProperty("", "");
  EXPECT_EQ(algo->property(""), before);
}

TEST_F(AlgoBasics, KeepsOneIdentifierOfItsOwn) {
  OstrelAlgo other;
  const std::string uuid = algo->getUuid();
  EXPECT_EQ(algo->getUuid(), uuid);
  EXPECT_NE(other.getUuid(), uuid);
  EXPECT_GE(uuid.size(), 4U);
  EXPECT_LE(uuid.size(), 32U);
  EXPECT_EQ(uuid.find_first_not_of("0123456789abcdef"), std::string::npos) << uuid;
}

TEST_F(AlgoBasics, PadsNoDrawOfAnIdentifier) {
  std::size_t shortest = 32;
  for (int i = 0; i < 200; ++i) shortest = std::min(shortest, OstrelAlgo().getUuid().size());
  EXPECT_LT(shortest, 32U);  // about every fourth identifier holds a draw with a leading zero
}

TEST_F(AlgoBasics, WaitsForARunningFrameOnlyWhereItReadsState) {
  startTracking();
  std::promise<void> entered;
  std::promise<void> gate;
  script([&entered, opened = gate.get_future().share()](FakeBackendScript& backend) {
    backend.on_call = [&entered, opened](const std::string&) {
      entered.set_value();
      opened.wait();
    };
  });
  std::thread frame([this] { update(makePicture()); });
  entered.get_future().wait();
  EXPECT_EQ(algo->getName(), "OstrelAlgo");
  EXPECT_TRUE(algo->isDynamic());
  EXPECT_EQ(algo->getOutputDeclarations().size(), 2U);
  EXPECT_FALSE(algo->getPropertyList().empty());
  algo->changePerformance(3);
  algo->setProperty("alive", "false");
  const std::function<void()> waiting[] = {
      [this] { algo->isAlive(); },       [this] { algo->getUuid(); },
      [this] { algo->property(""); },    [this] { algo->enableDebug(false); },
      [this] { algo->getConfigList(); }, [this] { algo->setConfig("{}"); },
  };
  std::vector<std::future<void>> calls;
  for (const auto& call : waiting) calls.push_back(std::async(std::launch::async, call));
  for (const auto& call : calls) {
    EXPECT_EQ(call.wait_for(std::chrono::milliseconds(10)), std::future_status::timeout);
  }
  gate.set_value();
  for (const auto& call : calls) call.wait();
  frame.join();
  EXPECT_EQ(stat("track_ok"), 2);
}

/// Tells how many trackers are alive when it goes.
struct LastLook : ITrackingOverlay {
  explicit LastLook(int* alive) : alive_(alive) {}
  ~LastLook() override { *alive_ = FakeBackends::instance().snapshot().alive; }
  void process(TrackingContext&) override {}
  void reset() override {}
  int* alive_;
};

TEST_F(AlgoBasics, DestroysTheOverlaysBeforeTheTracker) {
  int alive = -1;
  startTracking();
  Access::overlays(*algo).push_back(std::make_unique<LastLook>(&alive));
  algo.reset();
  EXPECT_EQ(alive, 1);
  EXPECT_EQ(asked().alive, 0);
}

TEST_F(AlgoBasics, NamesEveryPhase) {
  using Phase = Access::Phase;
  EXPECT_EQ(Access::phaseName(Phase::Idle), "idle");
  EXPECT_EQ(Access::phaseName(Phase::WaitingFirstUpdate), "waiting_first_update");
  EXPECT_EQ(Access::phaseName(Phase::WarmingUp), "warming_up");
  EXPECT_EQ(Access::phaseName(Phase::WaitingAlignment), "waiting_alignment");
  EXPECT_EQ(Access::phaseName(Phase::Ready), "ready");
  EXPECT_EQ(Access::phaseName(Phase::Failed), "failed");
  EXPECT_EQ(Access::phaseName(static_cast<Phase>(99)), "unknown");
  EXPECT_EQ(static_cast<int>(Phase::Failed), 5);
}

TEST_F(AlgoBasics, OrdersTheMembersOfADetectionByContract) {
  DetectionResult result;
  result.detections.push_back({{-1, 2, 3, 4}, -1, "boat", "", 7, 0.7F});
  result.detections.push_back({});
  const AlgoOutput output = Access::detections(*algo, result);
  EXPECT_EQ(output.output_type, "detection.v1");
  const auto& payload = std::get<4>(output.payload.value);
  ASSERT_EQ(payload.size(), 1U);
  EXPECT_EQ(payload[0].first, "detections");
  const auto& detections = std::get<5>(payload[0].second.value);
  ASSERT_EQ(detections.size(), 2U);

  const auto& members = std::get<4>(detections[0].value);
  const std::pair<const char*, std::size_t> expected[] = {
      {"x", 1},          {"y", 1},          {"w", 1},          {"h", 1},    {"class_id", 1},
      {"class_name", 3}, {"class_info", 3}, {"tracker_id", 1}, {"score", 2}};
  ASSERT_EQ(members.size(), std::size(expected));
  for (std::size_t i = 0; i < members.size(); ++i) {
    EXPECT_EQ(members[i].first, expected[i].first);
    EXPECT_EQ(members[i].second.value.index(), expected[i].second) << members[i].first;
  }
  EXPECT_EQ(std::get<1>(members[0].second.value), -1);
  EXPECT_EQ(std::get<1>(members[4].second.value), -1);
  EXPECT_EQ(std::get<3>(members[5].second.value), "boat");
  EXPECT_EQ(std::get<1>(members[7].second.value), 7);
  EXPECT_EQ(std::get<2>(members[8].second.value), 0.699999988079071044921875);  // the float, widened
}

TEST_F(AlgoBasics, AnswersWithAnEmptyListOfDetectionsRatherThanNoOutput) {
  bool ok = false;
  EXPECT_THAT(publishedIn(algo->update({}, &ok)), IsEmpty());
  EXPECT_TRUE(ok);
  EXPECT_EQ(status(), "update_skip_not_initialized");
  EXPECT_THAT(publishedIn(algo->update({nullptr, makePicture()}, nullptr)), IsEmpty());
}

TEST_F(AlgoBasics, LogsNothingUntilDebuggingIsOn) {
  const RecordedLog log;
  startTracking();
  update(makePicture());
  EXPECT_THAT(log.infos(), IsEmpty());
  EXPECT_THAT(log.warnings(), IsEmpty());
  EXPECT_EQ(log.consoleText(), "");
}

TEST_F(AlgoBasics, LogsAChangeOfStatusOnBothPaths) {
  algo->enableDebug(true);
  const RecordedLog log;
  Access::setStatus(*algo, "word", "");
  Access::setStatus(*algo, "word", "because");
  EXPECT_THAT(log.console(), ElementsAre("runtime_status=word", "runtime_status=word detail=because"));
  EXPECT_THAT(
      log.infos(),
      ElementsAre(ReadsLike("[TRACK_FLOW][OT] runtime_status steady_ns=<n> status=word detail=-"),
                  ReadsLike("[TRACK_FLOW][OT] runtime_status steady_ns=<n> status=word detail=because")));
}

TEST_F(AlgoBasics, LogsARepeatedStatusOnlyAtAPeriodOfOneAndOnlyOnTheConsole) {
  configure("debug/enabled", "true");
  Access::setStatus(*algo, "word", "");
  const RecordedLog log;
  Access::setStatus(*algo, "word", "");
  EXPECT_THAT(log.console(), IsEmpty());
  configure("debug/log_every_n_frames", "2");
  Access::setStatus(*algo, "word", "");
  EXPECT_THAT(log.console(), IsEmpty());
  configure("debug/log_every_n_frames", "1");
  Access::setStatus(*algo, "word", "");
  EXPECT_THAT(log.console(), ElementsAre("runtime_status=word"));
  EXPECT_THAT(log.infos(), IsEmpty());
}

TEST_F(AlgoBasics, KeepsTheWordOfEveryTrackedFrameOutOfTheLogger) {
  algo->enableDebug(true);
  const RecordedLog log;
  Access::setStatus(*algo, "track_ok", "new detail");
  EXPECT_THAT(log.console(), ElementsAre("runtime_status=track_ok detail=new detail"));
  EXPECT_THAT(log.infos(), IsEmpty());
}

TEST_F(AlgoBasics, StopsLoggingWhenDebuggingIsTurnedOff) {
  const RecordedLog log;
  algo->enableDebug(true);
  algo->enableDebug(false);
  Access::setStatus(*algo, "word", "");
  EXPECT_EQ(log.consoleText(), "");
}

}  // namespace
}  // namespace ostrel_test
