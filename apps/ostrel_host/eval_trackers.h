// What an evaluation compares: the plug-in with each engine and each settings file, then OpenCV's trackers.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace ostrel_host {

struct EvalTracker {
  std::string name;
  std::string peer;              // of OpenCV; empty for the plug-in
  nlohmann::json configuration;  // for the plug-in's setConfig

  bool is_plugin() const { return peer.empty(); }
};

struct TrackerChoice {
  std::vector<std::string> engines;   // FILE or NAME=FILE; none: as the configuration or the environment says
  std::string config_file;            // for all, where there are no variants
  std::vector<std::string> variants;  // NAME=FILE; without a file: the plug-in's defaults
  std::vector<std::string> settings;  // on top of each
  std::string peers;
};

// A row for each engine with each variant, then the peers. The plug-in is called "ostrel" where one engine and no
// variant is given; else by what tells the rows apart, the engine's name or its file's, the variant's, or both as
// "ENGINE+VARIANT". Throws BadInput for what cannot be read, and for two rows of one name.
std::vector<EvalTracker> eval_trackers(const TrackerChoice& choice);

}  // namespace ostrel_host
