// A plug-in inside the test: its state is the test's to set.
#pragma once

#include <IAlgoPlugin.h>
#include <optrix/optrix_picture.h>

#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace ostrel_test {

class FakePlugin : public IAlgoPlugin {
 public:
  std::vector<AlgoOutput> init(const Pictures& pictures, const BBox&, bool* ok) override {
    pictures_at_init = pictures.size();
    if (!pictures.empty()) metadata_at_init = pictures.front()->baseMetadata();
    *ok = accepts_init;
    return answer_to_init;
  }
  std::vector<AlgoOutput> update(const Pictures& pictures, bool* ok) override {
    *ok = true;
    pictures_at_update.push_back(pictures.size());
    if (on_update) on_update(*this);
    return {};
  }
  std::vector<AlgoOutputDeclaration> getOutputDeclarations() const override { return {}; }
  bool isAlive() override { return true; }
  std::string getName() const override { return "OstrelAlgo"; }
  std::string getUuid() override { return "1"; }
  bool isDynamic() const override { return true; }
  void changePerformance(int) override {}
  void enableDebug(bool enabled) override { debug = enabled; }
  std::string getConfigList() override { return schema; }
  void setConfig(std::string json) override {
    configs.push_back(json);
    if (on_config) on_config(*this, json);
  }
  std::string getPropertyList() override { return "{}"; }
  void setProperty(std::string, std::string) override {}
  std::string property(std::string) override {
    return nlohmann::json{{"init_phase", phase}, {"runtime_status", status}}.dump();
  }

  bool accepts_init = true;
  bool debug = false;
  std::string phase = "idle";
  std::string status = "idle";
  std::string schema = "{}";
  std::function<void(FakePlugin&)> on_update;
  std::function<void(FakePlugin&, const std::string&)> on_config;
  std::vector<AlgoOutput> answer_to_init;
  std::size_t pictures_at_init = 0;
  optrix::OptrixPicture::BaseMetadata metadata_at_init;
  std::vector<std::size_t> pictures_at_update;
  std::vector<std::string> configs;
};

}  // namespace ostrel_test
