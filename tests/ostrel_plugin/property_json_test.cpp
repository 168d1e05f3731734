#include "ostrel_plugin/src/property_json.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>
#include <string>

namespace {

using nlohmann::ordered_json;
using ostrel_algo_internal::jsonEscape;

TEST(JsonEscape, WritesTheTwoCharacterEscapes) {
  EXPECT_EQ(jsonEscape("a\"b\\c\bd\fe\nf\rg\th"), R"(a\"b\\c\bd\fe\nf\rg\th)");
}

TEST(JsonEscape, WritesABlankForEveryOtherControlByte) {
  EXPECT_EQ(jsonEscape(std::string("\x01|\x1f|\0|\x0b", 7)), " | | | ");
}

TEST(JsonEscape, PassesEveryOtherByte) {
  EXPECT_EQ(jsonEscape("/ \x7f \xc3\xa4 \xff"), "/ \x7f \xc3\xa4 \xff");
  EXPECT_EQ(jsonEscape(""), "");
}

TEST(PropertySchema, OpensWithANewlineAndDescribesAnObject) {
  const std::string text = ostrel_algo_internal::propertySchema();
  EXPECT_EQ(text.substr(0, 2), "\n{");
  const auto schema = ordered_json::parse(text);
  EXPECT_EQ(schema.at("type"), "object");
  EXPECT_EQ(schema.at("additionalProperties"), false);
}

TEST(PropertySchema, IndentsEachLevelByTwoBlanks) {
  std::istringstream text(ostrel_algo_internal::propertySchema());
  std::size_t level = 0;
  std::string line;
  std::getline(text, line);  // the empty one
  while (std::getline(text, line)) {
    const std::size_t indent = line.find_first_not_of(' ');
    ASSERT_NE(indent, std::string::npos);
    if (line[indent] == '}' || line[indent] == ']') --level;
    EXPECT_EQ(indent, 2 * level) << line;
    if (line.back() == '{' || line.back() == '[') ++level;
  }
  EXPECT_EQ(level, 0U);
}

TEST(PropertySchema, DescribesEveryMemberInOrder) {
  const auto schema = ordered_json::parse(ostrel_algo_internal::propertySchema());
  const std::pair<const char*, const char*> expected[] = {{"alive", "boolean"},
                                                          {"initialized", "boolean"},
                                                          {"init_phase", "string"},
                                                          {"score", "number"},
                                                          {"bbox", "array"},
                                                          {"runtime_status", "string"},
                                                          {"runtime_detail", "string"},
                                                          {"raw_bbox", "array"},
                                                          {"raw_score", "number"},
                                                          {"frame_width", "integer"},
                                                          {"frame_height", "integer"},
                                                          {"resize_scale", "number"},
                                                          {"tracker_input_width", "integer"},
                                                          {"tracker_input_height", "integer"},
                                                          {"source_width", "integer"},
                                                          {"source_height", "integer"},
                                                          {"debug_frame_counter", "integer"},
                                                          {"debug_log_period", "integer"},
                                                          {"tracking_dead_timeout_s", "number"},
                                                          {"track_idle_ms", "number"},
                                                          {"stats", "object"}};
  auto member = schema.at("properties").items().begin();
  for (const auto& [key, type] : expected) {
    EXPECT_EQ(member.key(), key);
    EXPECT_EQ(member.value().at("type"), type) << key;
    ++member;
  }
  EXPECT_EQ(schema.at("properties").size(), std::size(expected));
}

TEST(PropertySchema, DescribesBoxesAndStatistics) {
  const auto properties = ordered_json::parse(ostrel_algo_internal::propertySchema()).at("properties");
  for (const char* box : {"bbox", "raw_bbox"}) {
    EXPECT_EQ(properties.at(box).at("items").at("type"), "number");
    EXPECT_EQ(properties.at(box).at("minItems"), 4);
    EXPECT_EQ(properties.at(box).at("maxItems"), 4);
  }
  const auto& stats = properties.at("stats");
  EXPECT_EQ(stats.at("additionalProperties"), false);
  std::string names;
  for (const auto& [key, value] : stats.at("properties").items()) {
    names += key + " ";
    EXPECT_EQ(value.at("type"), "integer");
  }
  EXPECT_EQ(names, "update_calls track_ok track_fail track_fail_hold ");
}

}  // namespace
