#include <gtest/gtest.h>

#include "json_core/encipher.h"
#include "json_core/parse_text.h"
#include "json_core/sw_json_document.h"

namespace {

std::string enciphered(const std::string& text) {
  return encipher(text, kCipherKey);
}

std::string quoted(const std::string& text) {
  return "\"" + enciphered(text) + "\"";
}

struct EncipheredCase {
  std::string text;
  std::string description;
};

// What a document gives, with no error and nothing printed.
std::string value_of(const std::string& document) {
  testing::internal::CaptureStderr();
  const Parsed parsed = parse_text(document, kCipherKey);
  EXPECT_EQ(parsed.error, "") << document;
  EXPECT_EQ(parsed.index, document.size()) << document;
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << document;
  return describe(parsed.value);
}

TEST(SwJsonEnciphered, QuotedValuesTakeTheConversionsOfQuotedTexts) {
  const EncipheredCase cases[] = {
      {"text", "s:\"text\""},
      {"true", "b:1"},
      {"false", "b:0"},
      {"null", "null"},
      {"12", "i:12"},
      {"010", "i:8"},
      {"1.5", "d:1.5"},
      {"0.1", "d:0.10000000149011612"},
      {"1e3", "s:\"1e3\""},
      {"-", "s:\"-\""},
      {" 12", "s:\" 12\""},
      {"\"", "s:\"\"\""},
      {std::string("1\0", 2), std::string("s:\"1\0\"", 6)},
  };
  for (const EncipheredCase& c : cases) EXPECT_EQ(value_of(quoted(c.text)), c.description) << c.text;
}

TEST(SwJsonEnciphered, BareTokensTakeTheConversionsOfPlainJson) {
  const EncipheredCase cases[] = {
      {"text!", "s:\"text!\""},
      {"true", "b:1"},
      {"false", "b:0"},
      {"null", "null"},
      {"12", "i:12"},
      {"-12", "i:-12"},
      {"+12", "i:12"},
      {" 12", "i:12"},
      {"12 ", "s:\"12 \""},
      {"010", "i:10"},
      {"0x10", "s:\"0x10\""},
      {"1_000", "s:\"1_000\""},
      {"5000000000", "i:5000000000"},
      {"9223372036854775808", "s:\"9223372036854775808\""},
      {"1.5", "d:1.5"},
      {"0.1", "d:0.10000000000000001"},
      {".5", "d:0.5"},
      {"1.", "d:1"},
      {"1e3", "d:1000"},
      {"1E3", "d:1000"},
      {"1e999", "s:\"1e999\""},
      {"1e-999", "s:\"1e-999\""},
      {"1.5x", "s:\"1.5x\""},
      {"e", "s:\"e\""},
      {"inf", "s:\"inf\""},
      {"-", "s:\"-\""},
      {"{}", "s:\"{}\""},
      {std::string("1\0002", 3), std::string("s:\"1\0002\"", 7)},
      {std::string("1.5\0", 4), std::string("s:\"1.5\0\"", 8)},
  };
  for (const EncipheredCase& c : cases) EXPECT_EQ(value_of(enciphered(c.text)), c.description) << c.text;
}

TEST(SwJsonEnciphered, ReadsWholeDocuments) {
  const std::string document = "{\"a\":" + quoted("text") + ", \"b\" : [" + enciphered("1.5") + "," +
                               enciphered("12") + " , " + quoted("true") +
                               "],\"c\":{\"d\":" + enciphered("null") + "},}";
  EXPECT_EQ(value_of(document), "{\"a\":s:\"text\",\"b\":[d:1.5,i:12,b:1],\"c\":{\"d\":null}}");
}

TEST(SwJsonEnciphered, EndsTokensAtBracketsCommasAndWhiteSpace) {
  const std::string token = enciphered("12");
  for (const char* end : {"]", "}", ",", " ", "\t", "\n", "\v", "\f", "\r"}) {
    const Parsed parsed = parse_text(token + end, kCipherKey);
    EXPECT_EQ(describe(parsed.value), "i:12");
    EXPECT_EQ(parsed.index, token.size());
  }
}

// Such a token begins like a plain value.
TEST(SwJsonEnciphered, TriesEveryBareTokenWhateverItBeginsWith) {
  for (const char first : {'t', 'f', 'n', '0', '7'}) {
    std::string token;
    for (int i = 0; token.empty() || token[0] != first; ++i) token = enciphered("text " + std::to_string(i));
    EXPECT_EQ(value_of(token).substr(0, 8), "s:\"text ") << token;
  }
}

TEST(SwJsonEnciphered, LeavesKeysAlone) {
  EXPECT_EQ(value_of("{\"true\":" + quoted("1") + "}"), "{\"true\":i:1}");
}

TEST(SwJsonEnciphered, MakesPlainValuesEmptyTextsWithALineEach) {
  const std::pair<const char*, const char*> cases[] = {
      {"true", "Decryption error: Invalid data size for AES-ECB (must be multiple of 16).\n"},
      {"12", "Decryption error: Invalid data size for AES-ECB (must be multiple of 16).\n"},
      {"\"text\"", "Decryption error: Invalid data size for AES-ECB (must be multiple of 16).\n"},
      {"-1", "Decryption error: Invalid data: empty.\n"},
      {"\"\"", "Decryption error: Invalid data: empty.\n"},
      {":", "Decryption error: Invalid data: empty.\n"},
      {"[true]", "Decryption error: Invalid data size for AES-ECB (must be multiple of 16).\n"},
  };
  for (const auto& [document, line] : cases) {
    testing::internal::CaptureStderr();
    const Parsed parsed = parse_text(document, kCipherKey);
    EXPECT_EQ(describe(parsed.value), document[0] == '[' ? "[s:\"\"]" : "s:\"\"") << document;
    EXPECT_EQ(parsed.error, "") << document;
    EXPECT_EQ(parsed.index, std::string(document).size()) << document;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), line) << document;
  }
}

TEST(SwJsonEnciphered, PrintsAQuotedNumberOutOfRangeDeciphered) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(describe(parse_text(quoted("5000000000"), kCipherKey).value), "i:0");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Invalid int conversion in SwString: 5000000000\n");
}

TEST(SwJsonEnciphered, MakesGarbageOfAWrongKey) {
  testing::internal::CaptureStderr();
  const Parsed parsed = parse_text(enciphered("a long enough text"), "another key");
  EXPECT_EQ(parsed.error, "");
  EXPECT_EQ(parsed.value.kind, SwJsonValue::Kind::String);
  EXPECT_NE(parsed.value.string_value, "a long enough text");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(SwJsonEnciphered, IsNoValueWithoutAKey) {
  EXPECT_EQ(parse_text("{\"a\":xyz}").error, "Invalid JSON token (index 5) near \"{\"a\":xyz}\"");
  EXPECT_EQ(describe(parse_text(quoted("12")).value), "s:\"" + enciphered("12") + "\"");
}

}  // namespace
