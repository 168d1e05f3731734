#include "json_core/sw_json_document.h"

#include <gtest/gtest.h>

#include "json_core/parse_text.h"

namespace {

struct ValueCase {
  std::string text;
  std::string description;
};

void expect_values(const std::vector<ValueCase>& cases) {
  for (const ValueCase& c : cases) {
    testing::internal::CaptureStderr();
    const Parsed parsed = parse_text(c.text);
    EXPECT_EQ(parsed.error, "") << c.text;
    EXPECT_EQ(describe(parsed.value), c.description) << c.text;
    EXPECT_EQ(parsed.index, c.text.size()) << c.text;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << c.text;
  }
}

TEST(SwJsonDocument, ReadsWordsAndNumbers) {
  expect_values({
      {"true", "b:1"},
      {"false", "b:0"},
      {"null", "null"},
      {"0", "i:0"},
      {"-0", "i:0"},
      {"12", "i:12"},
      {"-12", "i:-12"},
      {"5000000000", "i:5000000000"},
      {"9223372036854775807", "i:9223372036854775807"},
      {"-9223372036854775808", "i:-9223372036854775808"},
      {"0.5", "d:0.5"},
      {"-0.0", "d:-0"},
      {"0.1", "d:0.10000000000000001"},
      {"1.0", "d:1"},
      {"1e3", "d:1000"},
      {"1E3", "d:1000"},
      {"1e+3", "d:1000"},
      {"1.25e-2", "d:0.012500000000000001"},
      {"0e0", "d:0"},
      {"1.7976931348623157e308", "d:1.7976931348623157e+308"},
      {"1e-999", "d:0"},
  });
}

TEST(SwJsonDocument, ReadsObjectsAndArrays) {
  expect_values({
      {"{}", "{}"},
      {"[]", "[]"},
      {"{\"a\":1}", "{\"a\":i:1}"},
      {"{\"b\":1,\"a\":[true,null,{}]}", "{\"a\":[b:1,null,{}],\"b\":i:1}"},
      {"[[[]],{\"x\":[1]}]", "[[[]],{\"x\":[i:1]}]"},
      {"{\"\":1}", "{\"\":i:1}"},
  });
}

TEST(SwJsonDocument, AcceptsACommaBeforeAClosingBracket) {
  expect_values({
      {"{\"a\":1,}", "{\"a\":i:1}"},
      {"[1,2,]", "[i:1,i:2]"},
      {"[[1,],]", "[[i:1]]"},
      {"{\"a\":{\"b\":1 , } , }", "{\"a\":{\"b\":i:1}}"},
  });
}

TEST(SwJsonDocument, SkipsSixKindsOfWhiteSpaceBetweenTokens) {
  const std::string blanks = " \t\n\v\f\r";
  expect_values({
      {blanks + "1", "i:1"},
      {blanks + "{" + blanks + "\"a\"" + blanks + ":" + blanks + "1" + blanks + "," + blanks + "\"b\"" +
           blanks + ":" + blanks + "[" + blanks + "2" + blanks + "," + blanks + "3" + blanks + "]" + blanks +
           "}",
       "{\"a\":i:1,\"b\":[i:2,i:3]}"},
      {"[" + blanks + "]", "[]"},
      {"{" + blanks + "}", "{}"},
  });
}

TEST(SwJsonDocument, KeepsTheLastValueOfARepeatedKey) {
  expect_values({
      {"{\"a\":1,\"a\":2}", "{\"a\":i:2}"},
      {"{\"a\":{\"x\":1},\"a\":[],\"b\":0}", "{\"a\":[],\"b\":i:0}"},
      {"{\"a\":\"text\",\"a\":null}", "{\"a\":null}"},
      {"{\"a\":1,\"\\u0061\":2}", "{\"a\":i:2}"},
  });
  const Parsed parsed = parse_text("{\"a\":\"text\",\"a\":null}");
  EXPECT_EQ(parsed.value.object_value->members.at("a").string_value, "") << "nothing is left of the first";
}

TEST(SwJsonDocument, LeavesKeysAsTheyStand) {
  expect_values({{"{\"true\":1,\"12\":2,\"1.5\":3}", "{\"1.5\":i:3,\"12\":i:2,\"true\":i:1}"}});
}

TEST(SwJsonDocument, StopsBehindTheValue) {
  const Parsed parsed = parse_text("  1 x");
  EXPECT_EQ(describe(parsed.value), "i:1");
  EXPECT_EQ(parsed.index, 3U);
  EXPECT_EQ(parsed.error, "");
  EXPECT_EQ(parse_text("12abc").index, 2U);
  EXPECT_EQ(parse_text("{} {}").index, 2U);
  EXPECT_EQ(parse_text("\"a\"b").index, 3U);
  EXPECT_EQ(parse_text("true,").index, 4U);
}

TEST(SwJsonDocument, StartsAtTheIndexGiven) {
  const SwString text("xx[1]yy");
  std::size_t index = 2;
  SwString error("left from before");
  EXPECT_EQ(describe(SwJsonDocument().parseJson(text, index, "", error)), "[i:1]");
  EXPECT_EQ(index, 5U);
  EXPECT_EQ(error, "");
  index = 2;
  error = "left from before";
  EXPECT_EQ(describe(SwJsonDocument().parseArray(text, index, "", error)), "[i:1]");
  EXPECT_EQ(index, 5U);
  EXPECT_EQ(error, "");
}

TEST(SwJsonDocument, HoldsItsRoot) {
  EXPECT_EQ(SwJsonDocument().root.kind, SwJsonValue::Kind::Null);
  EXPECT_EQ(describe(SwJsonDocument(parse_text("[1]").value).root), "[i:1]");
}

// Each without its quotes.
void expect_quoted(const std::vector<ValueCase>& cases) {
  for (const ValueCase& c : cases) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(describe(parse_text("\"" + c.text + "\"").value), c.description) << c.text;
    EXPECT_EQ(describe(parse_text("{\"a\":\"" + c.text + "\"}").value), "{\"a\":" + c.description + "}");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << c.text;
  }
}

