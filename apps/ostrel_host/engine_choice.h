// The backbone for a run: from the command line, from the environment variable that the plug-in reads at each start,
// or from its configuration.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace ostrel_host {

// Puts the engine of the command line, if there is one, into the configuration. The variable outranks the setting, so
// it must not outrank the command line.
void use_engine(const std::string& engine, nlohmann::json* configuration);

// The engine that was asked for; null: the plug-in's own default.
nlohmann::json engine_in_use(const nlohmann::json& configuration);

}  // namespace ostrel_host
