#include "ostrel_plugin/src/swcfg.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <vector>

namespace {

using Parts = std::vector<std::string>;

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr std::int32_t kIntMin = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t kIntMax = std::numeric_limits<std::int32_t>::max();

SwJsonValue integer(std::int64_t value) {
  return SwJsonValue(value);
}
SwJsonValue real(double value) {
  return SwJsonValue(value);
}
SwJsonValue text(const char* value) {
  return SwJsonValue(SwString(value));
}
SwJsonValue flag(bool value) {
  return SwJsonValue(value);
}
SwJsonValue object_of(const std::string& key, const SwJsonValue& value) {
  SwJsonObject object;
  object.members[key] = value;
  return SwJsonValue(object);
}

// The kinds that no reader can use.
std::vector<SwJsonValue> unusable_values() {
  return {SwJsonValue(), SwJsonValue(SwJsonObject()), SwJsonValue(SwJsonArray())};
}

TEST(SwcfgText, LowersBytesOneByOne) {
  EXPECT_EQ(swcfg::toLower("AbC xYz 09"), "abc xyz 09");
  EXPECT_EQ(swcfg::toLower("\xC3\x84"), "\xC3\x84");
  EXPECT_EQ(swcfg::toLower(""), "");
}

TEST(SwcfgText, TrimsEveryKindOfWhiteSpaceAtBothEnds) {
  EXPECT_EQ(swcfg::trim(" \t\n\v\f\ra b\r\f\v\n\t "), "a b");
  EXPECT_EQ(swcfg::trim(" \t "), "");
  EXPECT_EQ(swcfg::trim(""), "");
  EXPECT_EQ(swcfg::trim("\xC2\xA0x"), "\xC2\xA0x");
}

TEST(SwcfgPath, IsCutAtSlashesAndBackslashesAndTrimmed) {
  const Parts iterations = {"learning", "update_iterations"};
  EXPECT_EQ(swcfg::splitPath("learning/update_iterations"), iterations);
  EXPECT_EQ(swcfg::splitPath("/learning//update_iterations/"), iterations);
  EXPECT_EQ(swcfg::splitPath("learning / update_iterations"), iterations);
  EXPECT_EQ(swcfg::splitPath("learning\\update_iterations"), iterations);
  EXPECT_EQ(swcfg::splitPath("\\/\tlearning\n/ / \\update_iterations\\"), iterations);
  EXPECT_EQ(swcfg::splitPath("one part/two"), (Parts{"one part", "two"}));
  EXPECT_EQ(swcfg::splitPath("alone"), Parts{"alone"});
}

TEST(SwcfgPath, HasNoPartsWhereNothingStandsBetweenTheSlashes) {
  for (const char* path : {"", "/", "\\", " ", " / \\ //"})
    EXPECT_EQ(swcfg::splitPath(path), Parts()) << path;
}

TEST(SwcfgValue, IsFoundAtTheEndOfItsPath) {
  SwJsonObject object;
  object.members["a"] = object_of("b", object_of("c", integer(7)));
  object.members["top"] = integer(3);
  SwJsonValue value;
  ASSERT_TRUE(swcfg::getValue(object, "/a / b\\c", value));
  EXPECT_EQ(value.int_value, 7);
  ASSERT_TRUE(swcfg::getValue(object, "top", value));
  EXPECT_EQ(value.int_value, 3);
  ASSERT_TRUE(swcfg::getValue(SwJsonDocument(SwJsonValue(object)), "a/b", value));
  EXPECT_EQ(value.kind, SwJsonValue::Kind::Object);
}

TEST(SwcfgValue, IsNotFoundOnAPathThatLeadsNowhere) {
  SwJsonObject object;
  object.members["a"] = object_of("b", integer(7));
  object.members["number"] = integer(1);
  object.members["list"] = SwJsonValue(SwJsonArray());
  object.members["broken"].kind = SwJsonValue::Kind::Object;  // without a held object
  for (const char* path : {"", "/", "x", "a/x", "x/b", "A/b", "a/b/c", "number/b", "list/0", "broken/b"}) {
    SwJsonValue value = integer(42);
    EXPECT_FALSE(swcfg::getValue(object, path, value)) << path;
    EXPECT_EQ(value.int_value, 42) << path;
  }
}

TEST(SwcfgValue, AtTheEndMayBeAnythingEvenAnObjectThatHoldsNone) {
  SwJsonObject object;
  object.members["broken"].kind = SwJsonValue::Kind::Object;
  object.members["nothing"] = SwJsonValue();
  SwJsonValue value = integer(42);
  ASSERT_TRUE(swcfg::getValue(object, "broken", value));
  EXPECT_EQ(value.kind, SwJsonValue::Kind::Object);
  ASSERT_TRUE(swcfg::getValue(object, "nothing", value));
  EXPECT_EQ(value.kind, SwJsonValue::Kind::Null);
}

TEST(SwcfgValue, ComesOnlyFromADocumentWhoseRootIsAnObject) {
  SwJsonValue broken;
  broken.kind = SwJsonValue::Kind::Object;
  SwJsonValue stale = object_of("a", integer(1));  // a held object that the kind disowns
  stale.kind = SwJsonValue::Kind::Array;
  for (const SwJsonValue& root : {SwJsonValue(), integer(1), SwJsonValue(SwJsonArray()), broken, stale}) {
    SwJsonValue value = integer(42);
    EXPECT_FALSE(swcfg::getValue(SwJsonDocument(root), "a", value));
    EXPECT_EQ(value.int_value, 42);
  }
}

TEST(SwcfgValue, SharesNothingWithTheDocument) {
  const SwJsonDocument document(object_of("a", object_of("b", integer(7))));
  SwJsonValue value;
  ASSERT_TRUE(swcfg::getValue(document, "a", value));
  value.object_value->members["b"] = integer(8);
  SwJsonValue again;
  ASSERT_TRUE(swcfg::getValue(document, "a/b", again));
  EXPECT_EQ(again.int_value, 7);
}

TEST(SwcfgValue, MayReplaceTheTreeThatItWasFoundIn) {
  SwJsonDocument document(object_of("a", object_of("b", integer(7))));
  ASSERT_TRUE(swcfg::getValue(document, "a/b", document.root));
  EXPECT_EQ(document.root.kind, SwJsonValue::Kind::Integer);
  EXPECT_EQ(document.root.int_value, 7);
}

TEST(SwcfgBool, ReadsEveryKindThatHasATruth) {
  const struct {
    SwJsonValue value;
    bool expected;
  } cases[] = {{flag(true), true},         {flag(false), false}, {integer(0), false}, {integer(-3), true},
               {integer(1LL << 32), true}, {real(0.0), false},   {real(-0.0), false}, {real(1e-300), true},
               {text("true"), true},       {text("1"), true},    {text("yes"), true}, {text("on"), true},
               {text("TRUE"), true},       {text("Yes"), true},  {text("oN"), true},  {text("false"), false},
               {text("0"), false},         {text("2"), false},   {text(""), false},   {text(" yes "), false},
               {text("enabled"), false}};
  for (const auto& one : cases) {
    bool out = !one.expected;
    EXPECT_TRUE(swcfg::assignBoolValue(one.value, out));
    EXPECT_EQ(out, one.expected) << one.value.string_value;
  }
}

TEST(SwcfgBool, LeavesTheTargetWhereThereIsNone) {
  for (const SwJsonValue& value : unusable_values()) {
    for (bool before : {false, true}) {
      bool out = before;
      EXPECT_FALSE(swcfg::assignBoolValue(value, out));
      EXPECT_EQ(out, before);
    }
  }
}

TEST(SwcfgString, WritesNumbersAndTruthsAsText) {
  const struct {
    SwJsonValue value;
    const char* expected;
  } cases[] = {{text("as it is "), "as it is "},
               {text(""), ""},
               {integer(12), "12"},
               {integer(-12), "-12"},
               {integer(std::numeric_limits<std::int64_t>::min()), "-9223372036854775808"},
               {real(0.5), "0.500000"},
               {real(-1e-9), "-0.000000"},
               {real(1e22), "10000000000000000000000.000000"},
               {flag(true), "true"},
               {flag(false), "false"}};
  for (const auto& one : cases) {
    std::string out = "before";
    EXPECT_TRUE(swcfg::assignStringValue(one.value, out));
    EXPECT_EQ(out, one.expected);
  }
}

TEST(SwcfgString, HoldsTheLongestDoubleWhole) {
  std::string out;
  EXPECT_TRUE(swcfg::assignStringValue(real(std::numeric_limits<double>::max()), out));
  EXPECT_EQ(out.size(), 309U + 7U);
}

TEST(SwcfgString, LeavesTheTargetWhereThereIsNone) {
  for (const SwJsonValue& value : unusable_values()) {
    std::string out = "before";
    EXPECT_FALSE(swcfg::assignStringValue(value, out));
    EXPECT_EQ(out, "before");
  }
}

TEST(SwcfgDouble, ReadsEveryKindThatHasANumber) {
  const struct {
    SwJsonValue value;
    double expected;
  } cases[] = {{real(0.25), 0.25},      {integer(-3), -3.0},         {integer(1LL << 40), 1099511627776.0},
               {flag(true), 1.0},       {flag(false), 0.0},          {text("0.5"), 0.5},
               {text(" \t-2e3"), -2e3}, {text("0.5 and more"), 0.5}, {text("0x10"), 16.0},
               {text("+7"), 7.0}};
  for (const auto& one : cases) {
    double out = 99.0;
    EXPECT_TRUE(swcfg::assignDoubleValue(one.value, out, -1e15, 1e15));
    EXPECT_EQ(out, one.expected) << one.value.string_value;
  }
}

TEST(SwcfgDouble, HoldsTheValueToItsBounds) {
  const struct {
    SwJsonValue value;
    double expected;
  } cases[] = {{real(0.3), 0.4},        {real(0.4), 0.4},   {real(0.7), 0.7},     {real(1.0), 1.0},
               {real(1.1), 1.0},        {integer(-9), 0.4}, {integer(9), 1.0},    {flag(false), 0.4},
               {text("-inf"), 0.4},     {text("inf"), 1.0}, {text("1e300"), 1.0}, {real(kInfinity), 1.0},
               {real(-kInfinity), 0.4}, {text("-1"), 0.4}};
  for (const auto& one : cases) {
    double out = 99.0;
    EXPECT_TRUE(swcfg::assignDoubleValue(one.value, out, 0.4, 1.0));
    EXPECT_EQ(out, one.expected) << one.value.string_value;
  }
}

TEST(SwcfgDouble, LetsANanPassSinceItLiesBeyondNoBound) {
  for (const SwJsonValue& value : {text("nan"), text("NaN(1)"), real(std::nan(""))}) {
    double out = 0.5;
    EXPECT_TRUE(swcfg::assignDoubleValue(value, out, 0.4, 1.0));
    EXPECT_TRUE(std::isnan(out));
  }
}

TEST(SwcfgDouble, LeavesTheTargetWhereThereIsNone) {
  std::vector<SwJsonValue> values = unusable_values();
  for (const char* word : {"", " ", "x1", "-", "1e999", "-1e999", "1e-400"}) values.push_back(text(word));
  for (const SwJsonValue& value : values) {
    double out = 0.5;
    EXPECT_FALSE(swcfg::assignDoubleValue(value, out, 0.4, 1.0)) << value.string_value;
    EXPECT_EQ(out, 0.5);
  }
}

TEST(SwcfgInt, ReadsEveryKindThatHasANumber) {
  const struct {
    SwJsonValue value;
    std::int32_t expected;
  } cases[] = {{integer(12), 12}, {integer(-12), -12}, {real(2.9), 2},
               {real(-2.9), -2},  {real(0.999999), 0}, {flag(true), 1},
               {flag(false), 0},  {text("12"), 12},    {text(" \t-12 frames"), -12},
               {text("2.9"), 2},  {text("0x10"), 0},   {text("010"), 10}};
  for (const auto& one : cases) {
    std::int32_t out = 99;
    EXPECT_TRUE(swcfg::assignIntValue(one.value, out, kIntMin, kIntMax));
    EXPECT_EQ(out, one.expected) << one.value.string_value;
  }
}

TEST(SwcfgInt, WrapsAnIntegerBeyondThirtyTwoBits) {
  const struct {
    std::int64_t value;
    std::int32_t expected;
  } cases[] = {{4294967297, 1},
               {-4294967295, 1},
               {2147483648, kIntMin},
               {-2147483649, kIntMax},
               {4294967295, -1},
               {std::numeric_limits<std::int64_t>::max(), -1},
               {std::numeric_limits<std::int64_t>::min(), 0}};
  for (const auto& one : cases) {
    std::int32_t out = 99;
    EXPECT_TRUE(swcfg::assignIntValue(integer(one.value), out, kIntMin, kIntMax));
    EXPECT_EQ(out, one.expected) << one.value;
  }
}

TEST(SwcfgInt, HoldsADoubleBeyondThirtyTwoBitsToTheNearestEnd) {
  const struct {
    double value;
    std::int32_t expected;
  } cases[] = {{4294967297.0, kIntMax}, {1e300, kIntMax},      {kInfinity, kIntMax}, {-2147483649.0, kIntMin},
               {-1e300, kIntMin},       {-kInfinity, kIntMin}, {std::nan(""), 0},    {2147483647.5, kIntMax}};
  for (const auto& one : cases) {
    std::int32_t out = 99;
    EXPECT_TRUE(swcfg::assignIntValue(real(one.value), out, kIntMin, kIntMax));
    EXPECT_EQ(out, one.expected) << one.value;
  }
}

TEST(SwcfgInt, HoldsTheValueToItsBoundsAfterTheConversion) {
  const struct {
    SwJsonValue value;
    std::int32_t expected;
  } cases[] = {{integer(7), 8},           {integer(8), 8},    {integer(9), 9},         {integer(250), 250},
               {integer(251), 250},       {real(250.9), 250}, {real(8.9), 8},          {flag(true), 8},
               {integer(4294967306), 10}, {real(1e12), 250},  {integer(3000000000), 8}};
  for (const auto& one : cases) {
    std::int32_t out = 99;
    EXPECT_TRUE(swcfg::assignIntValue(one.value, out, 8, 250));
    EXPECT_EQ(out, one.expected) << one.value.int_value << ' ' << one.value.double_value;
  }
}

TEST(SwcfgInt, LeavesTheTargetWhereThereIsNone) {
  std::vector<SwJsonValue> values = unusable_values();
  for (const char* word : {"", " ", "x1", "-", "2147483648", "-2147483649", "nan"})
    values.push_back(text(word));
  for (const SwJsonValue& value : values) {
    std::int32_t out = 99;
    EXPECT_FALSE(swcfg::assignIntValue(value, out, kIntMin, kIntMax)) << value.string_value;
    EXPECT_EQ(out, 99);
  }
}

class SwcfgByPath : public testing::Test {
 protected:
  SwcfgByPath() {
    SwJsonObject group;
    group.members["flag"] = text("on");
    group.members["word"] = integer(12);
    group.members["count"] = real(2.9);
    group.members["ratio"] = text("0.7");
    group.members["nothing"] = SwJsonValue();
    SwJsonObject root;
    root.members["group"] = SwJsonValue(group);
    document_.root = SwJsonValue(root);
  }

