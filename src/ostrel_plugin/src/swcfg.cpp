#include "ostrel_plugin/src/swcfg.h"

#include <algorithm>
#include <cctype>
#include <exception>

#include "json_core/text_bytes.h"
#include "tracking_runtime/tracker/atom/rounding.h"

namespace swcfg {
namespace {

using Kind = SwJsonValue::Kind;
using ostrel_tracker::tracking_runtime::tracker::atom::truncate_to_int;

// By comparisons, so that a NaN stays what it is.
template <typename T>
T clamped(T value, T min, T max) {
  if (value < min) return min;
  if (value > max) return max;
  return value;
}

const SwJsonObject* object_in(const SwJsonValue& value) {
  return value.kind == Kind::Object ? value.object_value.get() : nullptr;
}

// The value itself, not a copy: a document is walked once per setting.
const SwJsonValue* find_value(const SwJsonObject& object, const std::string& path) {
  const SwJsonObject* level = &object;
  const SwJsonValue* found = nullptr;
  for (const std::string& part : splitPath(path)) {
    if (level == nullptr) return nullptr;
    const auto member = level->members.find(part);
    if (member == level->members.end()) return nullptr;
    found = &member->second;
    level = object_in(*found);
  }
  return found;
}

bool text_to_double(const std::string& text, double* value) {
  try {
    *value = std::stod(text);
  } catch (const std::exception&) {
    return false;
  }
  return true;
}

bool text_to_int(const std::string& text, std::int32_t* value) {
  try {
    *value = std::stoi(text);
  } catch (const std::exception&) {
    return false;
  }
  return true;
}

bool is_yes(const std::string& text) {
  const std::string word = toLower(text);
  return word == "true" || word == "1" || word == "yes" || word == "on";
}

bool to_double(const SwJsonValue& value, double* number) {
  switch (value.kind) {
    case Kind::Double:
      *number = value.double_value;
      return true;
    case Kind::Integer:
      *number = static_cast<double>(value.int_value);
      return true;
    case Kind::Boolean:
      *number = value.bool_value ? 1.0 : 0.0;
      return true;
    case Kind::String:
      return text_to_double(value.string_value, number);
    default:
      return false;
  }
}

bool to_int(const SwJsonValue& value, std::int32_t* number) {
  switch (value.kind) {
    case Kind::Integer:
      *number = static_cast<std::int32_t>(static_cast<std::uint32_t>(value.int_value));
      return true;
    case Kind::Double:
      *number = truncate_to_int(value.double_value);
      return true;
    case Kind::Boolean:
      *number = value.bool_value ? 1 : 0;
      return true;
    case Kind::String:
      return text_to_int(value.string_value, number);
    default:
      return false;
  }
}

}  // namespace

std::string toLower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](char character) {
    return static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
  });
  return text;
}

std::string trim(std::string text) {
  text.erase(text.begin(), std::find_if_not(text.begin(), text.end(), is_white_space));
  text.erase(std::find_if_not(text.rbegin(), text.rend(), is_white_space).base(), text.end());
  return text;
}

std::vector<std::string> splitPath(std::string path) {
  std::replace(path.begin(), path.end(), '\\', '/');
  std::vector<std::string> parts;
  for (std::size_t begin = 0; begin <= path.size();) {
    const std::size_t end = std::min(path.find('/', begin), path.size());
    std::string part = trim(path.substr(begin, end - begin));
    if (!part.empty()) parts.push_back(std::move(part));
    begin = end + 1;
  }
  return parts;
}

bool getValue(const SwJsonObject& object, const std::string& path, SwJsonValue& out) {
  const SwJsonValue* found = find_value(object, path);
  if (found == nullptr) return false;
  out = *found;
  return true;
}

bool getValue(const SwJsonDocument& document, const std::string& path, SwJsonValue& out) {
  const SwJsonObject* root = object_in(document.root);
  return root != nullptr && getValue(*root, path, out);
}

bool assignBoolValue(const SwJsonValue& value, bool& out) {
  switch (value.kind) {
    case Kind::Boolean:
      out = value.bool_value;
      return true;
    case Kind::Integer:
      out = value.int_value != 0;
      return true;
    case Kind::Double:
      out = value.double_value != 0.0;
      return true;
    case Kind::String:
      out = is_yes(value.string_value);
      return true;
    default:
      return false;
  }
}

bool assignStringValue(const SwJsonValue& value, std::string& out) {
  switch (value.kind) {
    case Kind::String:
      out = value.string_value;
      return true;
    case Kind::Integer:
      out = std::to_string(value.int_value);
      return true;
    case Kind::Double:
      out = std::to_string(value.double_value);  // the form of "%f"
      return true;
    case Kind::Boolean:
      out = value.bool_value ? "true" : "false";
      return true;
    default:
      return false;
  }
}

bool assignDoubleValue(const SwJsonValue& value, double& out, double min, double max) {
  double number = 0.0;
  if (!to_double(value, &number)) return false;
  out = clamped(number, min, max);
  return true;
}

bool assignIntValue(const SwJsonValue& value, std::int32_t& out, std::int32_t min, std::int32_t max) {
  std::int32_t number = 0;
  if (!to_int(value, &number)) return false;
  out = clamped(number, min, max);
  return true;
}

bool assignBool(const SwJsonDocument& document, const std::string& key, bool& out) {
  SwJsonValue value;
  return getValue(document, key, value) && assignBoolValue(value, out);
}

bool assignString(const SwJsonDocument& document, const std::string& key, std::string& out) {
  SwJsonValue value;
  return getValue(document, key, value) && assignStringValue(value, out);
}

bool assignInt(const SwJsonDocument& document, const std::string& key, std::int32_t& out, std::int32_t min,
               std::int32_t max) {
  SwJsonValue value;
  return getValue(document, key, value) && assignIntValue(value, out, min, max);
}

bool assignDouble(const SwJsonDocument& document, const std::string& key, double& out, double min,
                  double max) {
  SwJsonValue value;
  return getValue(document, key, value) && assignDoubleValue(value, out, min, max);
}

bool assignDouble(const SwJsonDocument& document, const std::string& key, float& out, double min,
                  double max) {
  double number = 0.0;
  if (!assignDouble(document, key, number, min, max)) return false;
  out = static_cast<float>(number);
  return true;
}

}  // namespace swcfg
