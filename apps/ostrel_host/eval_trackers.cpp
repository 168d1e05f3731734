#include "eval_trackers.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <set>

#include "bad_input.h"
#include "engine_choice.h"
#include "peer_tracker.h"
#include "plugin_configuration.h"

namespace ostrel_host {
namespace {

struct Named {
  std::string name;
  std::string file;
};

// A name stands in tables and in the names of files.
void require_name(const std::string& name, const std::string& text) {
  const bool good = std::all_of(name.begin(), name.end(), [](unsigned char c) {
    return std::isalnum(c) != 0 || c == '-' || c == '_' || c == '.' || c == '+';
  });
  if (!good || name.find_first_not_of('.') == std::string::npos) {
    throw BadInput("'" + text + "' gives no name: letters, digits and -_.+ are allowed");
  }
}

Named parse_variant(const std::string& text) {
  const std::size_t equals = text.find('=');
  if (equals == std::string::npos) throw BadInput("'" + text + "' is no variant: NAME=FILE is needed");
  Named variant{text.substr(0, equals), text.substr(equals + 1)};
  require_name(variant.name, text);
  return variant;
}

Named parse_engine(const std::string& text) {
  const std::size_t equals = text.find('=');
  if (equals == std::string::npos || std::filesystem::exists(text)) {
    std::string name = std::filesystem::path(text).stem().string();
    for (char& c : name) {
      if (std::isalnum(static_cast<unsigned char>(c)) == 0 && c != '-' && c != '.' && c != '+') c = '_';
    }
    return {name, text};
  }
  Named engine{text.substr(0, equals), text.substr(equals + 1)};
  require_name(engine.name, text);
  return engine;
}

std::vector<Named> engines_of(const TrackerChoice& choice) {
  if (choice.engines.empty()) return {{}};
  std::vector<Named> engines;
  for (const std::string& text : choice.engines) engines.push_back(parse_engine(text));
  if (engines.size() == 1 && choice.engines.front() == engines.front().file) engines.front().name.clear();
  return engines;
}

std::vector<Named> variants_of(const TrackerChoice& choice) {
  if (choice.variants.empty()) return {{"", choice.config_file}};
  if (!choice.config_file.empty()) throw BadInput("--config and --variant exclude each other");
  std::vector<Named> variants;
  for (const std::string& text : choice.variants) variants.push_back(parse_variant(text));
  return variants;
}

std::string row_name(const std::string& engine, const std::string& variant) {
  if (engine.empty() && variant.empty()) return "ostrel";
  return engine + (engine.empty() || variant.empty() ? "" : "+") + variant;
}

void require_names_apart(const std::vector<EvalTracker>& trackers) {
  std::set<std::string> seen;
  for (const EvalTracker& tracker : trackers) {
    if (!seen.insert(tracker.name).second) {
      throw BadInput("two trackers are called '" + tracker.name + "': NAME=FILE gives another name");
    }
  }
}

}  // namespace

std::vector<EvalTracker> eval_trackers(const TrackerChoice& choice) {
  std::vector<EvalTracker> trackers;
  for (const Named& engine : engines_of(choice)) {
    for (const Named& variant : variants_of(choice)) {
      EvalTracker tracker{row_name(engine.name, variant.name), "",
                          build_configuration(variant.file, choice.settings)};
      use_engine(engine.file, &tracker.configuration);
      trackers.push_back(std::move(tracker));
    }
  }
  for (const std::string& peer : parse_peers(choice.peers)) trackers.push_back({peer, peer, nullptr});
  require_names_apart(trackers);
  return trackers;
}

}  // namespace ostrel_host
