// The configuration that --config and --set hand to the plug-in.
#pragma once

#include <IAlgoPlugin.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace ostrel_host {

// The object of `file` (none when empty) with the settings "path=value" on top, such as
// "learning/update_iterations=20"; a value that is no JSON is taken as text. Throws BadInput for a file that cannot be
// read, text that is no JSON object or is nested too deeply for one of settings, and a setting without a path or "=".
nlohmann::json build_configuration(const std::string& file, const std::vector<std::string>& settings);

// Puts a value where a path such as "learning/update_iterations" leads; what stands in the way is replaced.
void set_value(nlohmann::json* document, const std::string& path, nlohmann::json value);

// Whether the plug-in's debug output is on for a run: asked for on the command line, or set by the document.
bool wants_debug(bool asked, const nlohmann::json& document);

// Hands a document to `setConfig`. Throws BadInput for a setting that the plug-in's schema does not allow
// (`check_configuration`) and for what setConfig throws. An empty document does nothing.
void apply_configuration(IAlgoPlugin& plugin, const nlohmann::json& document);

}  // namespace ostrel_host
