#include <gtest/gtest.h>
#include <ostrel_host/bad_input.h>
#include <ostrel_host/configuration_check.h>

#include <string>

namespace {

using namespace ostrel_host;
using nlohmann::json;

const json& schema() {
  static const json schema = json::parse(R"({"type":"object","properties":{
    "group":{"type":"object","properties":{
      "count":{"type":"integer","minimum":1,"maximum":100},
      "rate":{"type":"number","minimum":0.0,"maximum":1.5},
      "least":{"type":"number","minimum":-2},
      "most":{"type":"number","maximum":3},
      "flag":{"type":"boolean"},
      "name":{"type":"string"},
      "scales":{"type":"array","items":{"type":"number"}},
      "bounded":{"type":"array","items":{"type":"integer","minimum":0}},
      "things":{"type":"array"},
      "nothing":{"type":"null"},
      "anything":{}}}}})");
  return schema;
}

// What is said of {"group": {key: value}}; nothing when it is allowed.
std::string refusal_of(const json& document) {
  try {
    check_configuration(document, schema());
  } catch (const BadInput& failure) {
    return failure.what();
  }
  return "";
}
std::string refusal_of(const char* key, const json& value) {
  return refusal_of({{"group", {{key, value}}}});
}

TEST(ConfigurationCheck, AllowsEveryTypeInItsRangeUpToTheBounds) {
  const json document = json::parse(R"({"group":{"count":100,"rate":1.5,"least":-2,"most":3,"flag":false,
    "name":"","scales":[],"bounded":[0,7],"things":[1,"a"],"anything":{"a":[1]}}})");
  EXPECT_EQ(refusal_of(document), "");
  EXPECT_EQ(refusal_of(json::parse(R"({"group":{"count":1,"rate":0,"scales":[1,0.5]}})")), "");
  EXPECT_EQ(refusal_of("count", 20.0), "") << "a whole number, however it is written";
  EXPECT_EQ(refusal_of(json::object()), "");
  EXPECT_EQ(refusal_of({{"group", json::object()}}), "");
}

TEST(ConfigurationCheck, NamesASettingThatNobodyKnows) {
  EXPECT_EQ(refusal_of("cout", 1), "the plug-in knows no setting 'group/cout'");
  EXPECT_EQ(refusal_of({{"grup", 1}}), "the plug-in knows no setting 'grup'");
}

TEST(ConfigurationCheck, TellsTheTypeThatIsNeeded) {
  const std::string head = "the setting 'group/";
  EXPECT_EQ(refusal_of("count", 1.5), head + "count' is 1.5: a whole number is needed");
  EXPECT_EQ(refusal_of("count", "7"), head + "count' is \"7\": a whole number is needed");
  EXPECT_EQ(refusal_of("count", true), head + "count' is true: a whole number is needed");
  EXPECT_EQ(refusal_of("rate", "fast"), head + "rate' is \"fast\": a number is needed");
  EXPECT_EQ(refusal_of("rate", nullptr), head + "rate' is null: a number is needed");
  EXPECT_EQ(refusal_of("flag", 1), head + "flag' is 1: true or false is needed");
  EXPECT_EQ(refusal_of("name", 7), head + "name' is 7: text in quotes is needed");
  EXPECT_EQ(refusal_of("scales", 1), head + "scales' is 1: a list of numbers is needed");
  EXPECT_EQ(refusal_of("scales", {1, "a"}), head + "scales' is [1,\"a\"]: a list of numbers is needed");
  EXPECT_EQ(refusal_of("things", 1), head + "things' is 1: a list is needed");
  EXPECT_EQ(refusal_of("rate", {{"x", 1}}), head + "rate' is {\"x\":1}: a number is needed");
  EXPECT_EQ(refusal_of({{"group", 5}}), "the setting 'group' is 5: a group of settings is needed");
  EXPECT_EQ(refusal_of("name", {"\xff"}), head + "name' is [\"\xEF\xBF\xBD\"]: text in quotes is needed");
}

TEST(ConfigurationCheck, TellsTheRange) {
  const std::string head = "the setting 'group/";
  EXPECT_EQ(refusal_of("count", 0), head + "count' is 0: 1 to 100 is allowed");
  EXPECT_EQ(refusal_of("count", 101), head + "count' is 101: 1 to 100 is allowed");
  EXPECT_EQ(refusal_of("rate", -0.25), head + "rate' is -0.25: 0.0 to 1.5 is allowed");
  EXPECT_EQ(refusal_of("rate", 2), head + "rate' is 2: 0.0 to 1.5 is allowed");
  EXPECT_EQ(refusal_of("least", -3), head + "least' is -3: at least -2 is allowed");
  EXPECT_EQ(refusal_of("most", 4), head + "most' is 4: at most 3 is allowed");
  EXPECT_EQ(refusal_of("bounded", {1, -1}), head + "bounded' is -1: at least 0 is allowed");
}

}  // namespace
