// Documents that use the settings to their ends, through the real library: nothing that a host can write brings it
// down, and the next good document goes on.

#include "plugin/loaded_plugin_fixture.h"

namespace ostrel_test {
namespace {

using nlohmann::ordered_json;

class PluginConfig : public LoadedPluginTest {
 protected:
  PluginConfig() : plugin_(create()), schema_(ordered_json::parse((*plugin_).getConfigList())) {}

  void set(const ordered_json& document) { (*plugin_).setConfig(document.dump()); }
  bool start() { return plugin_.init(frame(0), asBox(scene_.target_at(0))); }
  PicturePtr frame(int index) { return uploaded(scene_.render(index).image); }

  /// A document of what each setting has under this name in the schema; null, which changes nothing, elsewhere.
  ordered_json all(const char* name) {
    ordered_json document;
    for (const auto& group : schema_.at("properties").items()) {
      for (const auto& leaf : group.value().at("properties").items()) {
        document[group.key()][leaf.key()] = leaf.value().value(name, ordered_json());
      }
    }
    return document;
  }
  ordered_json all_nan() {
    ordered_json document = all("minimum");
    for (ordered_json& group : document) {
      for (ordered_json& value : group) {
        if (!value.is_null()) value = "nan";
      }
    }
    return document;
  }

  /// Repeats the first frame while the start is under way. The properties are no JSON while they hold a NaN.
  void await_start() {
    const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    do {
      plugin_.update(frame(0));
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    } while ((*plugin_).property("").find("\"init_phase\":\"warming_up\"") != std::string::npos &&
             std::chrono::steady_clock::now() < give_up);
  }
  /// A start and some frames, whatever becomes of them.
  void run_through() {
    if (!start()) return;
    await_start();
    for (int index = 1; index < 6; ++index) plugin_.update(frame(index));
  }
  void expect_that_defaults_track() {
    set(all("default"));
    ASSERT_TRUE(start());
    plugin_.settle(frame(0));
    plugin_.update(frame(1));
    EXPECT_EQ(plugin_.phase(), "ready") << plugin_.property();
    EXPECT_EQ(plugin_.status(), "track_ok") << plugin_.property();
  }
  /// One value during a run, one frame with it, and the default again.
  void try_live(const std::string& group, const std::string& key, const ordered_json& value) {
    SCOPED_TRACE(group + "/" + key + " " + value.dump());
    set({{group, {{key, value}}}});
    plugin_.update(frame(1));
    set({{group, {{key, schema_.at("properties").at(group).at("properties").at(key).at("default")}}}});
  }

  ostrel_scene::Scene scene_ = makeScene();
  DrivenPlugin plugin_;
  ordered_json schema_;
};

TEST_F(PluginConfig, StandsAStartAtTheLowerEndOfEveryRange) {
  set(all("minimum"));
  run_through();
  expect_that_defaults_track();
}

TEST_F(PluginConfig, StandsAStartAtTheUpperEndOfEveryRange) {
  set(all("maximum"));
  run_through();
  expect_that_defaults_track();
}

TEST_F(PluginConfig, StandsAStartWithANanInEveryNumber) {
  set(all_nan());
  run_through();
  expect_that_defaults_track();
}

TEST_F(PluginConfig, StandsAStartWithScalesOfEveryKind) {
  for (const char* list :
       {"[1]", "[-1,0]", R"(["nan"])", R"(["inf","-inf",1])", "[1e-30,1e30]", "[1,1,1,1]"}) {
    SCOPED_TRACE(list);
    set({{"processing", {{"search_scales", ordered_json::parse(list)}}}});
    run_through();
  }
  expect_that_defaults_track();
}

TEST_F(PluginConfig, StandsEveryEndOfEveryRangeDuringARun) {
  expect_that_defaults_track();
  for (const auto& group : schema_.at("properties").items()) {
    for (const auto& leaf : group.value().at("properties").items()) {
      if (!leaf.value().contains("minimum")) continue;
      try_live(group.key(), leaf.key(), leaf.value().at("minimum"));
      try_live(group.key(), leaf.key(), leaf.value().at("maximum"));
      try_live(group.key(), leaf.key(), "nan");
    }
  }
  for (const char* list :
       {"[1]", "[-1,0]", R"(["nan"])", R"(["inf","-inf",1])", "[1e-30,1e30]", "[1,2,3,4,5,6]"}) {
    try_live("processing", "search_scales", ordered_json::parse(list));
  }
  expect_that_defaults_track();
}

}  // namespace
}  // namespace ostrel_test
