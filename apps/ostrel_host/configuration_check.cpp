#include "configuration_check.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "bad_input.h"

namespace ostrel_host {
namespace {

using nlohmann::json;

// Text of the user's may hold any bytes; what is no UTF-8 is replaced.
std::string shown(const json& value) {
  return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

bool is_whole(const json& value) {
  return value.is_number_integer() || (value.is_number() && std::trunc(value.get<double>()) == value);
}

std::string type_of(const json& schema) {
  return schema.value("type", "");
}

json items_of(const json& schema) {
  return schema.value("items", json::object());
}

bool has_type(const json& value, const json& schema) {
  const std::string type = type_of(schema);
  if (type == "object") return value.is_object();
  if (type == "string") return value.is_string();
  if (type == "boolean") return value.is_boolean();
  if (type == "integer") return is_whole(value);
  if (type == "number") return value.is_number();
  if (type != "array") return true;
  const json items = items_of(schema);
  return value.is_array() &&
         std::all_of(value.begin(), value.end(), [&](const json& item) { return has_type(item, items); });
}

std::string wanted_text(const json& schema) {
  const std::string type = type_of(schema);
  if (type == "object") return "a group of settings";
  if (type == "string") return "text in quotes";
  if (type == "boolean") return "true or false";
  if (type == "integer") return "a whole number";
  if (type == "array") return type_of(items_of(schema)) == "number" ? "a list of numbers" : "a list";
  return "a " + type;
}

void check_type(const json& value, const json& schema, const std::string& path) {
  if (has_type(value, schema)) return;
  throw BadInput("the setting '" + path + "' is " + shown(value) + ": " + wanted_text(schema) + " is needed");
}

void check_range(const json& value, const json& schema, const std::string& path) {
  if (!value.is_number()) return;
  const auto minimum = schema.find("minimum");
  const auto maximum = schema.find("maximum");
  const bool below = minimum != schema.end() && value < *minimum;
  const bool above = maximum != schema.end() && value > *maximum;
  if (!below && !above) return;
  const std::string bounds = minimum == schema.end()   ? "at most " + shown(*maximum)
                             : maximum == schema.end() ? "at least " + shown(*minimum)
                                                       : shown(*minimum) + " to " + shown(*maximum);
  throw BadInput("the setting '" + path + "' is " + shown(value) + ": " + bounds + " is allowed");
}

void check_value(const json& value, const json& schema, const std::string& path);

void check_members(const json& object, const json& schema, const std::string& path) {
  const auto properties = schema.find("properties");
  if (properties == schema.end() || !properties->is_object()) return;
  for (const auto& [key, value] : object.items()) {
    std::string here = path;
    if (!here.empty()) here += '/';
    here += key;
    const auto known = properties->find(key);
    if (known == properties->end()) throw BadInput("the plug-in knows no setting '" + here + "'");
    check_value(value, *known, here);
  }
}

void check_value(const json& value, const json& schema, const std::string& path) {
  if (!schema.is_object()) return;
  check_type(value, schema, path);
  check_range(value, schema, path);
  if (value.is_object()) check_members(value, schema, path);
  if (!value.is_array()) return;
  for (const json& item : value) check_range(item, items_of(schema), path);
}

}  // namespace

void check_configuration(const json& document, const json& schema) {
  check_value(document, schema, "");
}

}  // namespace ostrel_host
