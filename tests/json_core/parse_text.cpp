#include "json_core/parse_text.h"

#include <iomanip>
#include <sstream>

namespace {

std::string describe_object(const SwJsonObject& object) {
  std::string text = "{";
  for (const auto& [key, value] : object.members) {
    text += (text.size() > 1 ? "," : "") + ("\"" + key + "\":") + describe(value);
  }
  return text + "}";
}

std::string describe_array(const SwJsonArray& array) {
  std::string text = "[";
  for (const SwJsonValue& value : array.elements) text += (text.size() > 1 ? "," : "") + describe(value);
  return text + "]";
}

std::string describe_double(double value) {
  std::ostringstream text;
  text << "d:" << std::setprecision(17) << value;
  return text.str();
}

}  // namespace

std::string describe(const SwJsonValue& value) {
  switch (value.kind) {
    case SwJsonValue::Kind::Null:
      return "null";
    case SwJsonValue::Kind::Boolean:
      return value.bool_value ? "b:1" : "b:0";
    case SwJsonValue::Kind::Integer:
      return "i:" + std::to_string(value.int_value);
    case SwJsonValue::Kind::Double:
      return describe_double(value.double_value);
    case SwJsonValue::Kind::String:
      return "s:\"" + value.string_value + "\"";
    case SwJsonValue::Kind::Object:
      return describe_object(*value.object_value);
    case SwJsonValue::Kind::Array:
      return describe_array(*value.array_value);
  }
  return "no kind";
}
