#include <gtest/gtest.h>

#include "json_core/encipher.h"
#include "json_core/parse_text.h"
#include "json_core/sw_json_document.h"

namespace {

struct ErrorCase {
  std::string text;
  std::size_t index;
  const char* message;
  const char* reason;
};

// For texts of at most 20 bytes, which the extract shows whole.
std::string report(const ErrorCase& c) {
  std::string text = c.message + (" (index " + std::to_string(c.index)) + ")";
  if (!c.text.empty()) text += " near \"" + c.text + "\"";
  return text;
}

void expect_errors(const std::vector<ErrorCase>& cases, const std::string& key = "") {
  for (const ErrorCase& c : cases) {
    ASSERT_LE(c.text.size(), 20U);
    const Parsed parsed = parse_text(c.text, key);
    EXPECT_EQ(parsed.error, report(c)) << c.reason;
    EXPECT_EQ(parsed.index, c.index) << c.reason;
    EXPECT_EQ(parsed.value.kind, SwJsonValue::Kind::Null) << c.reason;
    EXPECT_EQ(parsed.value.object_value, nullptr) << c.reason;
    EXPECT_EQ(parsed.value.array_value, nullptr) << c.reason;
  }
}

TEST(SwJsonDocumentErrors, NamesValuesThatCannotBegin) {
  constexpr const char* kEnd = "Unexpected end of JSON input";
  constexpr const char* kToken = "Invalid JSON token";
  expect_errors({
      {"", 0, kEnd, "nothing at all"},
      {" \t\n", 3, kEnd, "white space alone"},
      {"{\"a\":", 5, kEnd, "no value after a colon"},
      {"{\"a\": ", 6, kEnd, "white space after a colon"},
      {"abc", 0, kToken, "a word"},
      {"  +1", 2, kToken, "a plus sign"},
      {".5", 0, kToken, "no digit before the point"},
      {"}", 0, kToken, "a closing bracket"},
      {"[,]", 1, kToken, "a comma for an element"},
      {"{\"a\":}", 5, kToken, "no value"},
      {"True", 0, kToken, "a capital letter"},
      {"'a'", 0, kToken, "single quotes"},
      {"\xEF\xBB\xBF{}", 0, kToken, "a byte order mark"},
      {"\xA0"
       "1",
       0, kToken, "a blank of Latin-1 is none"},
      {std::string("\0001", 2), 0, kToken, "a NUL byte"},
  });
}

TEST(SwJsonDocumentErrors, NamesBrokenWords) {
  constexpr const char* kBoolean = "Invalid boolean literal";
  constexpr const char* kNull = "Invalid literal, expected 'null'";
  expect_errors({
      {"truex", 5, kBoolean, "letters are read to their end"},
      {"tru", 3, kBoolean, "cut short"},
      {"t", 1, kBoolean, "one letter"},
      {"fALSE,", 5, kBoolean, "capital letters"},
      {"[falsetrue]", 10, kBoolean, "two words in one"},
      {"nul", 3, kNull, "cut short"},
      {"nullX1", 5, kNull, "letters are read to their end"},
      {"nan", 3, kNull, "no number"},
  });
  EXPECT_EQ(parse_text("true1").index, 4U) << "a digit ends a word";
  EXPECT_EQ(parse_text("null\xE9").index, 4U) << "a byte above 127 ends a word";
}

TEST(SwJsonDocumentErrors, NamesBrokenNumbers) {
  constexpr const char* kDigit = "Expected digit in number literal";
  constexpr const char* kZero = "Leading zeros are not allowed in JSON numbers";
  constexpr const char* kFraction = "Expected digit after decimal point";
  constexpr const char* kExponent = "Expected digit in exponent";
  expect_errors({
      {"-", 1, kDigit, "a sign at the end"},
      {"-x", 1, kDigit, "a sign before a letter"},
      {"--1", 1, kDigit, "two signs"},
      {"-.5", 1, kDigit, "a sign before a point"},
      {"01", 1, kZero, "a leading zero"},
      {"-00", 2, kZero, "a leading zero after a sign"},
      {"[0123]", 2, kZero, "a leading zero in an array"},
      {"1.", 2, kFraction, "a point at the end"},
      {"[1.]", 3, kFraction, "a point before a bracket"},
      {"1.e5", 2, kFraction, "a point before an exponent"},
      {"1e", 2, kExponent, "an exponent at the end"},
      {"1E+", 3, kExponent, "a sign at the end of an exponent"},
      {"0.5e-x", 5, kExponent, "a letter in an exponent"},
      {"1e999", 5, "Invalid floating-point number", "beyond a double"},
      {"-1e999", 6, "Invalid floating-point number", "beyond a double, negative"},
      {"9223372036854775808", 19, "Invalid integer number", "beyond 64 bits"},
      {"-9223372036854775809", 20, "Invalid integer number", "beyond 64 bits, negative"},
  });
}

TEST(SwJsonDocumentErrors, NamesBrokenObjects) {
  constexpr const char* kEnd = "Unterminated JSON object";
  constexpr const char* kKey = "Expected string key in object";
  constexpr const char* kColon = "Expected ':' after object key";
  constexpr const char* kNext = "Expected ',' or '}' in object";
  expect_errors({
      {"{", 1, kEnd, "ends after the bracket"},
      {"{ ", 2, kEnd, "ends after white space"},
      {"{\"a\":1,", 7, kEnd, "ends after a comma"},
      {"{\"a\":1", 6, kEnd, "ends after a value"},
      {"{\"a\":1 ", 7, kEnd, "ends in white space after a value"},
      {"{a:1}", 1, kKey, "a bare key"},
      {"{1:1}", 1, kKey, "a number for a key"},
      {"{,}", 1, kKey, "a comma alone"},
      {"{\"a\":1,,}", 7, kKey, "two commas"},
      {"{]", 1, kKey, "the wrong bracket"},
      {"{\"a\"", 4, kColon, "ends after the key"},
      {"{\"a\" 1}", 5, kColon, "no colon"},
      {"{\"a\",\"b\"}", 4, kColon, "a comma for a colon"},
      {"{\"a\":1 \"b\":2}", 7, kNext, "no comma"},
      {"{\"a\":1]", 6, kNext, "the wrong bracket"},
      {"{\"a\":1:", 6, kNext, "a colon for a comma"},
      {"{\"a\":12abc}", 7, kNext, "letters after a number"},
  });
}

TEST(SwJsonDocumentErrors, NamesBrokenArrays) {
  constexpr const char* kEnd = "Unterminated JSON array";
  constexpr const char* kNext = "Expected ',' or ']' in array";
  expect_errors({
      {"[", 1, kEnd, "ends after the bracket"},
      {"[ ", 2, kEnd, "ends after white space"},
      {"[1", 2, kEnd, "ends after an element"},
      {"[1,", 3, kEnd, "ends after a comma"},
      {"[1, ", 4, kEnd, "ends in white space after a comma"},
      {"[1 2]", 3, kNext, "no comma"},
      {"[1}", 2, kNext, "the wrong bracket"},
      {"[[1]", 4, kEnd, "ends inside the outer array"},
      {"[{\"a\":[1}]", 8, kNext, "the wrong bracket, nested"},
  });
}

TEST(SwJsonDocumentErrors, NamesBrokenStrings) {
  constexpr const char* kEnd = "Unterminated string literal";
  constexpr const char* kControl = "Unescaped control character in string";
  expect_errors({
      {"\"", 1, kEnd, "ends after the quote"},
      {"\"abc", 4, kEnd, "ends in the middle"},
      {"\"a\\\"", 4, kEnd, "the quote is escaped"},
      {"{\"a", 3, kEnd, "a key"},
      {"\"a\nb\"", 2, kControl, "a line feed"},
      {"\"\x1F\"", 1, kControl, "the last control character"},
      {std::string("\"a\0\"", 4), 2, kControl, "a NUL byte"},
      {"\"a\\", 3, "Invalid escape sequence in string", "a backslash at the end"},
      {"\"a\\x\"", 3, "Invalid escape character in string", "no such escape"},
      {"\"\\U0041\"", 2, "Invalid escape character in string", "a capital U"},
      {std::string("\"\\\0\"", 4), 2, "Invalid escape character in string", "a NUL byte"},
  });
}

TEST(SwJsonDocumentErrors, NamesBrokenUnicodeEscapes) {
  constexpr const char* kShort = "Incomplete Unicode escape sequence";
  constexpr const char* kHex = "Invalid hex digit in Unicode escape";
  constexpr const char* kMissing = "Missing low surrogate after high surrogate";
  constexpr const char* kInvalid = "Invalid low surrogate in Unicode escape";
  constexpr const char* kUnexpected = "Unexpected low surrogate without leading high surrogate";
  expect_errors({
      {"\"\\u", 3, kShort, "no digit left"},
      {"\"\\u12\"", 3, kShort, "three characters left"},
      {"\"\\u12\" ", 5, kHex, "four characters left, a quote among them"},
      {"\"\\u12G4\"", 5, kHex, "no digit"},
      {"\"\\u12/4\"", 5, kHex, "the byte before 0"},
      {"\"\\u12:4\"", 5, kHex, "the byte after 9"},
      {"\"\\u12@4\"", 5, kHex, "the byte before A"},
      {"\"\\u12`4\"", 5, kHex, "the byte before a"},
      {"\"\\u12g4\"", 5, kHex, "the byte after f"},
      {"\"\\u-123\"", 3, kHex, "a sign"},
      {"\"\\ud83d\"", 7, kMissing, "the string ends"},
      {"\"\\ud83d", 7, kMissing, "the text ends"},
      {"\"\\ud83dx\"", 7, kMissing, "another character"},
      {"\"\\ud83d\\n\"", 7, kMissing, "another escape"},
      {"\"\\udbff\\", 7, kMissing, "a backslash at the end"},
      {"\"\\ud83d\\u12\"", 9, kShort, "the low half is cut short"},
      {"\"\\ud83d\\u12x4\"", 11, kHex, "no digit in the low half"},
      {"\"\\ud83d\\u0041\"", 13, kInvalid, "below the low surrogates"},
      {"\"\\ud83d\\ue000\"", 13, kInvalid, "above the low surrogates"},
      {"\"\\ud83d\\ud83d\"", 13, kInvalid, "another high surrogate"},
      {"\"\\udc00\"", 7, kUnexpected, "the first low surrogate"},
      {"\"\\udfff\"", 7, kUnexpected, "the last low surrogate"},
      {"{\"\\udc00\":1}", 8, kUnexpected, "in a key"},
  });
}

TEST(SwJsonDocumentErrors, TakesBareTokensForNumbersWhereAKeyFindsNone) {
  expect_errors({{"]", 0, "Expected digit in number literal", "an empty token"},
                 {"{\"a\":}", 5, "Expected digit in number literal", "an empty token in an object"},
                 {"[,]", 1, "Expected digit in number literal", "an empty token in an array"}},
                "key");
}

TEST(SwJsonDocumentErrors, ComeFromParseArrayLikewise) {
  std::size_t index = 1;
  SwString error("left from before");
  const SwJsonValue value = SwJsonDocument().parseArray(" [1 2]", index, "", error);
  EXPECT_EQ(error, "Expected ',' or ']' in array (index 4) near \" [1 2]\"");
  EXPECT_EQ(index, 4U);
  EXPECT_EQ(value.kind, SwJsonValue::Kind::Null);
  EXPECT_EQ(value.array_value, nullptr);
}

TEST(SwJsonDocumentErrors, ComeFromParseStringLikewise) {
  std::size_t index = 0;
  SwString error("left from before");
  EXPECT_EQ(SwJsonDocument().parseString("\"abc\\x", index, error), "");
  EXPECT_EQ(error, "Invalid escape character in string (index 5) near \"\"abc\\x\"");
  EXPECT_EQ(index, 5U);
}

TEST(SwJsonDocumentErrors, AreReportedOnceHoweverDeepTheyLie) {
  EXPECT_EQ(parse_text("[[[{\"a\":[x]}]]]").error, "Invalid JSON token (index 9) near \"[[[{\"a\":[x]}]]]\"");
}

std::string reported(const std::string& text, std::size_t index) {
  SwString error("left from before");
  SwJsonDocument().reportError(error, text, index, "Message");
  return error;
}

TEST(SwJsonDocumentReport, ShowsTwentyBytesOnEachSide) {
  const std::string text = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
  EXPECT_EQ(reported(text, 0), "Message (index 0) near \"abcdefghijklmnopqrst\"");
  EXPECT_EQ(reported(text, 19), "Message (index 19) near \"abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLM\"");
  EXPECT_EQ(reported(text, 20), "Message (index 20) near \"abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMN\"");
  EXPECT_EQ(reported(text, 21), "Message (index 21) near \"bcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNO\"");
  EXPECT_EQ(reported(text, 32), "Message (index 32) near \"mnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ\"");
  EXPECT_EQ(reported(text, 33), "Message (index 33) near \"nopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ\"");
  EXPECT_EQ(reported(text, 52), "Message (index 52) near \"GHIJKLMNOPQRSTUVWXYZ\"");
}

TEST(SwJsonDocumentReport, LeavesTheExtractOutForAnEmptyText) {
  EXPECT_EQ(reported("", 0), "Message (index 0)");
  EXPECT_EQ(reported("", 7), "Message (index 7)");
}

TEST(SwJsonDocumentReport, ShowsBytesAsTheyAre) {
  const std::string text("a\0\"\n\xFF", 5);
  EXPECT_EQ(reported(text, 2), "Message (index 2) near \"" + text + "\"");
}

TEST(SwJsonDocumentReport, SurvivesAnIndexBeyondTheText) {
  EXPECT_EQ(reported("abc", 4), "Message (index 4) near \"abc\"");
  EXPECT_EQ(reported("abc", 22), "Message (index 22) near \"c\"");
  EXPECT_EQ(reported("abc", 100), "Message (index 100) near \"\"");
  EXPECT_EQ(reported("abc", std::string::npos), "Message (index 18446744073709551615) near \"\"");
}

}  // namespace
