#pragma once

#include <string>

#include "json_core/sw_json_document.h"

// What one call of parseJson() gave.
struct Parsed {
  SwJsonValue value;
  std::size_t index = 0;
  SwString error;
};

inline Parsed parse_text(const std::string& text, const std::string& key = "") {
  Parsed parsed;
  parsed.error = "left from before";
  parsed.value = SwJsonDocument().parseJson(text, parsed.index, key, parsed.error);
  return parsed;
}

// The value in one line: i:1 d:0.5 s:"x" b:1 null {"k":...} [...]. Doubles have 17 digits.
std::string describe(const SwJsonValue& value);
