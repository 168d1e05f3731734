#include <gtest/gtest.h>

#include <string>

#include "ostrel_plugin/config_documents.h"
#include "ostrel_plugin/src/ostrel_config_io.h"

namespace {

using ostrel_test::documented_settings;
using ostrel_test::DocumentedSetting;

std::string leaf_text(const DocumentedSetting& setting) {
  const std::string indent = "          ";
  const bool list = setting.type == "array of numbers";
  std::string text = "        \"" + setting.key + "\": {\n";
  text += indent + "\"type\": \"" + (list ? "array" : setting.type) + "\",\n";
  if (list) text += indent + "\"items\": { \"type\": \"number\" },\n";
  if (!setting.minimum.empty()) {
    text += indent + "\"minimum\": " + setting.minimum + ",\n";
    text += indent + "\"maximum\": " + setting.maximum + ",\n";
  }
  return text + indent + "\"default\": " + setting.default_text + "\n        }";
}

// The whole text, written anew from the tables of docs/configuration.md.
std::string expected_schema() {
  std::string text =
      "\n{\n  \"$schema\": \"http://json-schema.org/draft-07/schema#\",\n  \"title\": \"Ostrel Tracker\",\n"
      "  \"type\": \"object\",\n  \"properties\": {\n";
  const std::string group_end = "\n      },\n      \"additionalProperties\": false\n    }";
  std::string group;
  for (const DocumentedSetting& setting : documented_settings()) {
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

// Key by key, type, range and default to the digit: none is missing on the page, none invented.
TEST(ConfigSchema, IsTheExactTextOfTheDocumentedSettings) {
  EXPECT_EQ(ostrel_cfg::schema(), expected_schema());
}

TEST(ConfigSchema, DescribesFiftyOneSettings) {
  EXPECT_EQ(documented_settings().size(), 51U);
}

TEST(ConfigSchema, IsTheSameTextAtEveryCall) {
  EXPECT_EQ(ostrel_cfg::schema(), ostrel_cfg::schema());
}

}  // namespace
