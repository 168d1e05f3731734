#include "engine_choice.h"

#include <cstdlib>

#include "plugin_configuration.h"

namespace ostrel_host {
namespace {

constexpr char kEngineVariable[] = "OSTREL_TRACKER_ATOM_TRT_ENGINE";
constexpr char kEngineSetting[] = "engine/tracker_engine_path";

}  // namespace

void use_engine(const std::string& engine, nlohmann::json* configuration) {
  if (engine.empty()) return;
  unsetenv(kEngineVariable);
  set_value(configuration, kEngineSetting, engine);
}

nlohmann::json engine_in_use(const nlohmann::json& configuration) {
  const char* variable = std::getenv(kEngineVariable);
  if (variable != nullptr && *variable != '\0') return variable;
  const auto path = nlohmann::json::json_pointer(std::string("/") + kEngineSetting);
  return configuration.contains(path) ? configuration.at(path) : nullptr;
}

}  // namespace ostrel_host