  SwJsonDocument document_;
};

TEST_F(SwcfgByPath, ReadsTheValueAtTheEndOfThePath) {
  bool enabled = false;
  EXPECT_TRUE(swcfg::assignBool(document_, "group/flag", enabled));
  EXPECT_TRUE(enabled);
  std::string word;
  EXPECT_TRUE(swcfg::assignString(document_, "group/word", word));
  EXPECT_EQ(word, "12");
  std::int32_t count = 0;
  EXPECT_TRUE(swcfg::assignInt(document_, "group/count", count, 0, 9));
  EXPECT_EQ(count, 2);
  EXPECT_TRUE(swcfg::assignInt(document_, "group/count", count, 4, 9));
  EXPECT_EQ(count, 4);
  double ratio = 0.0;
  EXPECT_TRUE(swcfg::assignDouble(document_, "group/ratio", ratio, 0.0, 1.0));
  EXPECT_EQ(ratio, 0.7);
  float narrow = 0.0F;
  EXPECT_TRUE(swcfg::assignDouble(document_, "group/ratio", narrow, 0.0, 1.0));
  EXPECT_EQ(narrow, 0.7F);
  EXPECT_TRUE(swcfg::assignDouble(document_, "group/ratio", narrow, 0.0, 0.1));
  EXPECT_EQ(narrow, 0.1F);
}

TEST_F(SwcfgByPath, LeavesTheTargetWhereThePathOrTheValueIsUseless) {
  for (const char* path : {"group/absent", "absent/flag", "group/nothing", "group", ""}) {
    bool enabled = true;
    EXPECT_FALSE(swcfg::assignBool(document_, path, enabled)) << path;
    EXPECT_TRUE(enabled);
    std::string word = "before";
    EXPECT_FALSE(swcfg::assignString(document_, path, word)) << path;
    EXPECT_EQ(word, "before");
    std::int32_t count = 77;
    EXPECT_FALSE(swcfg::assignInt(document_, path, count, 0, 9)) << path;
    EXPECT_EQ(count, 77);
    double ratio = 77.0;
    EXPECT_FALSE(swcfg::assignDouble(document_, path, ratio, 0.0, 1.0)) << path;
    EXPECT_EQ(ratio, 77.0);
    float narrow = 77.0F;
    EXPECT_FALSE(swcfg::assignDouble(document_, path, narrow, 0.0, 1.0)) << path;
    EXPECT_EQ(narrow, 77.0F);
  }
}

}  // namespace
