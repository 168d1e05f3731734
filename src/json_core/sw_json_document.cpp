#include "json_core/sw_json_document.h"

#include <algorithm>
#include <string>

#include "json_core/json_reader.h"

SwJsonValue SwJsonDocument::parseJson(const SwString& text, std::size_t& index, const SwString& key,
                                      SwString& error) const {
  SwJsonValue value;
  if (!JsonReader(*this, text, index, key, error).read_value(value)) return {};
  return value;
}

SwJsonValue SwJsonDocument::parseArray(const SwString& text, std::size_t& index, const SwString& key,
                                       SwString& error) const {
  SwJsonValue value;
  if (!JsonReader(*this, text, index, key, error).read_array(value)) return {};
  return value;
}

SwString SwJsonDocument::parseString(const SwString& text, std::size_t& index, SwString& error) const {
  const SwString no_key;
  SwString string;
  if (!JsonReader(*this, text, index, no_key, error).read_string(string)) return {};
  return string;
}

void SwJsonDocument::reportError(SwString& error, const SwString& text, std::size_t index,
                                 const char* message) const {
  constexpr std::size_t kExtractBytes = 20;  // on each side
  SwString report(message);
  report += " (index " + std::to_string(index) + ")";
  if (!text.empty()) {
    const std::size_t begin = std::max(index, kExtractBytes) - kExtractBytes;
    const std::size_t end = index < text.size() ? index + kExtractBytes : text.size();
    report += " near \"" + (begin < end ? text.substr(begin, end - begin) : "") + "\"";
  }
  error = std::move(report);
}
