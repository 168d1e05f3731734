#include <gtest/gtest.h>
#include <ostrel_host/bad_input.h>
#include <ostrel_host/demo_command.h>
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
  "target":{"type":"object","properties":{"class_name":{"type":"string"}}},
  "processing":{"type":"object","properties":{"frame_scale":{"type":"number","minimum":0.4}}}}})";

// What refuses a configuration says.
template <typename Action>
std::string refusal_of(const Action& action) {
  try {
    action();
  } catch (const BadInput& failure) {
    return failure.what();
  }
  return "";
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

TEST(Configuration, PutsAValueWhereAPathLeads) {
  json document{{"a", 1}};
  set_value(&document, "a/b/c", "text");
  set_value(&document, "/d", 2);
  EXPECT_EQ(document, (json{{"a", {{"b", {{"c", "text"}}}}}, {"d", 2}}));
}

TEST(Configuration, RefusesUnusableFilesAndSettings) {
  const TemporaryFolder folder;
  const auto refusal_of_file = [&](const char* bytes) {
    const std::string file = folder.file("c.json", bytes);
    const std::string text = refusal_of([&] { build_configuration(file, {}); });
    const std::string head = "the configuration '" + file + "' ";
    return text.rfind(head, 0) == 0 ? text.substr(head.size()) : text;
  };
  EXPECT_EQ(refusal_of([&] { build_configuration(folder.path("missing.json"), {}); }),
            "the configuration '" + folder.path("missing.json") + "' cannot be read");
  EXPECT_EQ(refusal_of_file(""), "is malformed JSON at line 1");
  EXPECT_EQ(refusal_of_file("{\"a\":"), "is malformed JSON at line 1");
  EXPECT_EQ(refusal_of_file("{\n\"a\": 1,\n\"b\" 2\n}\n"), "is malformed JSON at line 3");
  EXPECT_EQ(refusal_of_file("{\"a\":\"\xff\"}"), "is malformed JSON at line 1");
  EXPECT_EQ(refusal_of_file("[1]"), "is no JSON object");
  EXPECT_EQ(refusal_of_file("{\"a\":1e999}"), "holds a number that is too large");
  for (const std::string setting : {"", "a/b", "=5", "/=5"}) {
    EXPECT_EQ(refusal_of([&] { build_configuration("", {setting}); }),
              "'" + setting + "' is no setting: path=value is needed");
  }
}

TEST(Configuration, RefusesAFolderAsAFile) {
  const TemporaryFolder folder;
  EXPECT_EQ(refusal_of([&] { build_configuration(folder.path().string(), {}); }),
            "the configuration '" + folder.path().string() + "' cannot be read");
}

std::string nested(const std::string& open, const std::string& close, int levels) {
  std::string text = "1";
  for (int level = 0; level < levels; ++level) text = open + text + close;
  return text;
}

TEST(Configuration, RefusesATreeThatIsDeeperThanTheStack) {
  const TemporaryFolder folder;
  const std::string list(100'000, '[');
  const std::string file = folder.file("deep.json", "{\"a\":" + list + std::string(list.size(), ']') + "}");
  EXPECT_EQ(refusal_of([&] { build_configuration(file, {}); }),
            "the configuration '" + file + "' is nested too deeply");
  for (const std::string& value : {list, list + std::string(list.size(), ']'), nested("{\"b\":", "}", 34)}) {
    EXPECT_EQ(refusal_of([&] { build_configuration("", {"a/b=" + value}); }),
              "the setting 'a/b' is nested too deeply");
  }
  std::string path;
  for (int level = 0; level < 33; ++level) path += "/a";
  EXPECT_EQ(refusal_of([&] { build_configuration("", {path + "=1"}); }),
            "the setting '" + path + "' is nested too deeply");
  EXPECT_EQ(build_configuration("", {"a=" + nested("[", "]", 30)}).at("a").size(), 1U);
  EXPECT_EQ(build_configuration("", {"a=[[1"}), (json{{"a", "[[1"}})) << "no JSON, and so text";
}

TEST(Configuration, OfTheDemoLaysTheUsersOverItsOwn) {
  const auto configuration_with = [](std::vector<std::string> settings) {
    DemoOptions options;
    options.settings = std::move(settings);
    return demo_configuration(options);
  };
  const json own = configuration_with({});
  EXPECT_EQ(own.at("preposition"), (json{{"enabled", true}}));
  EXPECT_TRUE(own.at("runtime").at("dead_timeout_s").is_number());
  json expected = own;
  expected["preposition"]["enabled"] = false;
  expected["target"]["class_id"] = 7;
  EXPECT_EQ(configuration_with({"preposition/enabled=false", "target/class_id=7"}), expected);
}

TEST(Configuration, OfTheDemoHidesNoNullFromTheCheck) {
  for (const char* setting : {"preposition=null", "preposition/enabled=null", "target/class_id=null"}) {
    DemoOptions options;
    options.settings = {setting};
    const json document = demo_configuration(options);
    const std::string path =
        std::string("/") + std::string(setting).substr(0, std::string(setting).find('='));
    ASSERT_TRUE(document.contains(json::json_pointer(path))) << setting;
    EXPECT_TRUE(document.at(json::json_pointer(path)).is_null()) << setting;
  }
}

TEST(Configuration, ReachesThePluginAsItIsBuilt) {
  FakePlugin plugin;
  plugin.schema = kSchema;
  apply_configuration(plugin, build_configuration("", {"processing/frame_scale=0.5"}));
  EXPECT_EQ(plugin.configs, std::vector<std::string>{R"({"processing":{"frame_scale":0.5}})"});
}

TEST(Configuration, DoesNotTouchThePluginWithoutSettings) {
  FakePlugin plugin;
  apply_configuration(plugin, json::object());
  EXPECT_TRUE(plugin.configs.empty());
}

TEST(Configuration, IsRefusedWhereTheSchemaDoesNotAllowIt) {
  FakePlugin plugin;
  plugin.schema = kSchema;
  const auto refusal_of_setting = [&](const char* setting) {
    return refusal_of([&] { apply_configuration(plugin, build_configuration("", {setting})); });
  };
  EXPECT_EQ(refusal_of_setting("processing/frame_scal=0.5"),
            "the plug-in knows no setting 'processing/frame_scal'");
  EXPECT_EQ(refusal_of_setting("processing/frame_scale=0.25"),
            "the setting 'processing/frame_scale' is 0.25: at least 0.4 is allowed");
  EXPECT_EQ(refusal_of_setting("target/class_name=7"),
            "the setting 'target/class_name' is 7: text in quotes is needed");
  EXPECT_EQ(refusal_of_setting("target/class_name=\xff"), "a setting holds text that is no UTF-8");
  EXPECT_TRUE(plugin.configs.empty());
}

TEST(Configuration, NeedsASchema) {
  FakePlugin plugin;
  plugin.schema = "no schema";
  EXPECT_EQ(refusal_of([&] {
              apply_configuration(plugin, json{{"a", 1}});
            }),
            "the plug-in describes its settings by no JSON object");
}

TEST(Configuration, ReportsWhatSetConfigThrows) {
  FakePlugin plugin;
  plugin.on_config = [](FakePlugin&, const std::string&) { throw std::runtime_error("no"); };
  EXPECT_EQ(refusal_of([&] {
              apply_configuration(plugin, json{{"debug", {{"enabled", true}}}});
            }),
            "the plug-in refused the configuration: no");
}

}  // namespace
