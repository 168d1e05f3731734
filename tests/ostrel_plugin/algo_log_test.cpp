#include "ostrel_plugin/src/algo_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ostrel_plugin/recorded_log.h"

namespace {

using ostrel_test::RecordedLog;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(FormatText, FormatsAnyLength) {
  EXPECT_EQ(ostrel_algo_internal::formatText("%s", ""), "");
  EXPECT_EQ(ostrel_algo_internal::formatText("%d %.3f", 7, 0.5), "7 0.500");
  const std::string text(5000, 'x');
  EXPECT_EQ(ostrel_algo_internal::formatText("<%s>", text.c_str()), "<" + text + ">");
}

TEST(Console, WritesThePrefixTheNameAndTheMessage) {
  const RecordedLog log;
  ostrel_algo_internal::writeConsole("Some", "a %d b");
  EXPECT_EQ(log.consoleText(), "[AlgoPlugin INFO] [Some] a %d b\n");
  EXPECT_THAT(log.infos(), IsEmpty());
}

TEST(Logger, WritesTheMessageAsItIs) {
  const RecordedLog log;
  ostrel_algo_internal::writeLogInfo("100 %s %n");
  ostrel_algo_internal::writeLogWarning("careful");
  EXPECT_THAT(log.infos(), ElementsAre("100 %s %n"));
  EXPECT_THAT(log.warnings(), ElementsAre("careful"));
  EXPECT_EQ(log.consoleText(), "");
}

TEST(ReadsLike, TellsPatternsApart) {
  using ostrel_test::readsLike;
  EXPECT_TRUE(readsLike("[a][b] n=12 f=-1.000 p=0x7f x=[1,2]", "[a][b] n=<n> f=<f> p=<p> x=[1,2]"));
  EXPECT_FALSE(readsLike("n=1x", "n=<n>"));
  EXPECT_FALSE(readsLike("f=1.00", "f=<f>"));
  EXPECT_FALSE(readsLike("text and more", "text"));
  EXPECT_TRUE(readsLike("text and more", "text<*>"));
}

}  // namespace
