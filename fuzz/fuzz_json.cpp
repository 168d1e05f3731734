// Parses any text, with and without a key, and holds the parser to its contract: it never throws, its index stays
// within the text, an error comes with a Null value, and a copy equals its source and shares nothing with it.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "json_core/sw_json_document.h"

namespace {

void require(bool condition) {
  if (!condition) std::abort();
}

bool same_number(double a, double b) {
  return a == b || (a != a && b != b);
}

bool same_value(const SwJsonValue& a, const SwJsonValue& b);

bool same_object(const SwJsonObject& a, const SwJsonObject& b) {
  require(&a != &b && a.members.size() == b.members.size());
  for (auto i = a.members.begin(), j = b.members.begin(); i != a.members.end(); ++i, ++j) {
    if (i->first != j->first || !same_value(i->second, j->second)) return false;
  }
  return true;
}

bool same_array(const SwJsonArray& a, const SwJsonArray& b) {
  require(&a != &b && a.elements.size() == b.elements.size());
  for (std::size_t i = 0; i < a.elements.size(); ++i) {
    if (!same_value(a.elements[i], b.elements[i])) return false;
  }
  return true;
}

bool same_value(const SwJsonValue& a, const SwJsonValue& b) {
  require((a.kind == SwJsonValue::Kind::Object) == (a.object_value != nullptr));
  require((a.kind == SwJsonValue::Kind::Array) == (a.array_value != nullptr));
  if (a.kind != b.kind || a.bool_value != b.bool_value || a.int_value != b.int_value ||
      !same_number(a.double_value, b.double_value) || a.string_value != b.string_value) {
    return false;
  }
  if (a.object_value) return same_object(*a.object_value, *b.object_value);
  return !a.array_value || same_array(*a.array_value, *b.array_value);
}

void check_failure(const SwString& error, const SwJsonValue& value, std::size_t index) {
  require(value.kind == SwJsonValue::Kind::Null && !value.object_value && !value.array_value);
  require(error.find(" (index " + std::to_string(index) + ")") != std::string::npos);
}

void parse_document(const SwString& text, const SwString& key) {
  const SwJsonDocument document;
  std::size_t index = 0;
  SwString error;
  const SwJsonValue value = document.parseJson(text, index, key, error);
  require(index <= text.size());
  if (!error.empty()) {
    check_failure(error, value, index);
    return;
  }
  const SwJsonValue copy(value);
  require(same_value(value, copy));
}

// From a bracket the two ways into an array are one.
void parse_array(const SwString& text, const SwString& key) {
  const std::size_t bracket = text.find('[');
  if (bracket == SwString::npos) return;
  std::size_t index = bracket;
  std::size_t document_index = bracket;
  SwString error;
  SwString document_error;
  const SwJsonValue value = SwJsonDocument().parseArray(text, index, key, error);
  const SwJsonValue document_value = SwJsonDocument().parseJson(text, document_index, key, document_error);
  require(index == document_index && error == document_error && same_value(value, document_value));
}

void parse_string(const SwString& text) {
  const std::size_t quote = text.find('"');
  if (quote == SwString::npos) return;
  std::size_t index = quote;
  SwString error;
  const SwString string = SwJsonDocument().parseString(text, index, error);
  require(index > quote && index <= text.size());
  require(error.empty() || string.empty());
}

}  // namespace

// The first byte selects: odd ones mean a key.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const SwString text(reinterpret_cast<const char*>(data) + 1, size - 1);
  const SwString key(data[0] % 2 == 1 ? "key" : "");
  parse_document(text, key);
  parse_array(text, key);
  parse_string(text);
  return 0;
}
