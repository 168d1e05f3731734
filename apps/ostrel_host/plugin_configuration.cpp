#include "plugin_configuration.h"

#include <fstream>
#include <sstream>

#include "bad_input.h"
#include "plugin_state.h"

namespace ostrel_host {
namespace {

using nlohmann::json;

json read_document(const std::string& file) {
  std::ifstream stream(file);
  if (!stream) throw BadInput("the configuration '" + file + "' cannot be read");
  json document = json::parse(stream, nullptr, false);
  if (document.is_discarded()) throw BadInput("the configuration '" + file + "' is malformed JSON");
  if (!document.is_object()) throw BadInput("the configuration '" + file + "' is no JSON object");
  return document;
}

std::vector<std::string> parts_of(const std::string& path) {
  std::vector<std::string> parts;
  std::istringstream stream(path);
  for (std::string part; std::getline(stream, part, '/');) {
    if (!part.empty()) parts.push_back(part);
  }
  return parts;
}

void add_setting(const std::string& setting, json* document) {
  const std::size_t equals = setting.find('=');
  const auto parts = parts_of(setting.substr(0, equals));
  if (equals == std::string::npos || parts.empty()) {
    throw BadInput("'" + setting + "' is no setting: path=value is needed");
  }
  const std::string text = setting.substr(equals + 1);
  json value = json::parse(text, nullptr, false);
  if (value.is_discarded()) value = text;
  json* place = document;
  for (const std::string& part : parts) {
    if (!place->is_object()) *place = json::object();
    place = &(*place)[part];
  }
  *place = std::move(value);
}

// Throws for the first member of `document` that `schema` has no property for.
void require_known(const json& document, const json& schema, const std::string& path) {
  const auto properties = schema.find("properties");
  if (properties == schema.end() || !properties->is_object() || !document.is_object()) return;
  for (const auto& [key, value] : document.items()) {
    std::string here = path;
    if (!here.empty()) here += '/';
    here += key;
    const auto known = properties->find(key);
    if (known == properties->end()) throw BadInput("the plug-in knows no setting '" + here + "'");
    require_known(value, *known, here);
  }
}

int log_period(IAlgoPlugin& plugin) {
  return parse_state(plugin.property("")).properties.value("debug_log_period", 0);
}

void set_log_period(IAlgoPlugin& plugin, int period) {
  plugin.setConfig(json{{"debug", {{"log_every_n_frames", period}}}}.dump());
}

bool takes_configurations(IAlgoPlugin& plugin) {
  const int before = log_period(plugin);
  set_log_period(plugin, before + 1);
  const bool taken = log_period(plugin) == before + 1;
  set_log_period(plugin, before);
  return taken;
}

}  // namespace

json build_configuration(const std::string& file, const std::vector<std::string>& settings) {
  json document = file.empty() ? json::object() : read_document(file);
  for (const std::string& setting : settings) add_setting(setting, &document);
  return document;
}

void apply_configuration(IAlgoPlugin& plugin, const json& document) {
  if (document.empty()) return;
  const json schema = json::parse(plugin.getConfigList(), nullptr, false);
  if (schema.is_object()) require_known(document, schema, "");
  try {
    if (!takes_configurations(plugin)) {
      throw BadInput("this plug-in takes no configuration: setConfig changed nothing");
    }
    plugin.setConfig(document.dump());
  } catch (const BadInput&) {
    throw;
  } catch (const std::exception& failure) {
    throw BadInput(std::string("the plug-in refused the configuration: ") + failure.what());
  }
}

}  // namespace ostrel_host
