#include <gtest/gtest.h>
#include <rcutils/logging.h>

#include <cstdarg>
#include <cstdio>
#include <rclcpp/logger.hpp>
#include <rclcpp/logging.hpp>
#include <string>
#include <vector>

namespace {

struct Line {
  int severity;
  std::string name;
  std::string text;
};

std::vector<Line>& lines() {
  static std::vector<Line> seen;
  return seen;
}

void record(const rcutils_log_location_t*, int severity, const char* name, rcutils_time_point_value_t,
            const char* format, va_list* arguments) {
  char text[256];
  std::vsnprintf(text, sizeof text, format, *arguments);
  lines().push_back({severity, name, text});
}

class Logging : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(rcutils_logging_initialize(), RCUTILS_RET_OK);
    previous_ = rcutils_logging_get_output_handler();
    rcutils_logging_set_output_handler(record);
    lines().clear();
  }
  void TearDown() override { rcutils_logging_set_output_handler(previous_); }

 private:
  rcutils_logging_output_handler_t previous_ = nullptr;
};

TEST_F(Logging, CarriesNameLevelAndFormattedText) {
  RCLCPP_INFO(rclcpp::get_logger("OstrelAlgo"), "box=[%d,%d] score=%.3f", 3, 4, 0.5);
  RCLCPP_WARN(rclcpp::get_logger("OstrelAlgo"), "plain");
  RCLCPP_ERROR(rclcpp::get_logger("other"), "%s", "text");
  ASSERT_EQ(lines().size(), 3u);
  EXPECT_EQ(lines()[0].name, "OstrelAlgo");
  EXPECT_EQ(lines()[0].severity, RCUTILS_LOG_SEVERITY_INFO);
  EXPECT_EQ(lines()[0].text, "box=[3,4] score=0.500");
  EXPECT_EQ(lines()[1].severity, RCUTILS_LOG_SEVERITY_WARN);
  EXPECT_EQ(lines()[1].text, "plain");
  EXPECT_EQ(lines()[2].name, "other");
  EXPECT_EQ(lines()[2].severity, RCUTILS_LOG_SEVERITY_ERROR);
}

TEST_F(Logging, DropsDebugUntilTheLevelAllowsIt) {
  rclcpp::Logger logger = rclcpp::get_logger("level_test");
  RCLCPP_DEBUG(logger, "unseen");
  EXPECT_TRUE(lines().empty());
  logger.set_level(rclcpp::Logger::Level::Debug);
  EXPECT_EQ(logger.get_effective_level(), rclcpp::Logger::Level::Debug);
  RCLCPP_DEBUG(logger, "seen");
  ASSERT_EQ(lines().size(), 1u);
  EXPECT_EQ(lines()[0].text, "seen");
}

TEST_F(Logging, EvaluatesNoArgumentOfADroppedMessage) {
  int calls = 0;
  RCLCPP_DEBUG(rclcpp::get_logger("quiet"), "%d", ++calls);
  EXPECT_EQ(calls, 0);
  RCLCPP_INFO(rclcpp::get_logger("quiet"), "%d", ++calls);
  EXPECT_EQ(calls, 1);
}

TEST_F(Logging, SharesTheLevelBetweenLoggersOfOneName) {
  rclcpp::get_logger("shared").set_level(rclcpp::Logger::Level::Error);
  RCLCPP_WARN(rclcpp::get_logger("shared"), "dropped");
  EXPECT_TRUE(lines().empty());
}

}  // namespace
