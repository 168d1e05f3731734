#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "ostrel_plugin/config_settings.h"
#include "ostrel_plugin/src/ostrel_config.h"
#include "ostrel_plugin/src/ostrel_config_io.h"

namespace {

using ostrel_test::ConfigSetting;
using ostrel_test::kConfigSettings;

std::string leaf_text(const ConfigSetting& setting) {
  const std::string indent = "          ";
  std::string text = "        \"" + std::string(setting.key) + "\": {\n";
  text += indent + "\"type\": \"" + setting.type + "\",\n";
  if (std::strcmp(setting.type, "array") == 0) text += indent + "\"items\": { \"type\": \"number\" },\n";
  if (*setting.minimum != '\0') {
    text += indent + "\"minimum\": " + setting.minimum + ",\n";
    text += indent + "\"maximum\": " + setting.maximum + ",\n";
  }
  return text + indent + "\"default\": " + setting.default_text + "\n        }";
}

// The whole text, written anew from the table of settings.
std::string expected_schema() {
  std::string text =
      "\n{\n  \"$schema\": \"http://json-schema.org/draft-07/schema#\",\n  \"title\": \"Ostrel Tracker\",\n"
      "  \"type\": \"object\",\n  \"properties\": {\n";
  const std::string group_end = "\n      },\n      \"additionalProperties\": false\n    }";
  std::string group;
  for (const ConfigSetting& setting : kConfigSettings) {
    if (group == setting.group) {
      text += ",\n";
    } else {
      if (!group.empty()) text += group_end + ",\n";
      group = setting.group;
      text += "    \"" + group + "\": {\n      \"type\": \"object\",\n      \"properties\": {\n";
    }
    text += leaf_text(setting);
  }
  return text + group_end + "\n  },\n  \"additionalProperties\": false\n}\n";
}

// A default of the schema in the type of the record's member.
struct ParsedDefault {
  const OstrelConfig& config;
  const char* text;
  void operator()(std::string OstrelConfig::*member) const { EXPECT_EQ("\"" + config.*member + "\"", text); }
  void operator()(float OstrelConfig::*member) const {
    EXPECT_EQ(config.*member, std::strtof(text, nullptr));
  }
  void operator()(std::int32_t OstrelConfig::*member) const {
    EXPECT_EQ(std::to_string(config.*member), text);
  }
  void operator()(bool OstrelConfig::*member) const { EXPECT_STREQ(config.*member ? "true" : "false", text); }
  void operator()(std::vector<float> OstrelConfig::*member) const {
    std::vector<float> values;
    for (const char* at = text + 1; *at != '\0';) {
      char* end = nullptr;
      values.push_back(std::strtof(at, &end));
      at = end + 1;
    }
    EXPECT_EQ(config.*member, values);
  }
};

struct MemberAddress {
  const OstrelConfig& config;
  template <typename T>
  const void* operator()(T OstrelConfig::*member) const {
    return &(config.*member);
  }
};

TEST(ConfigSchema, IsTheExactTextOfAllSettings) {
  EXPECT_EQ(ostrel_cfg::schema(), expected_schema());
}

TEST(ConfigSchema, IsTheSameTextAtEveryCall) {
  EXPECT_EQ(ostrel_cfg::schema(), ostrel_cfg::schema());
}

TEST(OstrelConfig, HoldsTheDefaultsOfTheSchema) {
  const OstrelConfig config;
  for (const ConfigSetting& setting : kConfigSettings) {
    SCOPED_TRACE(setting.key);
    std::visit(ParsedDefault{config, setting.default_text}, setting.member);
  }
}

TEST(OstrelConfig, KeepsItsMembersInTheOrderOfTheSchema) {
  const OstrelConfig config;
  const void* previous = nullptr;
  for (const ConfigSetting& setting : kConfigSettings) {
    SCOPED_TRACE(setting.key);
    const void* address = std::visit(MemberAddress{config}, setting.member);
    EXPECT_LT(previous, address);
    previous = address;
  }
}

TEST(OstrelConfig, HoldsSearchScalesByTheirBits) {
  const OstrelConfig config;
  ASSERT_EQ(config.search_scales.size(), 3U);
  const std::uint32_t expected[] = {0x3F734CE4, 0x3F800000, 0x3F866666};
  EXPECT_EQ(std::memcmp(config.search_scales.data(), expected, sizeof(expected)), 0);
}

}  // namespace
