#include "json_core/sw_string.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace {

struct IntCase {
  std::string text;
  int value;
  const char* reason;
};

TEST(SwStringToInt, ReadsEachForm) {
  const IntCase cases[] = {
      {" 42\n", 42, "blanks at both ends"},
      {"\t\r42 \t\r\n", 42, "all four blanks"},
      {"+7", 7, "a plus sign"},
      {"-7", -7, "a minus sign"},
      {"0x10", 16, "hexadecimal"},
      {"-0X1f", -31, "hexadecimal with a sign"},
      {"010", 8, "octal"},
      {"09", 0, "the digits of base 8 end at 9"},
      {"0b101", 5, "binary"},
      {"0B11", 3, "binary with a capital letter"},
      {"-0b11", -3, "binary with a sign"},
      {"+0b11", 3, "binary with a plus sign"},
      {"\r\n\t 0b11 \t\n\r", 3, "blanks at both ends of binary digits"},
      {"0b_1_0", 2, "underscores go before the prefix is looked at"},
      {"1_000", 1000, "digit groups"},
      {"_1_", 1, "underscores at the ends"},
      {"_ 1", 1, "a blank behind an underscore is strtoll's to skip"},
      {"12abc", 12, "trailing characters"},
      {"1.9", 1, "a fraction is trailing characters"},
      {"1 2", 1, "a blank in the middle is a trailing character"},
      {std::string("3\0007", 3), 3, "a NUL byte ends the number"},
      {"2147483647", 2147483647, "the largest value"},
      {"-2147483648", std::numeric_limits<int>::min(), "the smallest value"},
  };
  for (const IntCase& c : cases) {
    bool ok = false;
    testing::internal::CaptureStderr();
    EXPECT_EQ(SwString(c.text).toInt(&ok), c.value) << c.reason;
    EXPECT_TRUE(ok) << c.reason;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << c.reason;
  }
}

struct TextCase {
  std::string text;
  const char* reason;
};

TEST(SwStringToInt, RefusesWhatIsNoIntegerWithALineAndZero) {
  const TextCase cases[] = {
      {"", "empty"},
      {" \t\n\r", "blanks alone"},
      {"___", "underscores alone"},
      {"abc", "no digits"},
      {"-", "a sign alone"},
      {"+-5", "two signs"},
      {"0b", "a binary prefix alone"},
      {"-0B", "a binary prefix alone, with a sign"},
      {"0b2", "not a binary digit"},
      {"0b1x", "trailing characters after binary digits"},
      {std::string("0b1\0", 4), "a NUL byte after binary digits"},
      {"2147483648", "beyond 32 bits"},
      {"-2147483649", "beyond 32 bits"},
      {"0b100000000000000000000000000000000", "beyond 32 bits, binary"},
      {"0b" + std::string(70, '1'), "beyond 64 bits, binary"},
      {"9223372036854775808", "beyond 64 bits"},
      {"-9223372036854775809", "beyond 64 bits"},
  };
  for (const TextCase& c : cases) {
    bool ok = true;
    testing::internal::CaptureStderr();
    EXPECT_EQ(SwString(c.text).toInt(&ok), 0) << c.reason;
    EXPECT_FALSE(ok) << c.reason;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Invalid int conversion in SwString: " + c.text + "\n")
        << c.reason;
  }
}

TEST(SwStringToInt, NeedsNoFlag) {
  EXPECT_EQ(SwString("5").toInt(), 5);
  testing::internal::CaptureStderr();
  EXPECT_EQ(SwString("x").toInt(nullptr), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Invalid int conversion in SwString: x\n");
}

struct DoubleCase {
  std::string text;
  double value;
  const char* reason;
};

TEST(SwStringParseNumericDouble, TakesTheFirstFormThatWorks) {
  const DoubleCase cases[] = {
      {"1e3", 1000.0, "an exponent"},
      {"1E3", 1000.0, "an exponent with a capital letter"},
      {" 1.5\n", 1.5, "blanks at both ends"},
      {"1_0.5", 10.5, "underscores"},
      {".5", 0.5, "no digit before the point"},
      {"5.", 5.0, "no digit after the point"},
      {"1.5abc", 1.5, "trailing characters"},
      {"0x10", 16.0, "hexadecimal"},
      {"0x1e", 30.0, "an e that is a hexadecimal digit"},
      {"010", 8.0, "octal"},
      {"010.0", 10.0, "a point makes it decimal"},
      {"0b101", 5.0, "binary"},
      {"-0b11", -3.0, "binary with a sign"},
      {"0b2", 0.0, "not binary, and strtoll reads the zero"},
      {"0b1.1", 0.0, "a point, and strtod reads the zero"},
      {"0b" + std::string(70, '1'), 0.0, "binary beyond 64 bits, and strtoll reads the zero"},
      {"-12", -12.0, "an integer"},
      {"9007199254740993", 9007199254740992.0, "an integer of 64 bits, rounded once"},
      {"18446744073709551616", 18446744073709551616.0, "beyond 64 bits strtod reads it"},
      {"1e999", 1.0, "an overflow leaves the integer before the exponent"},
      {"1e-999", 0.0, "an underflow is no overflow"},
      {"inf", std::numeric_limits<double>::infinity(), "what only strtod reads"},
      {std::string("1.5\0007", 5), 1.5, "a NUL byte ends the number"},
  };
  for (const DoubleCase& c : cases) {
    double value = -77.0;
    EXPECT_TRUE(SwString(c.text).parseNumericDouble(value)) << c.reason;
    EXPECT_EQ(value, c.value) << c.reason;
  }
}

TEST(SwStringParseNumericDouble, LeavesTheResultAloneWhereNothingWorks) {
  const TextCase cases[] = {
      {"", "empty"},
      {" \t_ _", "nothing but blanks and underscores"},
      {"abc", "no digits"},
      {"e5", "an exponent alone"},
      {".", "a point alone"},
      {"-", "a sign alone"},
      {std::string(400, '9'), "beyond every form"},
      {std::string(400, '9') + ".5", "beyond every form, with a point"},
  };
  for (const TextCase& c : cases) {
    double value = -77.0;
    EXPECT_FALSE(SwString(c.text).parseNumericDouble(value)) << c.reason;
    EXPECT_EQ(value, -77.0) << c.reason;
  }
}

TEST(SwStringMid, CutsWithinTheText) {
  const SwString text("abcde");
  EXPECT_EQ(text.mid(0, -1), "abcde");
  EXPECT_EQ(text.mid(1, 3), "bcd");
  EXPECT_EQ(text.mid(1, 0), "");
  EXPECT_EQ(text.mid(2, -5), "cde");
  EXPECT_EQ(text.mid(2, 100), "cde");
  EXPECT_EQ(text.mid(2, std::numeric_limits<int>::max()), "cde");
  EXPECT_EQ(text.mid(4, 1), "e");
}

TEST(SwStringMid, IsEmptyOutsideTheText) {
  const SwString text("abcde");
  EXPECT_EQ(text.mid(5, 1), "");
  EXPECT_EQ(text.mid(6, -1), "");
  EXPECT_EQ(text.mid(-1, 2), "");
  EXPECT_EQ(SwString().mid(0, -1), "");
}

}  // namespace
