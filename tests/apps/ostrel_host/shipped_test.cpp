// What comes with the project: the trunk, the settings, and the place where the default configuration finds the trunk.
#include <gtest/gtest.h>
#include <ostrel_host/accuracy.h>
#include <ostrel_host/configuration_check.h>

#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>
#include <string>

#include "apps/ostrel_host/program_runner.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using ostrel_host::AccuracyReport;
using ostrel_test::content_of;

const fs::path kRoot = OSTREL_SOURCE_FOLDER;
constexpr std::uintmax_t kLargestTrunkBytes = 12'000'000;

class Shipped : public ostrel_test::ProgramTest {
 protected:
  AccuracyReport track_rendered(const std::string& words) {
    const std::string clip = rendered("clip.mp4", {480, 270, 60, 1});
    const std::string truth = folder_.path("groundtruth_rect.txt");
    const std::string lines = content_of(truth);
    const auto outcome = run("track " + clip + " --roi " + lines.substr(0, lines.find('\n')) +
                             " --wait-ready --fps 15 --no-video --out " + folder_.path("out") + " " + words);
    EXPECT_EQ(outcome.exit_code, 0) << outcome.err;
    return ostrel_host::score_boxes(ostrel_host::read_boxes(folder_.path("out/boxes.txt")),
                                    ostrel_host::read_boxes(truth));
  }
};

json defaults_of(const json& schema) {
  json values = json::object();
  for (const auto& [key, member] : schema.at("properties").items()) {
    values[key] = member.at("type") == "object" ? defaults_of(member) : member.at("default");
  }
  return values;
}

TEST_F(Shipped, TrunkIsSmallEnoughToComeAlong) {
  const fs::path trunk = kRoot / "models/ostrel_trunk_192.onnx";
  ASSERT_TRUE(fs::exists(trunk));
  EXPECT_LT(fs::file_size(trunk), kLargestTrunkBytes);
}

TEST_F(Shipped, TrunkFollowsARenderedTarget) {
  const AccuracyReport report =
      track_rendered("--engine " + (kRoot / "models/ostrel_trunk_192.onnx").string());
  EXPECT_EQ(report.frames, 60U);
  EXPECT_GT(report.success_auc, 0.5);
  EXPECT_GT(report.precision_20px, 0.85);
}

TEST_F(Shipped, EachFileOfSettingsIsAllowedAndSaidWhenToUse) {
  const json schema = json::parse(run("schema").out);
  const std::string readme = content_of((kRoot / "configs/README.md").string());
  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(kRoot / "configs")) {
    if (entry.path().extension() != ".json") continue;
    const std::string name = entry.path().filename().string();
    names.insert(name);
    EXPECT_NO_THROW(ostrel_host::check_configuration(json::parse(content_of(entry.path().string())), schema))
        << name;
    EXPECT_NE(readme.find("| `" + name + "` |"), std::string::npos) << name;
  }
  const std::set<std::string> expected = {"accurate.json", "default.json", "nervous_camera.json",
                                          "small_target.json"};
  EXPECT_EQ(names, expected);
}

TEST_F(Shipped, DefaultSettingsAreTheOnesOfTheSchema) {
  const json schema = json::parse(run("schema").out);
  EXPECT_EQ(json::parse(content_of((kRoot / "configs/default.json").string())), defaults_of(schema));
}

// Sources the set-up in a checkout of its own that has nothing but the trunk.
class TrunkPlace : public testing::Test {
 protected:
  TrunkPlace() { fs::create_directories(folder_.path("models")); }

  void place() const {
    const std::string line = "cd '" + folder_.path("") + "' && bash -euc 'source " +
                             (kRoot / "tools/setup.sh").string() + "; ostrel_place_trunk'";
    ASSERT_EQ(std::system(line.c_str()), 0);
  }

  void write(const std::string& file, const std::string& text) const {
    fs::create_directories(fs::path(folder_.path(file)).parent_path());
    std::ofstream(folder_.path(file)) << text;
  }

  static std::string default_engine() {
    const json settings = json::parse(content_of((kRoot / "configs/default.json").string()));
    return settings.at("engine").at("tracker_engine_path");
  }

  ostrel_test::TemporaryFolder folder_;
};

TEST_F(TrunkPlace, IsTheDefaultEnginePathAndFollowsTheModel) {
  write("models/ostrel_trunk_192.onnx", "first");
  place();
  EXPECT_EQ(content_of(folder_.path(default_engine())), "first");
  write("models/ostrel_trunk_192.onnx", "second");
  place();
  EXPECT_EQ(content_of(folder_.path(default_engine())), "second");
}

TEST_F(TrunkPlace, KeepsAnEngineOfTheUsersOwn) {
  write("models/ostrel_trunk_192.onnx", "trunk");
  write(default_engine(), "engine of the user");
  place();
  EXPECT_EQ(content_of(folder_.path(default_engine())), "engine of the user");
}

}  // namespace
