#include <gtest/gtest.h>
#include <ostrel_host/bad_input.h>
#include <ostrel_host/plugin_configuration.h>

#include "apps/ostrel_host/fake_plugin.h"
#include "support/temporary_folder.h"

namespace {

using namespace ostrel_host;
using nlohmann::json;
using ostrel_test::FakePlugin;
using ostrel_test::TemporaryFolder;

constexpr char kSchema[] = R"(
{"type":"object","properties":{
  "debug":{"type":"object","properties":{"enabled":{"type":"boolean"},"log_every_n_frames":{"type":"integer"}}},
  "processing":{"type":"object","properties":{"frame_scale":{"type":"number"}}}}})";

// A plug-in whose setConfig works.
void obey(FakePlugin* plugin) {
  plugin->schema = kSchema;
  plugin->on_config = [](FakePlugin& self, const std::string& text) {
    const json document = json::parse(text);
    const json::json_pointer path("/debug/log_every_n_frames");
    if (document.contains(path)) self.log_period = document.at(path).get<int>();
  };
}

TEST(Configuration, LaysSettingsOverTheFile) {
  const TemporaryFolder folder;
  const std::string file = folder.file("c.json", R"({"a":{"b":1,"c":"keep"},"d":[1,2]})");
  const json document =
      build_configuration(file, {"a/b=2.5", "e/f/g=true", "t=some text", "l=[1,2,3]", "q=\"7\""});
  EXPECT_EQ(document, (json{{"a", {{"b", 2.5}, {"c", "keep"}}},
                            {"d", {1, 2}},
                            {"e", {{"f", {{"g", true}}}}},
                            {"t", "some text"},
                            {"l", {1, 2, 3}},
                            {"q", "7"}}));
  EXPECT_EQ(build_configuration("", {}), json::object());
  EXPECT_EQ(build_configuration("", {"a=1", "a/b=2"}), (json{{"a", {{"b", 2}}}}));
}

TEST(Configuration, RefusesUnusableFilesAndSettings) {
  const TemporaryFolder folder;
  EXPECT_THROW(build_configuration(folder.path("missing.json"), {}), BadInput);
  EXPECT_THROW(build_configuration(folder.file("broken.json", "{\"a\":"), {}), BadInput);
  EXPECT_THROW(build_configuration(folder.file("list.json", "[1]"), {}), BadInput);
  for (const char* setting : {"", "a/b", "=5", "/=5"}) {
    EXPECT_THROW(build_configuration("", {setting}), BadInput) << setting;
  }
}

TEST(Configuration, ReachesAPluginThatTakesIt) {
  FakePlugin plugin;
  obey(&plugin);
  apply_configuration(plugin, build_configuration("", {"processing/frame_scale=0.5"}));
  ASSERT_FALSE(plugin.configs.empty());
  EXPECT_EQ(plugin.configs.back(), R"({"processing":{"frame_scale":0.5}})");
  EXPECT_EQ(plugin.log_period, 5) << "the probe sets back what it changed";
}

TEST(Configuration, DoesNotTouchThePluginWithoutSettings) {
  FakePlugin plugin;
  apply_configuration(plugin, json::object());
  EXPECT_TRUE(plugin.configs.empty());
}

TEST(Configuration, ReportsAPluginThatTakesNone) {
  FakePlugin plugin;
  plugin.schema = kSchema;
  try {
    apply_configuration(plugin, build_configuration("", {"processing/frame_scale=0.5"}));
    FAIL();
  } catch (const BadInput& failure) {
    EXPECT_STREQ(failure.what(), "this plug-in takes no configuration: setConfig changed nothing");
  }
}

TEST(Configuration, NamesASettingThatTheSchemaDoesNotKnow) {
  FakePlugin plugin;
  obey(&plugin);
  for (const char* setting : {"processing/frame_scal=0.5", "proc/frame_scale=1"}) {
    try {
      apply_configuration(plugin, build_configuration("", {setting}));
      FAIL();
    } catch (const BadInput& failure) {
      const std::string path = std::string(setting).substr(0, std::string(setting).find('='));
      EXPECT_NE(std::string(failure.what()).find(path.substr(0, 4)), std::string::npos);
    }
  }
  EXPECT_TRUE(plugin.configs.empty());
}

TEST(Configuration, ReportsWhatSetConfigThrows) {
  FakePlugin plugin;
  plugin.on_config = [](FakePlugin&, const std::string&) { throw std::runtime_error("no"); };
  try {
    apply_configuration(plugin, json{{"debug", {{"enabled", true}}}});
    FAIL();
  } catch (const BadInput& failure) {
    EXPECT_STREQ(failure.what(), "the plug-in refused the configuration: no");
  }
}

}  // namespace