TEST(SwJsonDocument, TurnsQuotedWordsAndNumbersIntoValues) {
  expect_quoted({
      {"true", "b:1"},
      {"false", "b:0"},
      {"null", "null"},
      {"12", "i:12"},
      {"-12", "i:-12"},
      {"010", "i:8"},
      {"09", "i:0"},
      {"2147483647", "i:2147483647"},
      {"-2147483648", "i:-2147483648"},
      {"1.5", "d:1.5"},
      {"-1.5", "d:-1.5"},
      {"1.", "d:1"},
      {".5", "d:0.5"},
      {"-.5", "d:-0.5"},
      {"010.5", "d:10.5"},
      {"0.1", "d:0.10000000149011612"},
      {"16777217.0", "d:16777216"},
      {"1" + std::string(45, '0') + ".0", "d:inf"},
      {"0." + std::string(60, '0') + "1", "d:0"},
      {"\\u0031\\u0032", "i:12"},
  });
}

TEST(SwJsonDocument, LeavesOtherQuotedTextsAsTheyAre) {
  expect_quoted({
      {"", "s:\"\""},
      {"-", "s:\"-\""},
      {".", "s:\".\""},
      {"-.", "s:\"-.\""},
      {"+1", "s:\"+1\""},
      {"--1", "s:\"--1\""},
      {"1-", "s:\"1-\""},
      {"1.2.3", "s:\"1.2.3\""},
      {"1e3", "s:\"1e3\""},
      {"0x10", "s:\"0x10\""},
      {"1_000", "s:\"1_000\""},
      {" 1", "s:\" 1\""},
      {"1 ", "s:\"1 \""},
      {"True", "s:\"True\""},
      {"true ", "s:\"true \""},
      {"nul", "s:\"nul\""},
      {"1\\u00002", std::string("s:\"1\0002\"", 7)},
  });
}

TEST(SwJsonDocument, GivesZeroAndALineForAQuotedNumberOutOfRange) {
  const std::string huge = std::string(400, '9') + ".5";
  const std::pair<std::string, ValueCase> cases[] = {
      {"Invalid int conversion in SwString: 5000000000\n", {"5000000000", "i:0"}},
      {"Invalid int conversion in SwString: -2147483649\n", {"-2147483649", "i:0"}},
      {"Invalid float conversion in SwString: " + huge + "\n", {huge, "d:0"}},
  };
  for (const auto& [line, c] : cases) {
    testing::internal::CaptureStderr();
    const Parsed parsed = parse_text("\"" + c.text + "\"");
    EXPECT_EQ(describe(parsed.value), c.description);
    EXPECT_EQ(parsed.error, "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), line);
  }
}

}  // namespace
