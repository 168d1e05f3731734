#pragma once

#include <string>

// Documents of which each level holds one other, `levels` deep.
enum class Nesting { kArrays, kObjects, kMixed };

inline std::string nested_json(Nesting nesting, int levels) {
  const auto is_array = [&](int level) {
    return nesting == Nesting::kArrays || (nesting == Nesting::kMixed && level % 2 == 0);
  };
  std::string text;
  for (int level = 0; level < levels; ++level) text += is_array(level) ? "[" : "{\"a\":";
  text += "1";
  for (int level = levels - 1; level >= 0; --level) text += is_array(level) ? "]" : "}";
  return text;
}
