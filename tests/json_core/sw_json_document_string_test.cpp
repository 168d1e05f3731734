#include <gtest/gtest.h>

#include "json_core/parse_text.h"
#include "json_core/sw_json_document.h"

namespace {

std::string string_of(const std::string& quoted) {
  std::size_t index = 0;
  SwString error("left from before");
  const SwString string = SwJsonDocument().parseString(quoted, index, error);
  EXPECT_EQ(error, "") << quoted;
  EXPECT_EQ(index, quoted.size()) << quoted;
  return string;
}

TEST(SwJsonDocumentString, ReadsPlainBytes) {
  EXPECT_EQ(string_of("\"\""), "");
  EXPECT_EQ(string_of("\"a b\""), "a b");
  EXPECT_EQ(string_of("\"12\""), "12");
  EXPECT_EQ(string_of("\"\x7F\xC3\xA9\xFF\""), "\x7F\xC3\xA9\xFF") << "bytes above 127 are taken as they are";
}

TEST(SwJsonDocumentString, EndsAtTheFirstBareQuote) {
  std::size_t index = 3;
  SwString error;
  EXPECT_EQ(SwJsonDocument().parseString("[1,\"ab\"cd\"", index, error), "ab");
  EXPECT_EQ(index, 7U);
  EXPECT_EQ(error, "");
}

TEST(SwJsonDocumentString, KnowsEverySimpleEscape) {
  EXPECT_EQ(string_of(R"("\"\\\/\b\f\n\r\t")"), "\"\\/\b\f\n\r\t");
  EXPECT_EQ(string_of(R"("a\nb\\n")"), "a\nb\\n");
}

TEST(SwJsonDocumentString, WritesUtf8OfOneToFourBytes) {
  const std::pair<const char*, std::string> cases[] = {
      {R"("\u0041")", "A"},
      {R"("\u0000")", std::string(1, '\0')},
      {R"("\u007f")", "\x7F"},
      {R"("\u0080")", "\xC2\x80"},
      {R"("\u07FF")", "\xDF\xBF"},
      {R"("\u1AeB")", "\xE1\xAB\xAB"},
      {R"("\u0800")", "\xE0\xA0\x80"},
      {R"("\uD7ff")", "\xED\x9F\xBF"},
      {R"("\ue000")", "\xEE\x80\x80"},
      {R"("\uFFFF")", "\xEF\xBF\xBF"},
      {R"("\ud800\udc00")", "\xF0\x90\x80\x80"},
      {R"("\uD83D\uDE00")", "\xF0\x9F\x98\x80"},
      {R"("\ud83d\udE15")", "\xF0\x9F\x98\x95"},
      {R"("\udbff\udfff")", "\xF4\x8F\xBF\xBF"},
      {R"("x\u00e9y\u20acz")", "x\xC3\xA9y\xE2\x82\xACz"},
      {R"("\u00e90")",
       "\xC3\xA9"
       "0"},
  };
  for (const auto& [quoted, bytes] : cases) EXPECT_EQ(string_of(quoted), bytes) << quoted;
}

TEST(SwJsonDocumentString, ReadsKeysLikewise) {
  const Parsed parsed = parse_text(R"({"\u00e9\n":1})");
  ASSERT_EQ(parsed.error, "");
  EXPECT_EQ(parsed.value.object_value->members.begin()->first, "\xC3\xA9\n");
}

}  // namespace
