// What the process around the parser does: the host's locale, other threads.

#include <gtest/gtest.h>

#include <clocale>
#include <thread>

#include "json_core/encipher.h"
#include "json_core/parse_text.h"
#include "json_core/sw_json_document.h"
#include "support/comma_locale.h"

namespace {

TEST(SwJsonEnvironment, ReadsNumbersAlikeUnderALocaleWithACommaForThePoint) {
  const ostrel_test::CommaLocale locale;
  ASSERT_EQ(std::strtod("1,5", nullptr), 1.5) << "the locale is in force";
  EXPECT_EQ(describe(parse_text("[1.5,-2.25e1,\"1.5\",\".5\"]").value), "[d:1.5,d:-22.5,d:1.5,d:0.5]");
  EXPECT_EQ(parse_text("1,5").index, 1U);
  EXPECT_EQ(describe(parse_text("\"1,5\"").value), "s:\"1,5\"");
  EXPECT_EQ(describe(parse_text(encipher("1.5", kCipherKey), kCipherKey).value), "d:1.5");
  EXPECT_EQ(describe(parse_text(encipher("1,5", kCipherKey), kCipherKey).value), "s:\"1,5\"");
  double value = 0.0;
  EXPECT_TRUE(SwString("1.5").parseNumericDouble(value));
  EXPECT_EQ(value, 1.5);
  EXPECT_EQ(SwString("1.000").toInt(), 1);
}

TEST(SwJsonEnvironment, LetsThreadsParseAndDecipherSideBySide) {
  const std::string document = "{\"list\":[\"" + encipher("1.5", kCipherKey) + "\"," +
                               encipher("12", kCipherKey) + "],\"text\":\"" + encipher("x", kCipherKey) +
                               "\"}";
  const SwJsonDocument shared;
  std::vector<int> right(4, 0);
  std::vector<std::thread> threads;
  for (int& count : right) {
    threads.emplace_back([&] {
      for (int i = 0; i < 200; ++i) {
        std::size_t index = 0;
        SwString error;
        const SwJsonValue value = shared.parseJson(document, index, kCipherKey, error);
        if (error.empty() && describe(value) == "{\"list\":[d:1.5,i:12],\"text\":s:\"x\"}") ++count;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(right, std::vector<int>(4, 200));
}

}  // namespace
