#include "plugin_configuration.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>

#include "bad_input.h"
#include "configuration_check.h"

namespace ostrel_host {
namespace {

using nlohmann::json;

// No setting lies this deep. Beyond it the text is refused while it is read: what walks a tree by recursion, as
// writing one does, would run out of stack.
constexpr int kMaxNesting = 32;

std::string read_text(const std::string& file) {
  std::ifstream stream(file, std::ios::binary);
  try {
    if (stream) return {std::istreambuf_iterator<char>(stream), {}};
  } catch (const std::ios_base::failure&) {
    // A folder opens and cannot be read.
  }
  throw BadInput("the configuration '" + file + "' cannot be read");
}

// What json::parse() does, for text that `name` stands for in a complaint.
json parse_flat(const std::string& text, const std::string& name, bool throws) {
  const auto check_depth = [&name](int depth, json::parse_event_t, const json&) {
    if (depth > kMaxNesting) throw BadInput(name + " is nested too deeply");
    return true;
  };
  return json::parse(text, check_depth, throws);
}

json read_document(const std::string& file) {
  const std::string text = read_text(file);
  try {
    json document = parse_flat(text, "the configuration '" + file + "'", true);
    if (!document.is_object()) throw BadInput("the configuration '" + file + "' is no JSON object");
    return document;
  } catch (const json::parse_error& failure) {
    const auto end = text.begin() + static_cast<std::ptrdiff_t>(std::min(failure.byte, text.size()));
    throw BadInput("the configuration '" + file + "' is malformed JSON at line " +
                   std::to_string(1 + std::count(text.begin(), end, '\n')));
  } catch (const json::out_of_range&) {
    throw BadInput("the configuration '" + file + "' holds a number that is too large");
  }
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
  const std::string path = setting.substr(0, equals);
  if (equals == std::string::npos || parts_of(path).empty()) {
    throw BadInput("'" + setting + "' is no setting: path=value is needed");
  }
  if (parts_of(path).size() > kMaxNesting) throw BadInput("the setting '" + path + "' is nested too deeply");
  const std::string text = setting.substr(equals + 1);
  json value = parse_flat(text, "the setting '" + path + "'", false);
  set_value(document, path, value.is_discarded() ? json(text) : std::move(value));
}

}  // namespace

json build_configuration(const std::string& file, const std::vector<std::string>& settings) {
  json document = file.empty() ? json::object() : read_document(file);
  for (const std::string& setting : settings) add_setting(setting, &document);
  return document;
}

void set_value(json* document, const std::string& path, json value) {
  json* place = document;
  for (const std::string& part : parts_of(path)) {
    if (!place->is_object()) *place = json::object();
    place = &(*place)[part];
  }
  *place = std::move(value);
}

bool wants_debug(bool asked, const json& document) {
  const auto path = json::json_pointer("/debug/enabled");
  return asked || (document.contains(path) && document.at(path) == true);
}

void apply_configuration(IAlgoPlugin& plugin, const json& document) {
  if (document.empty()) return;
  const json schema = json::parse(plugin.getConfigList(), nullptr, false);
  if (!schema.is_object()) throw BadInput("the plug-in describes its settings by no JSON object");
  check_configuration(document, schema);
  try {
    plugin.setConfig(document.dump());
  } catch (const json::type_error&) {
    throw BadInput("a setting holds text that is no UTF-8");
  } catch (const std::exception& failure) {
    throw BadInput(std::string("the plug-in refused the configuration: ") + failure.what());
  }
}

}  // namespace ostrel_host
